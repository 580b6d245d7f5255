#pragma once

#include <string_view>

#include <pelm/model/json_binding.hpp>

namespace pelm::server {

/// Reads a form-encoded body back into nested JSON: a[b]=1 gives {"a":{"b":"1"}}, a[][b]=1&a[][b]=2 gives
/// {"a":[{"b":"1"},{"b":"2"}]} (a repeated member starts the next element), plain keys give texts. Every
/// value stays text, as it travelled.
JSON parseFormBody(std::string_view body);

}  // namespace pelm::server
