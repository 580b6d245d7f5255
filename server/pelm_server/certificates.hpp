#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "pelm_server/server_names.hpp"

namespace pelm::server {

/// A throwaway certificate authority and a server certificate it signed, for localhost and the loopback
/// addresses, written as PEM files into one folder.
struct ThrowawayCertificate {
    std::filesystem::path caFile;    // trust this one
    std::filesystem::path certFile;  // the server's certificate
    std::filesystem::path keyFile;   // the server's private key
    /// Whether this call made the authority (false: the folder's was reused, as devices already trust it).
    bool madeAuthority = true;
};

/// Why `name` cannot go into a certificate (not a host name nor an IP address), if it cannot.
std::optional<std::string> serverNameProblem(const std::string& name);

/// Adds "shop.lan,192.168.1.20" to `names`; the problem with the first name refused, if one is.
std::optional<std::string> readServerNames(const std::string& commaSeparated, ServerNames& names);

/// For a server listening beyond loopback whose certificate names localhost only: the advice to name the
/// machine, which devices on the LAN reach it by. None otherwise.
std::optional<std::string> lanNameHint(const std::string& bindAddress, const ServerNames& names);

/// Makes a fresh authority (its key kept as ca-key.pem) and a server certificate for `names`, valid for
/// `days`, in `folder` (created if missing). Throws std::runtime_error when OpenSSL fails, and for a name
/// serverNameProblem refuses.
ThrowawayCertificate makeThrowawayCertificate(const std::filesystem::path& folder, int days = 30,
                                              const ServerNames& names = {});

/// The folder's authority and server certificate, made only when one is missing, they do not belong
/// together, or one expires within a week; otherwise reused, so devices that trust the authority keep
/// trusting it across restarts. When the names asked for differ from the certificate's, only the server
/// certificate is made again, signed by the same authority. Safe against servers starting together in the
/// same folder.
ThrowawayCertificate folderCertificate(const std::filesystem::path& folder, int days = 365,
                                       const ServerNames& names = {});

/// Why the server could not serve with this certificate and key: a file missing or not PEM, a key that is not
/// the certificate's, a certificate not yet or no longer valid. None when it could.
std::optional<std::string> certificateProblem(const std::filesystem::path& certFile,
                                              const std::filesystem::path& keyFile);

}  // namespace pelm::server
