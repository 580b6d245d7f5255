#pragma once

#include <filesystem>
#include <string>

namespace pelm::server {

/// A throwaway certificate authority and a server certificate it signed, for localhost and the loopback
/// addresses, written as PEM files into one folder.
struct ThrowawayCertificate {
    std::filesystem::path caFile;    // trust this one
    std::filesystem::path certFile;  // the server's certificate
    std::filesystem::path keyFile;   // the server's private key
};

/// Makes a fresh authority and server certificate, valid for `days`, in `folder` (created if missing).
/// Throws std::runtime_error when OpenSSL fails.
ThrowawayCertificate makeThrowawayCertificate(const std::filesystem::path& folder, int days = 30);

}  // namespace pelm::server
