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

/// The folder's authority and server certificate, made only when one is missing, they do not belong
/// together, or one expires within a week; otherwise reused, so devices that trust the authority keep
/// trusting it across restarts. Safe against servers starting together in the same folder.
ThrowawayCertificate folderCertificate(const std::filesystem::path& folder, int days = 365);

}  // namespace pelm::server
