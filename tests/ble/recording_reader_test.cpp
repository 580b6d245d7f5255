// The recording readers on real recordings made by other people, and on captures built here byte by byte
// for what those do not hold: other link types, both byte orders, broken and cut-short files.
#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/ble/recording_reader.hpp>

#include <gmock/gmock.h>

#include <map>
#include <set>
#include <sstream>

namespace pelm::platform {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Bytes = std::vector<std::uint8_t>;

const std::string kRecordings = std::string(PELM_TEST_DATA) + "/recordings/";

std::vector<HeardAdvertisement> readAll(RecordingReader& reader) {
    std::vector<HeardAdvertisement> all;
    while (auto heard = reader.next()) all.push_back(std::move(*heard));
    return all;
}

std::unique_ptr<RecordingReader> fromBytes(const Bytes& bytes) {
    return RecordingReader::open(
        std::make_unique<std::istringstream>(std::string(bytes.begin(), bytes.end())), "capture");
}

// An iBeacon advertisement's data (Flags, then the manufacturer structure) for minor `minor`.
Bytes beaconData(std::uint8_t minor) {
    Bytes data{0x02, 0x01, 0x06, 0x1A, 0xFF, 0x4C, 0x00, 0x02, 0x15};
    for (int i = 0; i < 16; ++i) data.push_back(static_cast<std::uint8_t>(0xA0 + i));
    data.insert(data.end(), {0, 1, 0, minor, 0xC5});
    return data;
}

// HCI LE Meta event (no H4 type byte) with one legacy report per minor, from address ..:0N.
Bytes legacyReportEvent(const std::vector<std::uint8_t>& minors, std::int8_t rssi) {
    Bytes parameters{0x02, static_cast<std::uint8_t>(minors.size())};
    for (const auto minor : minors) {
        const auto data = beaconData(minor);
        parameters.insert(parameters.end(), {0x03, 0x00, minor, 0x02, 0x03, 0x04, 0x05, 0x06});
        parameters.push_back(static_cast<std::uint8_t>(data.size()));
        parameters.insert(parameters.end(), data.begin(), data.end());
        parameters.push_back(static_cast<std::uint8_t>(rssi));
    }
    Bytes event{0x3E, static_cast<std::uint8_t>(parameters.size())};
    event.insert(event.end(), parameters.begin(), parameters.end());
    return event;
}

void put32(Bytes& out, std::uint32_t value, bool bigEndian) {
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<std::uint8_t>(value >> (bigEndian ? 24 - 8 * i : 8 * i)));
}
void put16(Bytes& out, std::uint16_t value, bool bigEndian) {
    out.push_back(static_cast<std::uint8_t>(bigEndian ? value >> 8 : value));
    out.push_back(static_cast<std::uint8_t>(bigEndian ? value : value >> 8));
}

TEST(RecordingReader, AndroidSnoopLogHoldsElevenIBeaconReportsFromFourDevicesAndNoCommand) {
    auto reader = RecordingReader::open(kRecordings + "android-hci.btsnoop");
    EXPECT_EQ(reader->format(), "btsnoop (H4)");
    const auto all = readAll(*reader);
    std::set<std::string> beaconDevices, devices;
    std::size_t beacons = 0;
    for (const auto& heard : all) {
        devices.insert(heard.address);
        if (!parseIBeacon(heard.data)) continue;
        ++beacons;
        beaconDevices.insert(heard.address);
        EXPECT_EQ(heard.address.substr(0, 9), "A4:C1:38:");
        EXPECT_EQ(parseIBeacon(heard.data)->proximityUUID.uuidString(),
                  "494E5445-4C4C-495F-524F-434B535F4857");
    }
    EXPECT_EQ(all.size(), 412u);
    EXPECT_EQ(devices.size(), 36u);
    EXPECT_EQ(beacons, 11u);  // the vendor command carrying 4C 00 02 15 is not among them
    EXPECT_EQ(beaconDevices.size(), 4u);
    EXPECT_FALSE(reader->warning());
    EXPECT_LT(all.front().at, all.back().at);
}

