#pragma once

#include <memory>
#include <string>

#include <pelm/model/beacon.hpp>
#include <pelm/model/content.hpp>

namespace pelm {

/// What the session manager tells its owner: content found for a beacon, and short status lines.
class PelmSessionManagerDelegate {
  public:
    virtual ~PelmSessionManagerDelegate() = default;
    virtual void didFindNewContent(std::shared_ptr<Content> content, std::shared_ptr<Beacon> beacon) = 0;
    virtual void didChangeSessionStatus(const std::string& status, bool critical) = 0;
};

}  // namespace pelm
