#pragma once

#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <pelm/model/json.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/model/raw_values.hpp>

namespace pelm {

/// A record's binding list: `mapping(self, map)` names each field's key, in order, and serves both
/// directions. A record that carries its own (the reply envelopes) is asked for it; the records a host app
/// receives are plain, and theirs are specialisations of this in record_json.hpp.
template <class Record>
struct Binding {
    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        Record::mapping(self, map);
    }
};

template <class Record>
std::shared_ptr<Record> fromJSON(const JSON& json);
template <class Record>
JSON toJSON(const Record& record);

/// Reading direction of a record's binding list: each field takes its member only when the member has the
/// field's JSON type; anything else (missing, null, another type) leaves the field as it is.
class JSONReader {
  public:
    explicit JSONReader(const JSON& object) : object_(object) {}

    void operator()(std::string_view key, std::optional<std::string>& field) const {
        if (const auto* value = find(key); value && value->is_string()) field = value->get<std::string>();
    }
    void operator()(std::string_view key, std::optional<bool>& field) const {
        if (const auto* value = find(key); value && value->is_boolean()) field = value->get<bool>();
    }
    void operator()(std::string_view key, std::optional<std::int64_t>& field) const {
        if (const auto* value = find(key)) {
            if (const auto number = integerOf(*value)) field = number;
        }
    }
    template <RawRepresentable E>
    void operator()(std::string_view key, std::optional<E>& field) const {
        if (const auto* value = find(key); value && value->is_string()) {
            field = fromRawValue<E>(value->get_ref<const std::string&>());
        }
    }
    template <class Record>
    void operator()(std::string_view key, std::shared_ptr<Record>& field) const {
        if (const auto* value = find(key); value && value->is_object()) field = fromJSON<Record>(*value);
    }
    /// A free-form dictionary: taken whole when the member is an object.
    void operator()(std::string_view key, JSON& dictionary) const {
        if (const auto* value = find(key); value && value->is_object()) dictionary = *value;
    }
    template <class T, class Transform>
    void operator()(std::string_view key, std::optional<T>& field, const Transform& transform) const {
        field = transform.transformFromJSON(find(key));
    }

    /// A JSON number that names a whole number in range; fractions and out-of-range values give none.
    static std::optional<std::int64_t> integerOf(const JSON& value) {
        if (value.is_number_unsigned()) {
            const auto n = value.get<std::uint64_t>();
            if (n > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return std::nullopt;
            return static_cast<std::int64_t>(n);
        }
        if (value.is_number_integer()) return value.get<std::int64_t>();
        if (value.is_number_float()) {
            const double d = value.get<double>();
            // 2^63 is exactly representable; every double below it in magnitude fits.
            if (!std::isfinite(d) || d != std::trunc(d) || d >= 9223372036854775808.0 ||
                d < -9223372036854775808.0) {
                return std::nullopt;
            }
            return static_cast<std::int64_t>(d);
        }
        return std::nullopt;
    }

  private:
    const JSON* find(std::string_view key) const {
        const auto found = object_.find(key);
        if (found == object_.end() || found->is_null()) return nullptr;
        return &*found;
    }

    const JSON& object_;
};

/// Writing direction: fields with a value are written in binding order; empty ones are left out.
class JSONWriter {
  public:
    template <class T>
    void operator()(std::string_view key, const std::optional<T>& field) {
        if (!field) return;
        if constexpr (RawRepresentable<T>) {
            object_[std::string(key)] = std::string(rawValue(*field));
        } else {
            object_[std::string(key)] = *field;
        }
    }
    template <class Record>
    void operator()(std::string_view key, const std::shared_ptr<Record>& field) {
        if (field) object_[std::string(key)] = toJSON(*field);
    }
    /// A free-form dictionary is always written, as {} when empty.
    void operator()(std::string_view key, const JSON& dictionary) {
        object_[std::string(key)] = dictionary.is_object() ? dictionary : JSON::object();
    }
    template <class T, class Transform>
    void operator()(std::string_view key, const std::optional<T>& field, const Transform& transform) {
        if (auto text = transform.transformToJSON(field)) object_[std::string(key)] = std::move(*text);
    }

    JSON take() { return std::move(object_); }

  private:
    JSON object_ = JSON::object();
};

/// A record from JSON by its binding list. Reading never fails: anything that is not an object gives a
/// record with every field empty.
template <class Record>
std::shared_ptr<Record> fromJSON(const JSON& json) {
    auto record = std::make_shared<Record>();
    if (json.is_object()) {
        JSONReader reader(json);
        Binding<Record>::mapping(*record, reader);
    }
    return record;
}
/// The same from JSON text; malformed text gives an empty record.
template <class Record>
std::shared_ptr<Record> fromJSONText(std::string_view text) {
    const auto parsed = parseJSONText(text);
    return fromJSON<Record>(parsed ? *parsed : JSON());
}
/// A record as JSON: the fields that have a value, in binding order.
template <class Record>
JSON toJSON(const Record& record) {
    JSONWriter writer;
    Binding<Record>::mapping(record, writer);
    return writer.take();
}
/// The same as text; invalid UTF-8 in a text field is replaced rather than thrown at the caller.
template <class Record>
std::string toJSONText(const Record& record) {
    return jsonText(toJSON(record));
}

/// Gives a record with a `mapping(self, map)` binding list of its own the two directions as members.
template <class Record>
class Mappable {
  public:
    static std::shared_ptr<Record> fromJSON(const JSON& json) { return pelm::fromJSON<Record>(json); }
    static std::shared_ptr<Record> fromJSONText(std::string_view text) {
        return pelm::fromJSONText<Record>(text);
    }
    JSON toJSON() const { return pelm::toJSON(static_cast<const Record&>(*this)); }
    std::string toJSONText() const { return pelm::toJSONText(static_cast<const Record&>(*this)); }

  protected:
    Mappable() = default;
};

}  // namespace pelm