TEST(RecordingReader, TracesGiveEverySightingWithItsTimeAndScanner) {
    auto mall = RecordingReader::open(kRecordings + "mall-walk.jsonl");
    const auto walk = readAll(*mall);
    std::set<std::string> devices;
    for (const auto& heard : walk) devices.insert(heard.address);
    EXPECT_EQ(walk.size(), 1321u);
    EXPECT_EQ(devices.size(), 9u);
    EXPECT_EQ(walk.front().at, Date{std::chrono::milliseconds(1574571773157)});
    EXPECT_EQ(walk.front().rssi, -86);

    auto rooms = RecordingReader::open(kRecordings + "rooms-one-beacon.jsonl");
    std::map<std::string, int> perRoom;
    for (const auto& heard : readAll(*rooms)) ++perRoom[heard.receiver];
    EXPECT_EQ(perRoom, (std::map<std::string, int>{
                           {"Room201", 453}, {"Room202", 528}, {"Room203", 1005}, {"Room204", 264}}));
}

TEST(RecordingReader, TheWrittenTraceFormAndAnyOtherJsonSpellingReadTheSame) {
    HeardAdvertisement written;
    written.at = Date{std::chrono::milliseconds(1426289302732)};
    written.address = "beacon-0-5";
    written.rssi = -71;
    written.data = beaconData(5);
    written.receiver = "Room201";
    const auto line = traceLine(written);
    EXPECT_EQ(line.substr(0, 48), R"({"t":1426289302732,"address":"beacon-0-5","rssi")");
    const std::string spaced = R"({ "scanner" : "Room201", "data": ")" +
                               line.substr(line.find("\"data\":\"") + 8, 2 * written.data.size()) +
                               R"(", "rssi": -71, "address": "beacon-0-5", "t": 1426289302732 })";
    auto reader =
        RecordingReader::open(std::make_unique<std::istringstream>(line + "\n" + spaced + "\n"), "trace");
    const auto all = readAll(*reader);
    ASSERT_EQ(all.size(), 2u);
    for (const auto& heard : all) {
        EXPECT_EQ(heard.at, written.at);
        EXPECT_EQ(heard.address, written.address);
        EXPECT_EQ(heard.rssi, written.rssi);
        EXPECT_EQ(heard.data, written.data);
        EXPECT_EQ(heard.receiver, written.receiver);
    }
}

TEST(RecordingReader, PcapWithDirectionKeepsOnlyWhatTheControllerSent) {
    Bytes file;
    for (std::uint32_t word : {0xA1B2C3D4u, 0x00040002u, 0u, 0u, 65535u, 201u}) put32(file, word, false);
    const auto record = [&](std::uint32_t direction, std::uint8_t h4Type, const Bytes& packet,
                            std::uint32_t second) {
        Bytes body;
        put32(body, direction, true);
        body.push_back(h4Type);
        body.insert(body.end(), packet.begin(), packet.end());
        for (std::uint32_t word : {second, 250000u, static_cast<std::uint32_t>(body.size()),
                                   static_cast<std::uint32_t>(body.size())})
            put32(file, word, false);
        file.insert(file.end(), body.begin(), body.end());
    };
    Bytes command{0x57, 0xFD, 0x20};  // a vendor command that carries a frame
    const auto frame = beaconData(9);
    command.insert(command.end(), frame.begin(), frame.end());
    record(0, 0x01, command, 100);
    record(1, 0x04, legacyReportEvent({1, 2}, -60), 101);  // one event, two reports
    record(0, 0x04, legacyReportEvent({3}, -60), 102);     // an event the wrong way round
    auto reader = fromBytes(file);
    const auto all = readAll(*reader);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].address, "06:05:04:03:02:01");
    EXPECT_EQ(parseIBeacon(all[1].data)->minor, 2);
    EXPECT_EQ(all[1].rssi, -60);
    EXPECT_EQ(all[1].at, Date{std::chrono::milliseconds(101'250)});
}

// HCI LE Meta event with one extended advertising report per (minor, tx power), from address ..:0N: what a
// Bluetooth 5 controller sends when the host asked for extended scanning.
Bytes extendedReportEvent(const std::vector<std::pair<std::uint8_t, std::uint8_t>>& reports,
                          std::int8_t rssi) {
    Bytes parameters{0x0D, static_cast<std::uint8_t>(reports.size())};
    for (const auto& [minor, txPower] : reports) {
        const auto data = beaconData(minor);
        parameters.insert(parameters.end(), {0x13, 0x00, 0x00, minor, 0x02, 0x03, 0x04, 0x05, 0x06});
        parameters.insert(parameters.end(), {0x01, 0x00, 0xFF, txPower, static_cast<std::uint8_t>(rssi)});
        parameters.insert(parameters.end(), {0x00, 0x00, 0x00, 0, 0, 0, 0, 0, 0});
        parameters.push_back(static_cast<std::uint8_t>(data.size()));
        parameters.insert(parameters.end(), data.begin(), data.end());
    }
    Bytes event{0x3E, static_cast<std::uint8_t>(parameters.size())};
    event.insert(event.end(), parameters.begin(), parameters.end());
    return event;
}

// Newer phones and adapters scan with extended reports; their fields sit elsewhere than a legacy report's.
TEST(RecordingReader, ExtendedAdvertisingReportsGiveAddressSignalTxPowerAndData) {
    Bytes file;
    for (std::uint32_t word : {0xA1B2C3D4u, 0x00040002u, 0u, 0u, 65535u, 201u}) put32(file, word, false);
    Bytes body;
    put32(body, 1, true);
    body.push_back(0x04);
    const auto event = extendedReportEvent({{5, 0xF8}, {6, 0x7F}}, -71);
    body.insert(body.end(), event.begin(), event.end());
    for (std::uint32_t word :
         {100u, 0u, static_cast<std::uint32_t>(body.size()), static_cast<std::uint32_t>(body.size())})
        put32(file, word, false);
    file.insert(file.end(), body.begin(), body.end());
    auto reader = fromBytes(file);
    const auto all = readAll(*reader);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].address, "06:05:04:03:02:05");
    EXPECT_EQ(all[0].rssi, -71);
    EXPECT_EQ(all[0].transmissionPower, -8);
    EXPECT_EQ(parseIBeacon(all[0].data)->minor, 5);
    // 0x7F is the controller's "no tx power": unknown, not 127 dBm.
    EXPECT_EQ(all[1].transmissionPower, std::nullopt);
    EXPECT_EQ(parseIBeacon(all[1].data)->minor, 6);
}

