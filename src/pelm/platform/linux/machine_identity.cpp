#include <pelm/platform/linux/machine_identity.hpp>

#include <openssl/sha.h>

#include <cstdio>
#include <fstream>

namespace pelm::platform {
namespace {

// A fixed namespace of our own for device identifiers.
constexpr unsigned char kDeviceNamespace[16] = {0x6b, 0x1e, 0x3f, 0x52, 0x9a, 0x0c, 0x4d, 0x57,
                                                0x8e, 0x21, 0x70, 0x4f, 0xb3, 0x95, 0xc8, 0x1d};

bool looksLikeMachineId(const std::string& text) {
    if (text.size() != 32) return false;
    for (char c : text) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    }
    return text != std::string(32, '0');
}

}  // namespace

std::string nameBasedUuid(const unsigned char (&namespaceUuid)[16], const std::string& name) {
    std::string input(reinterpret_cast<const char*>(namespaceUuid), 16);
    input += name;
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(input.data()), input.size(), digest);
    digest[6] = static_cast<unsigned char>((digest[6] & 0x0F) | 0x50);  // version 5
    digest[8] = static_cast<unsigned char>((digest[8] & 0x3F) | 0x80);  // RFC 4122 variant
    std::string text;
    char hex[3];
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        std::snprintf(hex, sizeof hex, "%02X", digest[i]);
        text += hex;
    }
    return text;
}

MachineIdentity::MachineIdentity(std::string vendorName, std::string appVersion, std::string appBuildVersion,
                                 std::filesystem::path machineIdFile)
    : vendorName_(std::move(vendorName)),
      appVersion_(std::move(appVersion)),
      appBuildVersion_(std::move(appBuildVersion)),
      machineIdFile_(std::move(machineIdFile)) {}

std::optional<std::string> MachineIdentity::vendorIdentifier() const {
    std::ifstream in(machineIdFile_);
    std::string machineId;
    if (!(in >> machineId) || !looksLikeMachineId(machineId)) return std::nullopt;
    return nameBasedUuid(kDeviceNamespace, machineId + "\n" + vendorName_);
}

}  // namespace pelm::platform
