#pragma once

#include <string>
#include <vector>

namespace pelm::server {

/// Names a server certificate holds besides localhost, 127.0.0.1 and ::1: host names and IP addresses under
/// which devices on the LAN reach the server.
using ServerNames = std::vector<std::string>;

}  // namespace pelm::server
