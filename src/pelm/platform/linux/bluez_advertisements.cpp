#include <pelm/platform/linux/bluez_advertisements.hpp>

#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-bus.h>

#include <map>
#include <stdexcept>
#include <vector>

#include <pelm/platform/ble/ibeacon_advertisement.hpp>

namespace pelm::platform {
namespace {

constexpr const char* kService = "org.bluez";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kAdapter = "org.bluez.Adapter1";
constexpr const char* kDevice = "org.bluez.Device1";

using Properties = std::map<std::string, sdbus::Variant>;
using Interfaces = std::map<std::string, Properties>;
using ManagedObjects = std::map<sdbus::ObjectPath, Interfaces>;

// sdbus-c++ 1.2 loses the bus object when connecting to an address fails, so a dead address is found out
// with sd-bus first, which cleans up after itself.
bool answers(const std::string& address) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) return false;
    const bool connected = sd_bus_set_address(bus, address.c_str()) >= 0 &&
                           sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0;
    sd_bus_flush_close_unref(bus);
    return connected;
}

std::unique_ptr<sdbus::IConnection> connect(const BluezOptions& options) {
    if (options.busAddress && !answers(*options.busAddress)) {
        throw sdbus::Error("org.freedesktop.DBus.Error.NoServer", "No bus at " + *options.busAddress);
    }
    auto connection = options.busAddress ? sdbus::createSessionBusConnectionWithAddress(*options.busAddress)
                                         : sdbus::createSystemBusConnection();
    connection->setMethodCallTimeout(options.callTimeout);
    return connection;
}

std::vector<std::uint8_t> advertisingData(const std::map<std::uint16_t, sdbus::Variant>& byCompany) {
    std::map<std::uint16_t, std::vector<std::uint8_t>> bytes;
    for (const auto& [company, value] : byCompany) bytes[company] = value.get<std::vector<std::uint8_t>>();
    return advertisingDataOf(bytes);
}

// What BlueZ has told about one device so far.
struct Device {
    std::string address;
    std::optional<int> rssi;
    std::optional<std::int64_t> transmissionPower;
    std::vector<std::uint8_t> data;
};

}  // namespace

// BlueZ hands manufacturer data over by company, without the structure it came in. Rebuilding the
// length-type-value form lets one parser serve BlueZ and every other source alike.
std::vector<std::uint8_t> advertisingDataOf(
    const std::map<std::uint16_t, std::vector<std::uint8_t>>& byCompany) {
    constexpr std::uint8_t kManufacturerSpecific = 0xFF;
    std::vector<std::uint8_t> data;
    for (const auto& [company, bytes] : byCompany) {
        if (bytes.size() > 252) continue;  // cannot have come in one structure
        data.push_back(static_cast<std::uint8_t>(bytes.size() + 3));
        data.push_back(kManufacturerSpecific);
        data.push_back(static_cast<std::uint8_t>(company & 0xFF));
        data.push_back(static_cast<std::uint8_t>(company >> 8));
        data.insert(data.end(), bytes.begin(), bytes.end());
    }
    return data;
}

struct BluezAdvertisements::State {
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> adapter;
    std::vector<sdbus::Slot> matches;
    Sink sink;
    // Touched only on the D-Bus thread once discovery runs.
    std::map<std::string, Device> devices;

    void watch() {
        const std::string sender = std::string("type='signal',sender='") + kService + "',";
        matches.push_back(connection->addMatch(
            sender + "interface='" + kObjectManager + "',member='InterfacesAdded'",
            [this](sdbus::Message& message) { guarded([&] { interfacesAdded(message); }); }));
        matches.push_back(connection->addMatch(
            sender + "interface='" + kObjectManager + "',member='InterfacesRemoved'",
            [this](sdbus::Message& message) { guarded([&] { interfacesRemoved(message); }); }));
        matches.push_back(connection->addMatch(
            sender + "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',arg0='" +
                kDevice + "'",
            [this](sdbus::Message& message) { guarded([&] { propertiesChanged(message); }); }));
    }

    // Devices BlueZ already knows: remembered, but not heard until BlueZ reports them again.
    void remember(const ManagedObjects& objects) {
        for (const auto& [path, interfaces] : objects) {
            if (const auto device = interfaces.find(kDevice); device != interfaces.end()) {
                update(path, device->second, false);
            }
        }
    }

