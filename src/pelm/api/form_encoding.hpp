#pragma once

#include <string>
#include <string_view>

#include <pelm/model/json_binding.hpp>

namespace pelm {

/// Percent-escapes every byte except ASCII letters, digits and - . _ ~ / ?, with upper-case hex digits.
std::string percentEscape(std::string_view text);

/// Undoes form escaping, for whoever reads such a body: %XX is the byte, "+" a blank, and a "%" without two
/// hexadecimal digits after it stays as it is.
std::string formDecode(std::string_view text);

/// The form encoding of a parameter object: top-level keys in ascending order, objects as key[member]
/// (in the object's own order), arrays as key[] per element, true and false as 1 and 0, whole composed
/// names escaped, pairs joined with "&".
std::string formEncode(const JSON& parameters);

}  // namespace pelm
