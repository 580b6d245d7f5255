#include <pelm/api/form_encoding.hpp>

#include <algorithm>
#include <vector>

namespace pelm {
namespace {

bool keptAsIs(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~' || c == '/' || c == '?';
}

std::string scalarText(const JSON& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
    if (value.is_null()) return "";
    return value.dump(-1, ' ', false, JSON::error_handler_t::replace);
}

void expand(const std::string& name, const JSON& value, std::string& out) {
    if (value.is_object()) {
        for (const auto& [member, inner] : value.items()) expand(name + "[" + member + "]", inner, out);
    } else if (value.is_array()) {
        for (const auto& element : value) expand(name + "[]", element, out);
    } else {
        if (!out.empty()) out += '&';
        out += percentEscape(name);
        out += '=';
        out += percentEscape(scalarText(value));
    }
}

}  // namespace

std::string percentEscape(std::string_view text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(text.size() * 3);
    for (const char raw : text) {
        const auto c = static_cast<unsigned char>(raw);
        if (keptAsIs(c)) {
            escaped += raw;
        } else {
            escaped += '%';
            escaped += kHex[c >> 4];
            escaped += kHex[c & 0x0F];
        }
    }
    return escaped;
}

std::string formEncode(const JSON& parameters) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : parameters.items()) keys.push_back(key);
    std::sort(keys.begin(), keys.end());
    std::string out;
    for (const auto& key : keys) expand(key, parameters.at(key), out);
    return out;
}

}  // namespace pelm
