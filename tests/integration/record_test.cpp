// pelm record's core against the stand-in BlueZ: what the feed hears becomes a trace the replay reads back.
#include <gmock/gmock.h>

#include <atomic>
#include <sstream>
#include <thread>

#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/ble/recording_reader.hpp>

#include "pelm_lab/trace_recorder.hpp"
#include "support/fake_bluez.hpp"

namespace pelm::lab {
namespace {

using namespace std::chrono_literals;

TEST(RecordTrace, WhatBluezHearsIsWrittenWholeAndReadsBack) {
    testing::PrivateBus bus;
    ASSERT_FALSE(bus.address.empty()) << "dbus-daemon did not start";
    testing::FakeBluez bluez(bus.address);
    std::stringstream trace;
    std::atomic<bool> stop{false};
    std::thread stopper([&] {
        // Once discovery runs, a beacon shows up and moves closer; then the recording is stopped.
        for (int i = 0; i < 500 && bluez.calls().size() < 2; ++i) std::this_thread::sleep_for(10ms);
        bluez.appears("/org/bluez/hci0/dev_11", testing::beacon("C0:FF:EE:00:00:11", -70, 11));
        bluez.changes("/org/bluez/hci0/dev_11", {{"RSSI", sdbus::Variant(std::int16_t{-60})}});
        std::this_thread::sleep_for(300ms);
        stop = true;
    });
    const auto written = recordTrace({bus.address, 2s}, trace, std::nullopt, [&] { return stop.load(); });
    stopper.join();
    EXPECT_THAT(bluez.calls(),
                ::testing::ElementsAre("filter Transport=le DuplicateData=1", "start", "stop"));
    ASSERT_EQ(written, 2u);

    auto reader = platform::RecordingReader::open(std::make_unique<std::stringstream>(trace.str()), "trace");
    std::vector<platform::HeardAdvertisement> heard;
    while (auto advertisement = reader->next()) heard.push_back(std::move(*advertisement));
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_EQ(heard[0].address, "C0:FF:EE:00:00:11");
    EXPECT_EQ(heard[0].rssi, -70);
    EXPECT_EQ(heard[1].rssi, -60);
    EXPECT_EQ(platform::parseIBeacon(heard[1].data)->minor, 11);
    EXPECT_LE(heard[0].at, heard[1].at);
}

TEST(RecordTrace, NoBluezIsAnErrorNotAnEmptyFile) {
    testing::PrivateBus bus;  // a bus without BlueZ on it
    std::stringstream trace;
    EXPECT_THROW(recordTrace({bus.address, 1s}, trace, 1s, [] { return false; }), std::runtime_error);
    EXPECT_TRUE(trace.str().empty());
}

}  // namespace
}  // namespace pelm::lab
