#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <utility>

namespace pelm {

/// Text-backed enumerations specialise this with a `table` of (case, raw text) pairs in declaration order.
template <class E>
struct RawValues;

template <class E>
concept RawRepresentable = requires {
    RawValues<E>::table;
};

/// The raw text of a case.
template <RawRepresentable E>
constexpr std::string_view rawValue(E value) {
    for (const auto& [candidate, raw] : RawValues<E>::table) {
        if (candidate == value) return raw;
    }
    return {};
}

/// The case whose raw text is exactly `raw` (case-sensitive), or none.
template <RawRepresentable E>
constexpr std::optional<E> fromRawValue(std::string_view raw) {
    for (const auto& [candidate, text] : RawValues<E>::table) {
        if (text == raw) return candidate;
    }
    return std::nullopt;
}

}  // namespace pelm
