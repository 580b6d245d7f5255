#pragma once

#include <memory>
#include <optional>

#include <pelm/platform/http_transport.hpp>

namespace pelm::lab {

/// Passes every exchange on unchanged and remembers whether the server refused the app token (401 or 403),
/// which the library reports only as a failed call, so the tool can say so in its own words.
class RefusalWatch : public platform::HttpTransport {
  public:
    explicit RefusalWatch(std::shared_ptr<platform::HttpTransport> inner);
    void send(platform::HttpRequest request, std::function<void(platform::HttpReply)> completion) override;
    /// The refusing status, if any reply so far was one.
    std::optional<long> refused() const { return *refused_; }

  private:
    std::shared_ptr<platform::HttpTransport> inner_;
    // Shared with the completions in flight, which may run after the watch is gone.
    std::shared_ptr<std::optional<long>> refused_ = std::make_shared<std::optional<long>>();
};

}  // namespace pelm::lab