    // A message of a shape we do not expect tells us nothing; it must not end the D-Bus thread.
    template <class Body>
    static void guarded(Body body) {
        try {
            body();
        } catch (const sdbus::Error&) {
        }
    }

    void interfacesAdded(sdbus::Message& message) {
        sdbus::ObjectPath path;
        Interfaces interfaces;
        message >> path >> interfaces;
        if (const auto device = interfaces.find(kDevice); device != interfaces.end()) {
            update(path, device->second, true);
        }
    }

    void interfacesRemoved(sdbus::Message& message) {
        sdbus::ObjectPath path;
        std::vector<std::string> interfaces;
        message >> path >> interfaces;
        for (const auto& name : interfaces) {
            if (name == kDevice) devices.erase(path);
        }
    }

    void propertiesChanged(sdbus::Message& message) {
        std::string interface;
        Properties changed;
        message >> interface >> changed;
        if (interface == kDevice) update(message.getPath(), changed, true);
    }

    void update(const std::string& path, const Properties& changed, bool announce) {
        auto& device = devices[path];
        bool heard = false;
        for (const auto& property : changed) {
            guarded([&] { heard = take(device, property.first, property.second) || heard; });
        }
        if (!announce || !heard || !device.rssi || !parseIBeacon(device.data)) return;
        HeardAdvertisement advertisement;
        advertisement.address = device.address.empty() ? path : device.address;
        // BlueZ knows no vendor id; the address is what names the device.
        advertisement.uniqueID = advertisement.address;
        advertisement.rssi = *device.rssi;
        advertisement.data = device.data;
        advertisement.transmissionPower = device.transmissionPower;
        sink(std::move(advertisement));
    }

    // Keeps one property; true when it says the device was just heard.
    static bool take(Device& device, const std::string& name, const sdbus::Variant& value) {
        if (name == "Address") {
            device.address = value.get<std::string>();
        } else if (name == "RSSI") {
            device.rssi = value.get<std::int16_t>();
            return true;
        } else if (name == "TxPower") {
            device.transmissionPower = value.get<std::int16_t>();
        } else if (name == "ManufacturerData") {
            device.data = advertisingData(value.get<std::map<std::uint16_t, sdbus::Variant>>());
            return true;
        }
        return false;
    }
};

std::optional<std::string> BluezAdvertisements::findAdapter(const BluezOptions& options) {
    try {
        auto connection = connect(options);
        auto root = sdbus::createProxy(*connection, kService, "/");
        ManagedObjects objects;
        root->callMethod("GetManagedObjects").onInterface(kObjectManager).storeResultsTo(objects);
        for (const auto& [path, interfaces] : objects) {
            if (interfaces.contains(kAdapter)) return path;
        }
    } catch (const sdbus::Error&) {
        // No bus, no BlueZ: no adapter either.
    }
    return std::nullopt;
}

BluezAdvertisements::BluezAdvertisements(const BluezOptions& options, const std::string& adapter, Sink sink)
    : state_(std::make_unique<State>()) {
    try {
        state_->sink = std::move(sink);
        state_->connection = connect(options);
        state_->adapter = sdbus::createProxy(*state_->connection, kService, adapter);
        state_->watch();
        ManagedObjects objects;
        sdbus::createProxy(*state_->connection, kService, "/")
            ->callMethod("GetManagedObjects")
            .onInterface(kObjectManager)
            .storeResultsTo(objects);
        state_->remember(objects);
        // Duplicates on: a beacon that does not move is still heard, which keeps its region entered.
        const std::map<std::string, sdbus::Variant> filter{{"Transport", sdbus::Variant(std::string("le"))},
                                                           {"DuplicateData", sdbus::Variant(true)}};
        state_->adapter->callMethod("SetDiscoveryFilter").onInterface(kAdapter).withArguments(filter);
        state_->adapter->callMethod("StartDiscovery").onInterface(kAdapter);
        state_->connection->enterEventLoopAsync();
    } catch (const sdbus::Error& error) {
        throw std::runtime_error(error.getName() + ": " + error.getMessage());
    }
}

BluezAdvertisements::~BluezAdvertisements() {
    state_->connection->leaveEventLoop();
    try {
        state_->adapter->callMethod("StopDiscovery").onInterface(kAdapter);
    } catch (const sdbus::Error&) {
        // The adapter may be gone already; there is nothing left to stop then.
    }
}

}  // namespace pelm::platform
