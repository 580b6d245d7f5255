#pragma once

#include <initializer_list>
#include <optional>
#include <string>

#include <pelm/model/json_binding.hpp>

namespace pelm {

/// The first key of `object` that is not in `known`, as "dwel: unknown key; did you mean dwell?" (the
/// suggestion when a known key is at most two letters away); none when every key is known. Files that people
/// write by hand are checked with it, since a misspelt key would otherwise read as absent and its default be
/// used without a word.
std::optional<std::string> unknownKeyProblem(const JSON& object, std::initializer_list<const char*> known);

}  // namespace pelm
