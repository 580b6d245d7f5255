#include "pelm_server/form_body.hpp"

#include <vector>

#include <pelm/api/form_encoding.hpp>

namespace pelm::server {
namespace {

// "session_logs[][uuid]" -> {"session_logs", "", "uuid"}
std::vector<std::string> nameParts(const std::string& name) {
    std::vector<std::string> parts;
    const auto open = name.find('[');
    parts.push_back(name.substr(0, open));
    auto at = open;
    while (at != std::string::npos && at < name.size() && name[at] == '[') {
        const auto close = name.find(']', at);
        if (close == std::string::npos) break;
        parts.push_back(name.substr(at + 1, close - at - 1));
        at = close + 1;
    }
    return parts;
}

void assign(JSON& target, const std::vector<std::string>& parts, std::size_t index,
            const std::string& value) {
    const auto& part = parts[index];
    const bool last = index + 1 == parts.size();
    if (part.empty() && index > 0) {  // "[]": an array of values or of objects
        if (!target.is_array()) target = JSON::array();
        if (last) {
            target.push_back(value);
            return;
        }
        const auto& member = parts[index + 1];
        if (target.empty() || !target.back().is_object() || target.back().contains(member)) {
            target.push_back(JSON::object());
        }
        assign(target.back(), parts, index + 1, value);
        return;
    }
    if (!target.is_object()) target = JSON::object();
    if (last) {
        target[part] = value;
    } else {
        assign(target[part], parts, index + 1, value);
    }
}

}  // namespace

JSON parseFormBody(std::string_view body) {
    JSON result = JSON::object();
    std::size_t start = 0;
    while (start <= body.size()) {
        auto end = body.find('&', start);
        if (end == std::string_view::npos) end = body.size();
        const auto pair = body.substr(start, end - start);
        if (!pair.empty()) {
            const auto eq = pair.find('=');
            const auto name = formDecode(pair.substr(0, eq));
            const auto value = eq == std::string_view::npos ? std::string() : formDecode(pair.substr(eq + 1));
            const auto parts = nameParts(name);
            if (!parts.front().empty()) assign(result, parts, 0, value);
        }
        start = end + 1;
    }
    return result;
}

}  // namespace pelm::server
