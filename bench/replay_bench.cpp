// Replay at the speed of the disk: a synthetic recording of a store with four receivers, written once as a
// JSON trace and once as a btsnoop log (BlueZ monitor, one controller a room), replayed end to end through
// the region engine, the whole library and the embedded server. Each case reports advertisements per second
// end to end and, measured in the same run, the share of it the reader alone takes; the JSON case also
// times simdjson reading the same lines into the same fields, the baseline for the reader's own parser.
//   PELM_BENCH_ADS=N       advertisements in the recording (default 10,000,000)
//   PELM_BENCH_KEEP=DIR    writes the two recordings into DIR and leaves them there, to replay with `pelm`
//   PELM_BENCH_REUSE=1     with PELM_BENCH_KEEP: reads the recordings already in DIR instead of writing them
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <pelm/platform/ble/recording_reader.hpp>

#include "pelm_lab/replay.hpp"

#if __has_include(<simdjson.h>)
#include <simdjson.h>
#define PELM_BENCH_SIMDJSON 1
#endif

namespace pelm {
namespace {

using Clock = std::chrono::steady_clock;

std::uint64_t advertisementCount() {
    const char* text = std::getenv("PELM_BENCH_ADS");
    return text ? std::strtoull(text, nullptr, 10) : 10'000'000;
}

// A store over hours: four rooms, each with five beacons under one UUID heard a third of the time, and the
// phones of passers-by (50,000 addresses) the rest. Every ten minutes the beacons fall silent for two, so
// the phone leaves the store and each visit is uploaded.
struct Advertisement {
    std::int64_t millis;
    int room;
    std::array<std::uint8_t, 6> address;
    int rssi;
    bool beacon;
    std::uint16_t minor;
};

Advertisement advertisementNumber(std::uint64_t i) {
    Advertisement ad{};
    ad.millis = 1'680'000'000'000 + static_cast<std::int64_t>(i);
    ad.room = static_cast<int>(i % 4);
    const bool present = (ad.millis / 1000) % 600 < 480;
    ad.beacon = i % 3 == 0 && present;
    if (ad.beacon) {
        ad.minor = static_cast<std::uint16_t>(ad.room * 5 + (i / 12) % 5);
        ad.address = {static_cast<std::uint8_t>(ad.minor), static_cast<std::uint8_t>(ad.room), 0, 0, 0, 0xC0};
        ad.rssi = -60 - static_cast<int>(i % 20);
    } else {
        const auto phone = i % 50'000;
        ad.address = {static_cast<std::uint8_t>(phone),
                      static_cast<std::uint8_t>(phone >> 8),
                      static_cast<std::uint8_t>(phone >> 16),
                      0,
                      0x11,
                      0x7A};
        ad.rssi = -85;
    }
    return ad;
}

std::vector<std::uint8_t> dataOf(const Advertisement& ad) {
    if (!ad.beacon) return {0x02, 0x01, 0x1A, 0x0A, 0xFF, 0x4C, 0x00, 0x10, 0x05, 0x03, 0x18};
    std::vector<std::uint8_t> data{0x02, 0x01, 0x06, 0x1A, 0xFF, 0x4C, 0x00, 0x02, 0x15,
                                   0xF7, 0x82, 0x6D, 0xA6, 0x4F, 0xA2, 0x4E, 0x98, 0x80,
                                   0x24, 0xBC, 0x5B, 0x71, 0xE0, 0x89, 0x3E};
    for (const auto number : {std::uint16_t{1}, ad.minor}) {
        data.push_back(static_cast<std::uint8_t>(number >> 8));
        data.push_back(static_cast<std::uint8_t>(number));
    }
    data.push_back(0xC5);
    return data;
}

void putBigEndian(std::ofstream& out, std::uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out.put(static_cast<char>(value >> (8 * i)));
}

struct Recordings {
    std::filesystem::path folder, trace, snoop;
    std::uint64_t advertisements = 0;
    bool keep = false;
    ~Recordings() {
        std::error_code ignored;
        if (!keep) std::filesystem::remove_all(folder, ignored);
    }
};

const Recordings& recordings() {
    static const Recordings made = [] {
        Recordings r;
        r.advertisements = advertisementCount();
        const char* keep = std::getenv("PELM_BENCH_KEEP");
        r.keep = keep != nullptr;
        r.folder = keep ? std::filesystem::path(keep)
                        : std::filesystem::temp_directory_path() /
                              ("pelm-replay-bench-" + std::to_string(::getpid()));
        std::filesystem::create_directories(r.folder);
        r.trace = r.folder / "store.jsonl";
        r.snoop = r.folder / "store.btsnoop";
        // Recordings written by an earlier run with PELM_BENCH_KEEP are read again as they are (the count
        // must be the same), so that several runs can take turns with another program on the same files.
        if (keep && std::getenv("PELM_BENCH_REUSE") && std::filesystem::exists(r.trace) &&
            std::filesystem::exists(r.snoop))
            return r;
        std::ofstream trace(r.trace, std::ios::binary), snoop(r.snoop, std::ios::binary);
        snoop.write("btsnoop\0", 8);
        putBigEndian(snoop, 1, 4);
        putBigEndian(snoop, 2001, 4);
        for (std::uint64_t i = 0; i < r.advertisements; ++i) {
            const auto ad = advertisementNumber(i);
            platform::HeardAdvertisement heard;
            heard.at = Date{std::chrono::milliseconds(ad.millis)};
            heard.rssi = ad.rssi;
            heard.data = dataOf(ad);
            heard.receiver = "Room" + std::to_string(201 + ad.room);
            char address[18];
            std::snprintf(address, sizeof address, "%02X:%02X:%02X:%02X:%02X:%02X", ad.address[5],
                          ad.address[4], ad.address[3], ad.address[2], ad.address[1], ad.address[0]);
            heard.address = address;
            trace << platform::traceLine(heard) << '\n';
            // An LE advertising report as controller `room` hands it to the host.
            std::string event{'\x3E', static_cast<char>(12 + heard.data.size()), '\x02', '\x01', '\x03',
                              '\x01'};
            event.append(ad.address.begin(), ad.address.end());
            event += static_cast<char>(heard.data.size());
            event.append(heard.data.begin(), heard.data.end());
            event += static_cast<char>(ad.rssi);
            putBigEndian(snoop, event.size(), 4);
            putBigEndian(snoop, event.size(), 4);
            putBigEndian(snoop, static_cast<std::uint64_t>(ad.room) << 16 | 3, 4);  // event packet
            putBigEndian(snoop, 0, 4);
            putBigEndian(snoop, 0x00DCDDB30F2F8000ULL + static_cast<std::uint64_t>(ad.millis) * 1000, 8);
            snoop << event;
        }
        return r;
    }();
    return made;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The reader alone: every advertisement into one reused record, nothing done with it.
double readerSeconds(const std::filesystem::path& file) {
    const auto start = Clock::now();
    auto reader = platform::RecordingReader::open(file);
    platform::HeardAdvertisement heard;
    std::uint64_t count = 0;
    while (reader->next(heard)) ++count;
    benchmark::DoNotOptimize(count);
    return secondsSince(start);
}

#ifdef PELM_BENCH_SIMDJSON
// simdjson on the same lines, into the same fields, the data decoded from hexadecimal as the reader does.
// The file is loaded whole first, and only the parse is timed: the stricter baseline, since the reader's
// time includes reading the file.
double simdjsonSeconds(const std::filesystem::path& file) {
    auto loaded = simdjson::padded_string::load(file.string());
    simdjson::padded_string& text = loaded.value();
    const auto start = Clock::now();
    simdjson::ondemand::parser parser;
    simdjson::ondemand::document_stream stream;
    if (parser.iterate_many(text).get(stream) != simdjson::SUCCESS) return 0;
    platform::HeardAdvertisement heard;
    for (auto document : stream) {
        simdjson::ondemand::object line = document.get_object().value();
        heard.at = Date{std::chrono::milliseconds(line["t"].get_int64().value())};
        heard.address = std::string_view(line["address"].get_string().value());
        heard.rssi = static_cast<int>(line["rssi"].get_int64().value());
        const std::string_view hex = line["data"].get_string().value();
        heard.data.resize(hex.size() / 2);
        for (std::size_t i = 0; i < heard.data.size(); ++i) {
            const auto digit = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
            heard.data[i] = static_cast<std::uint8_t>(digit(hex[2 * i]) << 4 | digit(hex[2 * i + 1]));
        }
        heard.receiver = std::string_view(line["scanner"].get_string().value());
        benchmark::DoNotOptimize(heard);
    }
    return secondsSince(start);
}
#endif

void Replay(benchmark::State& state, bool snoop) {
    const auto& made = recordings();
    const auto file = snoop ? made.snoop : made.trace;
    double endToEnd = 0, reader = 0;
    std::uint64_t visits = 0;
    for (auto _ : state) {
        lab::ReplayOptions options;
        options.recording = file;
        const auto start = Clock::now();
        const auto result = lab::runReplay(options);
        const auto seconds = secondsSince(start);
        state.SetIterationTime(seconds);
        if (!result.failure.empty() || result.summary.advertisements != made.advertisements)
            state.SkipWithError("the replay did not play every advertisement");
        visits = result.storedVisits.size();
        endToEnd += seconds;
        reader += readerSeconds(file);
    }
    const auto played = static_cast<double>(made.advertisements) * static_cast<double>(state.iterations());
    state.counters["ads/s"] = benchmark::Counter(played / endToEnd);
    state.counters["reader share"] = benchmark::Counter(reader / endToEnd);
    state.counters["visits"] = benchmark::Counter(static_cast<double>(visits));
#ifdef PELM_BENCH_SIMDJSON
    if (!snoop) {
        double baseline = 0;
        for (std::int64_t i = 0; i < state.iterations(); ++i) baseline += simdjsonSeconds(file);
        state.counters["reader/simdjson"] = benchmark::Counter(reader / baseline);
    }
#endif
}
// The reader alone over the whole recording, nothing done with what it reads: the baseline that
// bench/python_vs_cpp.sh sets `pelm.read(path).to_numpy()` against.
void ReaderAlone(benchmark::State& state, bool snoop) {
    const auto& made = recordings();
    for (auto _ : state) state.SetIterationTime(readerSeconds(snoop ? made.snoop : made.trace));
    state.counters["ads"] = benchmark::Counter(static_cast<double>(made.advertisements));
}
BENCHMARK_CAPTURE(ReaderAlone, json_trace, false)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ReaderAlone, btsnoop, true)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

BENCHMARK_CAPTURE(Replay, json_trace, false)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Replay, btsnoop, true)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace pelm
