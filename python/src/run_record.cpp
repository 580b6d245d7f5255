#include "run_record.hpp"

#include <map>

#include <pelm/model/json_text.hpp>

#include "pelm_lab/event_lines.hpp"

namespace py = pybind11;

namespace pelm::python {

using lab::eventJSON;

namespace {

std::int64_t millisecondsOf(Date when) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
}

// Decimal texts (a beacon's major and minor as the library matches them) as the numbers they are, so that
// a column holds one type.
JSON numberIfDigits(const JSON& value) {
    if (!value.is_string()) return value;
    const auto& text = value.get_ref<const std::string&>();
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
        return value;
    return std::stoi(text);
}

// One event of the events file made flat, for a spreadsheet: a beacon's fields are columns of the row, and
// a list (ranged beacons, nearby devices, a visit's lines) is its count and its JSON text.
JSON flatRow(const TimelineEvent& event) {
    JSON row = JSON::object();
    row["t"] = millisecondsOf(event.when);
    row["at"] = event.at.count();
    const JSON line = eventJSON(event);
    for (const auto& [key, value] : line.items()) {
        if (key == "v" || key == "t") continue;
        if (key == "beacon" && value.is_object()) {
            for (const char* field : {"uuid", "major", "minor"}) {
                if (value.contains(field)) row[field] = numberIfDigits(value[field]);
            }
        } else if (value.is_array() || value.is_object()) {
            if (value.is_array()) row["count"] = value.size();
            row["detail"] = row.contains("detail") ? row["detail"].get<std::string>() + " " + jsonText(value)
                                                   : jsonText(value);
        } else {
            row[key] = value;
        }
    }
    if (!row.contains("text") && !event.text.empty()) row["text"] = event.text;
    return row;
}

py::object toPython(const JSON& value) {
    switch (value.type()) {
        case JSON::value_t::string:
            return py::str(value.get_ref<const std::string&>());
        case JSON::value_t::boolean:
            return py::bool_(value.get<bool>());
        case JSON::value_t::number_integer:
            return py::int_(value.get<std::int64_t>());
        case JSON::value_t::number_unsigned:
            return py::int_(value.get<std::uint64_t>());
        case JSON::value_t::number_float:
            return py::float_(value.get<double>());
        case JSON::value_t::null:
            return py::none();
        default:
            return py::str(jsonText(value));
    }
}

}  // namespace

py::dict RunRecord::events() const {
    std::vector<JSON> rows;
    for (const auto& event : timeline) {
        if (event.kind != TimelineEvent::Kind::Heard) rows.push_back(flatRow(event));
    }
    // The columns in the order their fields first appear, so that the common ones come first.
    std::vector<std::string> names;
    std::map<std::string, py::list> columns;
    for (const auto& row : rows) {
        for (const auto& [key, value] : row.items()) {
            if (columns.count(key) > 0) continue;
            names.push_back(key);
            columns.emplace(key, py::list());
        }
    }
    for (const auto& row : rows) {
        for (const auto& name : names) {
            const auto found = row.find(name);
            columns[name].append(found == row.end() ? py::none() : toPython(*found));
        }
    }
    py::dict out;
    for (const auto& name : {"t", "at", "kind", "text"}) {
        if (columns.count(name) > 0) out[name] = columns[name];
    }
    for (const auto& name : names) {
        if (!out.contains(name)) out[name.c_str()] = columns[name];
    }
    return out;
}

py::dict RunRecord::signals() const {
    py::list t, uuid, major, minor, device, rssi, advertisements;
    for (const auto& event : timeline) {
        for (const auto& signal : event.signals) {
            t.append(millisecondsOf(event.when));
            uuid.append(signal.uuid);
            major.append(signal.major);
            minor.append(signal.minor);
            device.append(signal.device);
            rssi.append(signal.rssi);
            advertisements.append(signal.advertisements);
        }
    }
    py::dict out;
    out["t"] = t;
    out["uuid"] = uuid;
    out["major"] = major;
    out["minor"] = minor;
    out["device"] = device;
    out["rssi"] = rssi;
    out["advertisements"] = advertisements;
    return out;
}

std::string RunRecord::html() const {
    return htmlReport(header, timeline, length, storedVisits);
}

}  // namespace pelm::python
