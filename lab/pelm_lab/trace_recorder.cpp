#include "pelm_lab/trace_recorder.hpp"

#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <pelm/platform/ble/recording_reader.hpp>

namespace pelm::lab {

std::uint64_t recordTrace(const platform::BluezOptions& bluez, std::ostream& out,
                          std::optional<std::chrono::milliseconds> duration,
                          const std::function<bool()>& stop) {
    const auto adapter = platform::BluezAdvertisements::findAdapter(bluez);
    if (!adapter) throw std::runtime_error("no Bluetooth adapter (BlueZ on the system bus has none)");
    // The D-Bus thread only queues what it hears; this thread writes.
    std::mutex mutex;
    std::deque<platform::HeardAdvertisement> heard;
    std::uint64_t written = 0;
    const auto drain = [&] {
        std::deque<platform::HeardAdvertisement> batch;
        {
            std::lock_guard lock(mutex);
            batch.swap(heard);
        }
        for (const auto& advertisement : batch) {
            out << platform::traceLine(advertisement) << '\n';
            ++written;
        }
        out.flush();
    };
    {
        platform::BluezAdvertisements radio(bluez, *adapter, [&](platform::HeardAdvertisement advertisement) {
            advertisement.at = systemNow();
            std::lock_guard lock(mutex);
            heard.push_back(std::move(advertisement));
        });
        const auto started = std::chrono::steady_clock::now();
        while (!stop() && (!duration || std::chrono::steady_clock::now() - started < *duration)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            drain();
        }
    }  // discovery stops, and the D-Bus thread is gone
    drain();
    return written;
}

}  // namespace pelm::lab
