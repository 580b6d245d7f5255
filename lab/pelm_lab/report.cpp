#include "pelm_lab/report.hpp"

#include "pelm_lab/output_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include <pelm/model/json_date_transform.hpp>
#include <pelm/model/json_text.hpp>

#include "pelm_lab/timeline_output.hpp"
#include "pelm_lab/visit_picture.hpp"

namespace pelm::lab {
namespace {

std::string escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
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
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// SVG coordinates, one decimal.
std::string num(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

// "4:05", or "1:02:05" past the hour.
std::string clock(double seconds) {
    const long long whole = std::llround(std::max(0.0, seconds));
    char text[32];
    if (whole >= 3600) {
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    } else {
        std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
    }
    return text;
}

// Every kind of mark, in the legend's order, as the page's classes name them and the legend explains them.
// After the band and the line come the BeaconMark kinds, in their order.
struct MarkKind {
    const char* name;
    const char* legend;
};
constexpr MarkKind kMarks[] = {
    {"heard", "heard by the radio"},
    {"signal", "signal strength (dBm)"},
    {"entry", "sub-region entered"},
    {"exit", "sub-region left"},
    {"entry-content", "entry content handed over"},
    {"exit-content", "exit content handed over"},
    {"held-back", "held back while cooling down"},
};

const char* markName(BeaconMark::Kind kind) {
    return kMarks[2 + static_cast<int>(kind)].name;
}

// One mark's shape, centred at (x, y).
std::string markShape(const std::string& mark, double x, double y) {
    const std::string at = "class='mark-" + mark + "' ";
    if (mark == "heard")
        return "<rect " + at + "x='" + num(x - 8) + "' y='" + num(y - 3) + "' width='16' height='6'/>";
    if (mark == "signal")
        return "<path " + at + "d='M" + num(x - 8) + " " + num(y + 3) + " l5 -6 l5 4 l6 -5'/>";
    if (mark == "entry") return "<path " + at + "d='M" + num(x) + " " + num(y - 5) + " l5 9 l-10 0 z'/>";
    if (mark == "exit") return "<path " + at + "d='M" + num(x) + " " + num(y + 5) + " l5 -9 l-10 0 z'/>";
    if (mark == "entry-content") return "<circle " + at + "cx='" + num(x) + "' cy='" + num(y) + "' r='5'/>";
    if (mark == "exit-content")
        return "<path " + at + "d='M" + num(x) + " " + num(y - 6) + " l6 6 l-6 6 l-6 -6 z'/>";
    return "<g " + at + "><circle cx='" + num(x) + "' cy='" + num(y) + "' r='5'/><path d='M" + num(x - 3.5) +
           " " + num(y + 3.5) + " l7 -7'/></g>";
}

// A number counted up to kMostCounted things: "10000 or more" once it got there.
std::string counted(std::size_t number, std::size_t countedPart) {
    return std::to_string(number) + (countedPart >= kMostCounted ? " or more" : "");
}
std::string counted(std::size_t number) {
    return counted(number, number);
}

// Ticks on the time axis: the first step that needs at most a dozen.
double tickStep(double seconds) {
    for (const double step : {5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 900.0, 1800.0, 3600.0}) {
        if (seconds / step <= 12) return step;
    }
    return 7200;
}

class TimelineDrawing {
  public:
    static constexpr double kLeft = 200, kPlot = 860, kRow = 78;

    explicit TimelineDrawing(const VisitPicture& picture) : picture_(picture) { signalRange(); }

    std::string svg();
    /// The marks drawn, for the legend.
    const std::set<std::string>& marks() const { return marks_; }

  private:
    double x(double at) const { return kLeft + at / picture_.seconds * kPlot; }
    double y(double rssi, double top) const {
        return top + 22 + (strongest_ - rssi) / (strongest_ - weakest_) * 48;
    }
    void signalRange();
    void row(const BeaconRow& row, double top);
    void label(const BeaconRow& row, double top);
    void marksOf(const BeaconRow& row, double top);
    void axis(double bottom);

    const VisitPicture& picture_;
    std::ostringstream out_;
    std::set<std::string> marks_;
    double weakest_ = -100, strongest_ = -40;
};

void TimelineDrawing::signalRange() {
    double weakest = 0, strongest = -200;
    for (const auto& row : picture_.beacons) {
        for (const auto& line : row.signal) {
            for (const auto& point : line) {
                weakest = std::min(weakest, point.rssi);
                strongest = std::max(strongest, point.rssi);
            }
        }
    }
    if (strongest < weakest) return;
    weakest_ = std::floor(weakest / 10) * 10;
    strongest_ = std::max(std::ceil(strongest / 10) * 10, weakest_ + 20);
}

std::string TimelineDrawing::svg() {
    const double height = static_cast<double>(picture_.beacons.size()) * kRow + 60;
    out_ << "<svg class='timeline' xmlns='http://www.w3.org/2000/svg' viewBox='0 0 "
         << num(kLeft + kPlot + 30) << " " << num(height) << "' data-left='" << kLeft << "' data-plot='"
         << kPlot << "' data-seconds='" << num(picture_.seconds) << "'>";
    if (picture_.visitStart) {
        const double end = picture_.visitEnd.value_or(picture_.seconds);
        out_ << "<rect class='visit' x='" << num(x(*picture_.visitStart)) << "' y='0' width='"
             << num(x(end) - x(*picture_.visitStart)) << "' height='" << num(height - 60) << "'/>";
    }
    for (std::size_t i = 0; i < picture_.beacons.size(); ++i)
        row(picture_.beacons[i], static_cast<double>(i) * kRow);
    axis(height - 60);
    out_ << "<line class='cursor' y1='0' y2='" << num(height - 60)
         << "'/><text class='cursor-time' y='12'></text></svg>";
    return out_.str();
}

void TimelineDrawing::row(const BeaconRow& row, double top) {
    out_ << "<g class='beacon-row' data-beacon='" << escape(row.key.label()) << "'>";
    out_ << "<line class='row-rule' x1='0' x2='" << num(kLeft + kPlot) << "' y1='" << num(top + kRow)
         << "' y2='" << num(top + kRow) << "'/>";
    label(row, top);
    for (const auto& [from, to] : row.heard) {
        marks_.insert("heard");
        out_ << "<rect class='mark-heard' x='" << num(x(from)) << "' y='" << num(top + 8) << "' width='"
             << num(std::max(1.0, x(to) - x(from))) << "' height='6'/>";
    }
    for (const auto& line : row.signal) {
        marks_.insert("signal");
        out_ << "<path class='mark-signal' d='";
        char command = 'M';
        for (const auto& point : line) {
            out_ << command << num(x(point.at)) << ' ' << num(y(point.rssi, top)) << ' ';
            command = 'L';
        }
        // A lone point still shows, as a dot.
        if (line.size() == 1) out_ << "h1";
        out_ << "'/>";
    }
    marksOf(row, top);
    out_ << "</g>";
}

void TimelineDrawing::label(const BeaconRow& row, double top) {
    out_ << "<text class='beacon-name' x='6' y='" << num(top + 24) << "'>" << escape(row.key.label())
         << "</text>";
    std::string devices;
    bool lowBattery = false;
    for (const auto& id : row.devices) {
        devices += (devices.empty() ? "" : ", ") + id;
        if (const auto* device = picture_.device(id); device && device->lowBattery()) lowBattery = true;
    }
    // The label column holds about thirty characters; several senders of one identity are counted instead.
    if (row.moreDevices) {
        devices = "more than " + std::to_string(row.devices.size()) + " devices";
    } else if (devices.size() > 30) {
        devices = std::to_string(row.devices.size()) + " devices";
    }
    out_ << "<text class='device' x='6' y='" << num(top + 40) << "'>" << escape(devices) << "</text>";
    if (lowBattery)
        out_ << "<text class='low-battery' x='6' y='" << num(top + 56) << "'>⚠ battery low</text>";
    // The signal's scale, in dBm.
    for (const double rssi : {strongest_, weakest_}) {
        out_ << "<text class='dbm' x='" << num(kLeft - 4) << "' y='" << num(y(rssi, top) + 4) << "'>"
             << static_cast<int>(rssi) << " dBm</text>";
    }
}

void TimelineDrawing::marksOf(const BeaconRow& row, double top) {
    // Content names are written beside their marks, each on the first line where it overlaps no other.
    std::vector<double> lineEnds;
    for (const auto& mark : row.marks) {
        const std::string name = markName(mark.kind);
        marks_.insert(name);
        const bool content =
            mark.kind == BeaconMark::Kind::EntryContent || mark.kind == BeaconMark::Kind::ExitContent;
        const double markY = content                                   ? top + 30
                             : mark.kind == BeaconMark::Kind::HeldBack ? top + 22
                                                                       : top + 11;
        out_ << markShape(name, x(mark.at), markY);
        if (!content && mark.kind != BeaconMark::Kind::HeldBack) continue;
        // A name that would run off the right edge is written to the left of its mark.
        const double width = 6.2 * static_cast<double>(mark.text.size());
        const bool leftward = x(mark.at) + 8 + width > kLeft + kPlot + 20;
        const double textX = leftward ? x(mark.at) - 8 : x(mark.at) + 8;
        const double from = leftward ? textX - width : x(mark.at) - 6;
        std::size_t line = 0;
        while (line < lineEnds.size() && lineEnds[line] > from) ++line;
        if (line == lineEnds.size()) lineEnds.push_back(0);
        lineEnds[line] = leftward ? x(mark.at) + 6 : textX + width;
        out_ << "<text class='mark-name" << (leftward ? " leftward" : "") << "' x='" << num(textX) << "' y='"
             << num(markY + 4 + 13.0 * static_cast<double>(line)) << "'>" << escape(mark.text) << "</text>";
    }
}

void TimelineDrawing::axis(double bottom) {
    const double step = tickStep(picture_.seconds);
    out_ << "<g class='axis'><line x1='" << num(kLeft) << "' x2='" << num(kLeft + kPlot) << "' y1='"
         << num(bottom) << "' y2='" << num(bottom) << "'/>";
    for (double at = 0; at <= picture_.seconds + 1e-9; at += step) {
        out_ << "<line class='tick' x1='" << num(x(at)) << "' x2='" << num(x(at)) << "' y1='0' y2='"
             << num(bottom + 4) << "'/><text x='" << num(x(at)) << "' y='" << num(bottom + 18) << "'>"
             << clock(at) << "</text>";
    }
    out_ << "<text class='axis-title' x='" << num(kLeft + kPlot / 2) << "' y='" << num(bottom + 40)
         << "'>time since the start (minutes:seconds)</text></g>";
}

std::string legend(const std::set<std::string>& drawn) {
    std::ostringstream out;
    out << "<div class='legend'>";
    for (const auto& mark : kMarks) {
        if (!drawn.count(mark.name)) continue;
        out << "<span class='legend-item' data-mark='" << mark.name
            << "'><svg viewBox='0 0 24 16' width='24' height='16'>" << markShape(mark.name, 12, 8) << "</svg>"
            << mark.legend << "</span>";
    }
    out << "</div>";
    return out.str();
}

std::string uploadText(const VisitPicture& picture, const JSON& storedVisits) {
    switch (picture.upload) {
        case VisitPicture::Upload::Succeeded: {
            const auto stored = storedVisits.is_array() ? storedVisits.size() : 0;
            return stored ? "uploaded; the server stored " + std::to_string(stored) + " visit" +
                                (stored == 1 ? "" : "s")
                          : "uploaded";
        }
        case VisitPicture::Upload::Failed:
            return "failed";
        case VisitPicture::Upload::None:
            break;
    }
    return "not uploaded";
}

std::string summary(const ReportHeader& header, const VisitPicture& picture, const JSON& storedVisits) {
    std::ostringstream out;
    out << "<section class='summary'><dl>";
    out << "<dt>Store</dt><dd>" << escape(header.store) << "</dd>";
    out << "<dt>Visit</dt><dd>";
    if (picture.visitStart) {
        const double end = picture.visitEnd.value_or(picture.seconds);
        const auto startedAt =
            header.start + std::chrono::milliseconds(std::llround(*picture.visitStart * 1000));
        out << clock(end - *picture.visitStart) << " (from " << escape(dateDescription(startedAt))
            << (picture.visitEnd ? "" : ", not left by the end") << ")";
    } else {
        out << "the store's region was never entered";
    }
    out << "</dd><dt>Beacons met</dt><dd>" << picture.beaconsMet() << " of "
        << counted(picture.beacons.size() + picture.beaconsNotDrawn, picture.beaconsNotDrawn) << " heard";
    if (picture.beaconsNotDrawn) out << "; the first " << picture.beacons.size() << " are drawn";
    if (picture.otherBeacons) out << " (and " << counted(picture.otherBeacons) << " of other apps)";
    out << "</dd><dt>Contents handed over</dt><dd>";
    if (picture.contents.empty()) out << "none";
    for (std::size_t i = 0; i < picture.contents.size(); ++i) {
        const auto& handed = picture.contents[i];
        out << (i ? ", " : "") << "<span class='content'>" << escape(handed.name) << "</span>";
        if (!handed.displayType.empty() || handed.beacon) {
            out << " (" << escape(handed.displayType)
                << (handed.beacon ? (handed.displayType.empty() ? "" : ", ") + handed.beacon->label() : "")
                << ")";
        }
    }
    out << "</dd><dt>Held back</dt><dd>" << picture.heldBack << "</dd>";
    out << "<dt>Upload</dt><dd class='upload'>" << escape(uploadText(picture, storedVisits))
        << "</dd></dl></section>";
    return out.str();
}

std::string devicesTable(const VisitPicture& picture) {
    std::ostringstream out;
    out << "<h2>Devices discovered</h2>";
    if (picture.devices.empty()) return out.str() + "<p>Discovery reported none.</p>";
    out << "<table class='devices'><tr><th>device</th><th>battery</th><th>firmware</th><th>tx power</th>"
           "<th>signal</th><th>seen</th></tr>";
    for (const auto& device : picture.devices) {
        out << "<tr" << (device.lowBattery() ? " class='low-battery'" : "") << "><td>" << escape(device.id)
            << "</td><td>" << (device.lowBattery() ? "⚠ " : "")
            << (device.battery ? std::to_string(*device.battery) + " %" : "?") << "</td><td>"
            << escape(device.firmware && !device.firmware->empty() ? *device.firmware : "-") << "</td><td>"
            << (device.transmissionPower ? std::to_string(*device.transmissionPower) : "?") << "</td><td>"
            << device.weakest << " to " << device.strongest << " dBm</td><td>" << clock(device.firstSeen)
            << " to " << clock(device.lastSeen) << "</td></tr>";
    }
    if (picture.devicesNotShown)
        out << "<tr><td colspan='6'>and " << counted(picture.devicesNotShown) << " more</td></tr>";
    return out.str() + "</table>";
}

constexpr const char* kStyle = R"(
body{font-family:system-ui,sans-serif;margin:2em;color:#222;max-width:1200px}
h1{margin-bottom:0}.source{color:#666;margin-top:.2em}
section.summary dl{display:grid;grid-template-columns:max-content 1fr;gap:.3em 1.2em}
section.summary dt{font-weight:bold}.content{font-weight:bold;color:#b35900}
.legend{margin:1em 0;display:flex;flex-wrap:wrap;gap:.4em 1.4em}.legend-item svg{vertical-align:middle;margin-right:.3em}
svg text{font-size:11px}.beacon-name{font-size:14px;font-weight:bold}.device{fill:#555}
.low-battery,.low-battery td{fill:#c0392b;color:#c0392b;font-weight:bold}
.dbm{fill:#888;text-anchor:end}.axis text{text-anchor:middle;fill:#555}.axis .axis-title{font-size:12px;fill:#222}
.axis line{stroke:#999}.axis .tick{stroke:#eee}.row-rule{stroke:#ddd}.visit{fill:#f4f8fc}
.mark-heard{fill:#9cc3e6}.mark-signal{fill:none;stroke:#1f5f99;stroke-width:1.5}
.mark-entry{fill:#2a9d3f}.mark-exit{fill:#c0392b}.mark-entry-content{fill:#e67e22}.mark-exit-content{fill:#8e44ad}
.mark-held-back circle{fill:#fff;stroke:#7f8c8d;stroke-width:1.5}.mark-held-back path{stroke:#7f8c8d;stroke-width:1.5}
.mark-name{fill:#333}.leftward{text-anchor:end}.cursor{stroke:#333;stroke-dasharray:3 3;display:none}.cursor-time{display:none}
table{border-collapse:collapse}td,th{padding:2px 10px;text-align:left}tr.content{color:#b35900;font-weight:bold}
tr.critical{color:#c0392b}
)";

// A cursor that follows the pointer over the timeline and tells the time under it.
constexpr const char* kScript = R"(
(function () {
  document.querySelectorAll('svg.timeline').forEach(svg => {
    const cursor = svg.querySelector('.cursor'), label = svg.querySelector('.cursor-time');
    const left = Number(svg.dataset.left), plot = Number(svg.dataset.plot), seconds = Number(svg.dataset.seconds);
    const clock = s => { s = Math.round(s); const m = Math.floor(s / 60), r = s % 60;
      return (m >= 60 ? Math.floor(m / 60) + ':' + String(m % 60).padStart(2, '0') : m) + ':' + String(r).padStart(2, '0'); };
    const hide = () => { cursor.style.display = 'none'; label.style.display = 'none'; };
    svg.addEventListener('mousemove', event => {
      const box = svg.getBoundingClientRect();
      const x = (event.clientX - box.left) * svg.viewBox.baseVal.width / box.width;
      if (x < left || x > left + plot) return hide();
      cursor.setAttribute('x1', x); cursor.setAttribute('x2', x);
      label.setAttribute('x', x + 4); label.textContent = clock((x - left) / plot * seconds);
      cursor.style.display = 'inline'; label.style.display = 'inline';
    });
    svg.addEventListener('mouseleave', hide);
  });
})();
)";

}  // namespace

namespace {

// One run: its summary, the beacons' rows, the devices, the events and what the server stored.
std::string runBody(const ReportHeader& header, const RunReport& run, std::chrono::milliseconds length,
                    const JSON& storedVisits, const char* heading) {
    const auto picture = run.picture(length);
    TimelineDrawing drawing(picture);
    const auto timeline = drawing.svg();
    std::ostringstream body;
    body << summary(header, picture, storedVisits) << "<" << heading << ">Beacons</" << heading << ">"
         << legend(drawing.marks()) << timeline << devicesTable(picture) << run.table();
    if (storedVisits.is_array() && !storedVisits.empty()) {
        body << "<details><summary>The visit as the server stored it</summary><pre>"
             << escape(jsonText(storedVisits, 2)) << "</pre></details>";
    }
    return body.str();
}

std::string page(const std::string& title, const std::string& source, const std::string& body) {
    return "<!DOCTYPE html><html lang='en'><head><meta charset='utf-8'><title>" + escape(title) +
           ": visit report</title><style>" + kStyle + "</style></head><body><h1>" + escape(title) +
           "</h1><p class='source'>" + escape(source) + "</p>" + body + "<script>" + kScript +
           "</script></body></html>\n";
}

// "09:03:50"
std::string timeOfDay(Date at) {
    const auto description = dateDescription(at);  // "2016-07-16 17:20:30 +0000"
    return description.size() >= 19 ? description.substr(11, 8) : description;
}

}  // namespace

void RunReport::add(const TimelineEvent& event) {
    picture_.add(event);
    if (const auto* upload = event.as<events::VisitUploaded>();
        upload && upload->session.startTime && upload->session.endTime) {
        visits_.push_back(timeOfDay(*upload->session.startTime) + "\u2013" +
                          timeOfDay(*upload->session.endTime) + (upload->stored ? "" : " (not stored)"));
    }
    // The status lines tell of regions and uploads; of the library's events, content and hold-backs add
    // which beacon they concern.
    const bool content = event.as<events::ContentHandedOn>() != nullptr;
    const bool heldBack = event.as<events::ContentHeldBack>() != nullptr;
    if (event.kind == TimelineEvent::Kind::Heard) return;
    if (event.kind == TimelineEvent::Kind::Visit && !content && !heldBack) return;
    Row row{event.at, event.text,
            content          ? "content"
            : heldBack       ? "held-back"
            : event.critical ? "critical"
                             : ""};
    if (first_.size() < kTableRows) {
        first_.push_back(std::move(row));
        return;
    }
    last_.push_back(std::move(row));
    if (last_.size() > kTableRows) {
        last_.pop_front();
        ++leftOut_;
    }
}

std::string RunReport::table() const {
    std::ostringstream out;
    out << "<details><summary>What the host app was told</summary><table class='events'>";
    const auto write = [&](const Row& row) {
        out << "<tr class='" << row.kind << "'><td>" << clockText(row.at) << "</td><td>" << escape(row.text)
            << "</td></tr>";
    };
    for (const auto& row : first_) write(row);
    if (leftOut_ > 0)
        out << "<tr class='left-out'><td></td><td>\u2026 " << leftOut_ << " more lines \u2026</td></tr>";
    for (const auto& row : last_) write(row);
    return out.str() + "</table></details>";
}

std::string RunReport::visitTimes() const {
    std::string text;
    for (const auto& visit : visits_) text += (text.empty() ? "" : ", ") + visit;
    return text.empty() ? "none" : text + " UTC";
}

std::string htmlReport(const ReportHeader& header, const RunReport& run, std::chrono::milliseconds length,
                       const JSON& storedVisits) {
    return page(header.store, header.source, runBody(header, run, length, storedVisits, "h2"));
}

std::string htmlReport(const ReportHeader& header, const std::vector<TimelineEvent>& events,
                       std::chrono::milliseconds length, const JSON& storedVisits) {
    RunReport run;
    for (const auto& event : events) run.add(event);
    return htmlReport(header, run, length, storedVisits);
}

std::string htmlRoomsReport(const std::string& recording, const std::string& source,
                            const std::vector<RoomRun>& rooms) {
    std::ostringstream body;
    body << "<section class='rooms'><h2>Rooms</h2><table class='rooms'><tr><th>room</th><th>heard</th>"
            "<th>visits</th></tr>";
    for (std::size_t i = 0; i < rooms.size(); ++i) {
        body << "<tr><td><a href='#room-" << i + 1 << "'>" << escape(rooms[i].name) << "</a></td><td>"
             << escape(rooms[i].heard) << "</td><td class='visits'>" << escape(rooms[i].run.visitTimes())
             << "</td></tr>";
    }
    body << "</table></section>";
    for (std::size_t i = 0; i < rooms.size(); ++i) {
        const auto& room = rooms[i];
        const ReportHeader header{room.name + " \u2014 " + recording, room.heard, room.start};
        body << "<section class='room' id='room-" << i + 1 << "' data-room='" << escape(room.name) << "'><h2>"
             << escape(header.store) << "</h2><p class='visits'>Visits: " << escape(room.run.visitTimes())
             << "</p>" << runBody(header, room.run, room.length, room.storedVisits, "h3") << "</section>";
    }
    return page(recording, source, body.str());
}

namespace {

// Whether the file beside `file` that the page is first written to can be made there: permissions alone do
// not say (a root user, a read-only or virtual file system).
bool canCreateIn(const std::filesystem::path& file) {
    const auto trial = file.string() + ".partial";
    const int fd = ::open(trial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return errno == EEXIST;
    ::close(fd);
    ::unlink(trial.c_str());
    return true;
}

}  // namespace

bool ReportFile::open(const std::optional<std::string>& path, std::string& error) {
    path_ = path;
    if (!path) return true;
    // Nothing is made or changed yet: an earlier report stays whole, and no empty one is left, should the run
    // be interrupted. An existing file is opened to append; for a new one, its folder must take it.
    if (isStreamOutput(*path)) return true;  // written into at the end, never replaced
    std::error_code ignored;
    const std::filesystem::path file(*path);
    const auto folder = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
    const bool writable = std::filesystem::exists(file, ignored)
                              ? static_cast<bool>(std::ofstream(file, std::ios::app))
                              : std::filesystem::is_directory(folder, ignored) && canCreateIn(file);
    if (!writable) error = "cannot write " + *path;
    return writable;
}

bool ReportFile::write(const std::string& html, std::string& error) {
    if (!path_) return true;
    OutputFile out;
    if (!out.open(*path_, error)) return false;
    out.stream() << html;
    return out.commit(error);
}

}  // namespace pelm::lab
