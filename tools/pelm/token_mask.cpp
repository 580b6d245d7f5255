#include "token_mask.hpp"

#include <algorithm>

namespace pelm::cli {

std::string maskedToken(std::string_view token) {
    const bool ascii = std::all_of(token.begin(), token.end(), [](char c) {
        return static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x7F;
    });
    if (!ascii || token.size() < 10) return "\u2026";
    return std::string(token.substr(0, 5)) + "\u2026" + std::string(token.substr(token.size() - 4));
}

}  // namespace pelm::cli
