#pragma once

// A stand-in for BlueZ on a private D-Bus daemon, for the tests of what listens to it.
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <pelm/platform/proximity_uuid.hpp>
#include <pelm/platform/sim/simulated_store.hpp>

namespace pelm::testing {

using platform::ProximityUUID;
using platform::Scenario;
using platform::SimulatedStore;

inline constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
inline constexpr const char* kAdapter = "org.bluez.Adapter1";
inline constexpr const char* kDevice = "org.bluez.Device1";
inline const ProximityUUID kBluezUuid = *ProximityUUID::parse("F7826DA6-4FA2-4E98-8024-BC5B71E0893E");

using Properties = std::map<std::string, sdbus::Variant>;

// A dbus-daemon of the test's own, gone with the object.
class PrivateBus {
  public:
    PrivateBus() {
        int pipeFds[2];
        if (::pipe(pipeFds) != 0) return;
        ::posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
        char program[] = "dbus-daemon";
        char session[] = "--session";
        char nofork[] = "--nofork";
        char print[] = "--print-address=1";
        char* argv[] = {program, session, nofork, print, nullptr};
        if (::posix_spawnp(&pid_, program, &actions, nullptr, argv, environ) != 0) pid_ = 0;
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(pipeFds[1]);
        FILE* out = ::fdopen(pipeFds[0], "r");
        char line[512] = {};
        if (pid_ > 0 && std::fgets(line, sizeof line, out) != nullptr) {
            address = std::string(line, std::strcspn(line, "\n"));
        }
        std::fclose(out);
    }
    ~PrivateBus() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    std::string address;

  private:
    pid_t pid_ = 0;
};

// What BlueZ shows of one adapter: the calls made on it are kept, StartDiscovery can be refused, and devices
// can be made to appear and change.
class FakeBluez {
  public:
    explicit FakeBluez(const std::string& busAddress)
        : connection_(sdbus::createSessionBusConnectionWithAddress(busAddress)) {
        connection_->requestName("org.bluez");
        // The bus library answers GetManagedObjects itself, listing every object below with an interface.
        root_ = sdbus::createObject(*connection_, "/");
        root_->addObjectManager();
        adapter_ = sdbus::createObject(*connection_, "/org/bluez/hci0");
        adapter_->registerMethod("SetDiscoveryFilter")
            .onInterface(kAdapter)
            .implementedAs([this](const Properties& filter) {
                record("filter Transport=" + filter.at("Transport").get<std::string>() +
                       " DuplicateData=" + std::to_string(filter.at("DuplicateData").get<bool>()));
            });
        adapter_->registerMethod("StartDiscovery").onInterface(kAdapter).implementedAs([this] {
            if (refuse) throw sdbus::Error("org.bluez.Error.NotReady", "Resource Not Ready");
            record("start");
        });
        adapter_->registerMethod("StopDiscovery").onInterface(kAdapter).implementedAs([this] {
            record("stop");
        });
        adapter_->finishRegistration();
        connection_->enterEventLoopAsync();
    }
    ~FakeBluez() { connection_->leaveEventLoop(); }

    void appears(const std::string& path, Properties device) {
        std::map<std::string, Properties> interfaces{{kDevice, std::move(device)}};
        root_->emitSignal("InterfacesAdded")
            .onInterface(kObjectManager)
            .withArguments(sdbus::ObjectPath(path), interfaces);
    }
    void changes(const std::string& path, const Properties& changed) {
        sdbus::createObject(*connection_, path)
            ->emitSignal("PropertiesChanged")
            .onInterface("org.freedesktop.DBus.Properties")
            .withArguments(std::string(kDevice), changed, std::vector<std::string>{});
    }
    std::vector<std::string> calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }

    std::atomic<bool> refuse{false};

  private:
    void record(std::string call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }

    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IObject> root_;
    std::unique_ptr<sdbus::IObject> adapter_;
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

inline Properties beacon(const std::string& address, std::int16_t rssi, std::uint16_t minor) {
    Scenario::Beacon b;
    b.uuid = kBluezUuid;
    b.major = 1;
    b.minor = minor;
    // BlueZ gives the manufacturer data without its length, type and company: strip those four bytes.
    const auto full = SimulatedStore::advertisingData(b);
    const std::vector<std::uint8_t> payload(full.end() - 23, full.end());
    std::map<std::uint16_t, sdbus::Variant> byCompany{{0x004C, sdbus::Variant(payload)}};
    return {{"Address", sdbus::Variant(address)},
            {"RSSI", sdbus::Variant(rssi)},
            {"ManufacturerData", sdbus::Variant(byCompany)}};
}

}  // namespace pelm::testing
