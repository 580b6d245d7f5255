#include "report.hpp"

#include <pelm/model/json_text.hpp>

#include "pelm_server/text_numbers.hpp"

#include <cstdio>
#include <sstream>

namespace pelm::cli {
namespace {

std::string escape(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// "Entering SUB Region: U - 1 - 11" -> (1, 11)
std::optional<std::pair<int, int>> subRegionOf(const std::string& text, const std::string& prefix) {
    if (text.rfind(prefix, 0) != 0) return std::nullopt;
    const auto last = text.rfind(" - ");
    const auto before = text.rfind(" - ", last - 1);
    if (last == std::string::npos || before == std::string::npos) return std::nullopt;
    const auto major =
        server::wholeNumber(std::string_view(text).substr(before + 3, last - before - 3), 0, 65535);
    const auto minor = server::wholeNumber(std::string_view(text).substr(last + 3), 0, 65535);
    if (!major || !minor) return std::nullopt;
    return std::pair{static_cast<int>(*major), static_cast<int>(*minor)};
}

}  // namespace

std::string htmlReport(const platform::Scenario& scenario, const SimulationResult& result) {
    constexpr int kLeft = 150, kWidth = 900, kRow = 30;
    const double seconds = std::max<double>(1.0, static_cast<double>(result.simulated.count()) / 1000.0);
    const auto x = [&](double at) { return kLeft + at / seconds * kWidth; };
    const int rows = static_cast<int>(scenario.beacons.size()) + 1;
    std::ostringstream svg;
    svg << "<svg xmlns='http://www.w3.org/2000/svg' width='" << kLeft + kWidth + 20 << "' height='"
        << rows * kRow + 40 << "' font-family='sans-serif' font-size='12'>";
    for (int minute = 0; minute <= seconds / 60; ++minute) {
        svg << "<line x1='" << x(minute * 60) << "' y1='0' x2='" << x(minute * 60) << "' y2='" << rows * kRow
            << "' stroke='#ddd'/><text x='" << x(minute * 60) + 2 << "' y='" << rows * kRow + 15
            << "' fill='#666'>" << minute << " min</text>";
    }
    for (std::size_t i = 0; i < scenario.beacons.size(); ++i) {
        const auto& beacon = scenario.beacons[i];
        const int top = static_cast<int>(i) * kRow;
        svg << "<text x='4' y='" << top + 19 << "'>" << escape(beacon.name) << " (" << beacon.major << "/"
            << beacon.minor << ")</text>";
        if (i < result.heardSeconds.size()) {
            for (const auto second : result.heardSeconds[i]) {
                svg << "<rect x='" << x(static_cast<double>(second)) << "' y='" << top + 8 << "' width='"
                    << std::max(1.0, kWidth / seconds) << "' height='14' fill='#9cc3e6'/>";
            }
        }
        for (const auto& event : result.timeline) {
            const bool entry = subRegionOf(event.text, "Entering SUB Region: ").has_value();
            const auto region = entry ? subRegionOf(event.text, "Entering SUB Region: ")
                                      : subRegionOf(event.text, "Exiting SUB Region: ");
            if (!region || region->first != beacon.major || region->second != beacon.minor) continue;
            const double at = static_cast<double>(event.at.count()) / 1000.0;
            // Entries point up, exits point down.
            const int tip = entry ? top + 4 : top + 22;
            const int base = entry ? 11 : -11;
            svg << "<path d='M" << x(at) << " " << tip << " l5 " << base << " l-10 0 z' fill='"
                << (entry ? "#2a9d3f" : "#c0392b") << "'><title>" << escape(event.text) << "</title></path>";
        }
    }
    const int contentTop = static_cast<int>(scenario.beacons.size()) * kRow;
    svg << "<text x='4' y='" << contentTop + 19 << "' font-weight='bold'>content</text>";
    for (const auto& event : result.timeline) {
        if (event.kind != TimelineEvent::Kind::Content) continue;
        const double at = static_cast<double>(event.at.count()) / 1000.0;
        svg << "<circle cx='" << x(at) << "' cy='" << contentTop + 15 << "' r='6' fill='#e67e22'><title>"
            << escape(event.text) << "</title></circle>";
    }
    svg << "</svg>";

    std::ostringstream page;
    page << "<!DOCTYPE html><html><head><meta charset='utf-8'><title>pelm simulate: " << escape(scenario.name)
         << "</title><style>body{font-family:sans-serif;margin:2em}td{padding:2px 8px}"
            "tr.c{color:#b35900;font-weight:bold}tr.x{color:#c0392b}</style></head><body><h1>"
         << escape(scenario.name) << "</h1><p>" << result.advertisements << " advertisements, "
         << result.timeline.size()
         << " events. Blue: heard by the radio; green and red: sub-region entry and exit; "
         << "orange: content handed to the app (hover for details).</p>" << svg.str()
         << "<h2>Timeline</h2><table>";
    for (const auto& event : result.timeline) {
        char clock[32];
        std::snprintf(clock, sizeof clock, "%02lld:%04.1f", static_cast<long long>(event.at.count() / 60000),
                      static_cast<double>(event.at.count() % 60000) / 1000.0);
        const char* cls = event.kind == TimelineEvent::Kind::Content ? "c" : event.critical ? "x" : "";
        page << "<tr class='" << cls << "'><td>" << clock << "</td><td>" << escape(event.text)
             << "</td></tr>";
    }
    page << "</table><h2>Stored visit</h2><pre>" << escape(jsonText(result.storedVisits, 2))
         << "</pre></body></html>\n";
    return page.str();
}

}  // namespace pelm::cli