TEST(RecordingReader, PcapngInEitherByteOrderWithSeveralInterfacesAndBothPacketBlocks) {
    for (const bool bigEndian : {false, true}) {
        Bytes file;
        const auto block = [&](std::uint32_t type, const Bytes& body) {
            const auto padded = (body.size() + 3) / 4 * 4;
            put32(file, type, bigEndian);
            put32(file, static_cast<std::uint32_t>(padded + 12), bigEndian);
            file.insert(file.end(), body.begin(), body.end());
            file.resize(file.size() + padded - body.size(), 0);
            put32(file, static_cast<std::uint32_t>(padded + 12), bigEndian);
        };
        Bytes section;
        put32(section, 0x1A2B3C4D, bigEndian);
        put16(section, 1, bigEndian);
        put16(section, 0, bigEndian);
        for (int i = 0; i < 8; ++i) section.push_back(0xFF);
        block(0x0A0D0D0A, section);
        // Interface 0: H4 with millisecond stamps, named; interface 1: link layer with a radio header.
        Bytes h4;
        put16(h4, 187, bigEndian);
        put16(h4, 0, bigEndian);
        put32(h4, 0, bigEndian);
        put16(h4, 9, bigEndian);
        put16(h4, 1, bigEndian);
        h4.insert(h4.end(), {3, 0, 0, 0});
        put16(h4, 2, bigEndian);
        put16(h4, 4, bigEndian);
        h4.insert(h4.end(), {'h', 'c', 'i', '0'});
        put16(h4, 0, bigEndian);
        put16(h4, 0, bigEndian);
        block(1, h4);
        Bytes ll;
        put16(ll, 256, bigEndian);
        put16(ll, 0, bigEndian);
        put32(ll, 0, bigEndian);
        block(1, ll);
        const auto enhanced = [&](std::uint32_t interface, std::uint64_t ticks, const Bytes& packet) {
            Bytes body;
            for (std::uint32_t word :
                 {interface, static_cast<std::uint32_t>(ticks >> 32), static_cast<std::uint32_t>(ticks),
                  static_cast<std::uint32_t>(packet.size()), static_cast<std::uint32_t>(packet.size())})
                put32(body, word, bigEndian);
            body.insert(body.end(), packet.begin(), packet.end());
            block(6, body);
        };
        Bytes event{0x04};
        const auto report = legacyReportEvent({7}, -70);
        event.insert(event.end(), report.begin(), report.end());
        enhanced(0, 5'000, event);  // 5 s in milliseconds
        // An ADV_NONCONN_IND on the advertising access address, signal valid at -48 dBm.
        Bytes radio{37,
                    static_cast<std::uint8_t>(-48),
                    static_cast<std::uint8_t>(-90),
                    0,
                    0xD6,
                    0xBE,
                    0x89,
                    0x8E,
                    0x02,
                    0x00};
        const auto data = beaconData(8);
        Bytes pdu{0xD6, 0xBE, 0x89, 0x8E, 0x02, static_cast<std::uint8_t>(6 + data.size()), 1, 2, 3, 4, 5, 6};
        pdu.insert(pdu.end(), data.begin(), data.end());
        pdu.insert(pdu.end(), {0, 0, 0});  // CRC
        radio.insert(radio.end(), pdu.begin(), pdu.end());
        enhanced(1, 6'000'000, radio);  // 6 s in microseconds
        Bytes simple;
        put32(simple, static_cast<std::uint32_t>(event.size()), bigEndian);
        simple.insert(simple.end(), event.begin(), event.end());
        block(3, simple);  // a simple packet belongs to interface 0 and has no time of its own

        auto reader = fromBytes(file);
        const auto all = readAll(*reader);
        ASSERT_EQ(all.size(), 3u) << bigEndian;
        EXPECT_EQ(all[0].receiver, "hci0");
        EXPECT_EQ(all[0].at, Date{std::chrono::seconds(5)});
        EXPECT_EQ(all[1].receiver, "if1");
        EXPECT_EQ(all[1].rssi, -48);
        EXPECT_EQ(all[1].address, "06:05:04:03:02:01");
        EXPECT_EQ(parseIBeacon(all[1].data)->minor, 8);
        EXPECT_EQ(all[2].at, Date{std::chrono::seconds(6)});
    }
}

TEST(RecordingReader, BrokenFilesNameTheOffsetAndCutShortOnesPlayWhatCameBefore) {
    EXPECT_THROW(fromBytes(Bytes{'n', 'o', 'p', 'e'}), RecordingError);
    try {
        fromBytes(Bytes{'b', 't', 's', 'n', 'o', 'o', 'p', 0, 0, 0, 0, 1, 0, 0, 0x03, 0xEC});
        FAIL() << "datalink 1004 was taken";
    } catch (const RecordingError& error) {
        EXPECT_THAT(error.what(),
                    HasSubstr("offset 12: expected a datalink of 1001 (H1), 1002 (H4) or 2001"));
    }
    // A btsnoop record claiming 16 MB is no record.
    Bytes snoop{'b', 't', 's', 'n', 'o', 'o', 'p', 0, 0, 0, 0, 1, 0, 0, 0x03, 0xEA};
    for (std::uint32_t word : {0x01000000u, 0x01000000u, 1u, 0u, 0u, 0u}) put32(snoop, word, true);
    auto huge = fromBytes(snoop);
    EXPECT_THROW(huge->next(), RecordingError);

    // The monitor datalink: one event, then a record cut short.
    Bytes monitor{'b', 't', 's', 'n', 'o', 'o', 'p', 0, 0, 0, 0, 1, 0, 0, 0x07, 0xD1};
    const auto event = legacyReportEvent({4}, -55);
    for (int copy = 0; copy < 2; ++copy) {
        for (std::uint32_t word :
             {static_cast<std::uint32_t>(event.size()), static_cast<std::uint32_t>(event.size()), 0x00010003u,
              0u, 0x00DCDDB3u, 0x0F2F8000u})
            put32(monitor, word, true);
        monitor.insert(monitor.end(), event.begin(), event.end());
    }
    monitor.resize(monitor.size() - 5);
    auto cut = fromBytes(monitor);
    const auto played = readAll(*cut);
    ASSERT_EQ(played.size(), 1u);
    EXPECT_EQ(played[0].receiver, "hci1");
    EXPECT_EQ(played[0].at, Date{});
    ASSERT_TRUE(cut->warning());
    EXPECT_THAT(*cut->warning(), HasSubstr("cut short"));

    auto trace =
        RecordingReader::open(std::make_unique<std::istringstream>(
                                  "{\"t\":1,\"address\":\"a\",\"rssi\":-1,\"data\":\"0201\"}\n{\"t\":2}\n"),
                              "trace");
    EXPECT_TRUE(trace->next());
    try {
        trace->next();
        FAIL() << "a line without address was taken";
    } catch (const RecordingError& error) {
        EXPECT_STREQ(error.what(), "trace: line 2: expected \"address\": a text");
    }
}

}  // namespace
}  // namespace pelm::platform
