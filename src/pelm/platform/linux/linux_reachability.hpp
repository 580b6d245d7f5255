#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <pelm/platform/device_status_sources.hpp>

namespace pelm::platform {

/// Reachability of a host name on Linux, without sending anything to the host: the name must resolve and
/// the kernel must have a route to one of its addresses (a UDP socket connected to it, which sends nothing).
/// Evaluated when started, whenever the kernel reports a link, address or route change (netlink), and at
/// every `interval`; callbacks fire, on the watcher's thread, when the answer changes.
class LinuxReachability : public ReachabilityService {
  public:
    /// Host name to the addresses it resolves to; replaceable for tests.
    using Resolver = std::function<std::vector<std::string>(const std::string& host)>;

    explicit LinuxReachability(std::chrono::milliseconds interval = std::chrono::seconds(10),
                               Resolver resolver = {});
    std::unique_ptr<ReachabilityWatcher> makeWatcher(const std::string& host) override;

    /// The host part of "host", "host:port", "[v6]:port" or "v6".
    static std::string hostPart(const std::string& hostWithPort);
    /// Resolves with getaddrinfo.
    static std::vector<std::string> resolve(const std::string& host);
    /// Whether the kernel has a route to the numeric address.
    static bool routeExists(const std::string& address);

  private:
    std::chrono::milliseconds interval_;
    Resolver resolver_;
};

}  // namespace pelm::platform
