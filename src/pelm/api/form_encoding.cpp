#include <pelm/api/form_encoding.hpp>

#include <algorithm>
#include <vector>

#include <pelm/model/hex_digits.hpp>

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
    return jsonText(value);
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
    std::string escaped;
    escaped.reserve(text.size() * 3);
    for (const char raw : text) {
        const auto c = static_cast<unsigned char>(raw);
        if (keptAsIs(c)) {
            escaped += raw;
        } else {
            escaped += '%';
            escaped += kHexDigits[c >> 4];
            escaped += kHexDigits[c & 0x0F];
        }
    }
    return escaped;
}

std::string formDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out += ' ';
        } else if (text[i] == '%' && i + 2 < text.size() && hexDigitValue(text[i + 1]) >= 0 &&
                   hexDigitValue(text[i + 2]) >= 0) {
            out += static_cast<char>(hexDigitValue(text[i + 1]) * 16 + hexDigitValue(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
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
