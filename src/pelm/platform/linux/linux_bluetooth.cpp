#include <pelm/platform/linux/linux_bluetooth.hpp>

#include <charconv>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>

namespace pelm::platform {
namespace {

// The kernel's HCI interface, as in its uapi headers (not installed without BlueZ's development package).
constexpr int kAfBluetooth = 31;
constexpr int kBtProtoHci = 1;
constexpr unsigned long kHciGetDevInfo = 0x800448d3;  // _IOR('H', 211, int)
constexpr std::uint32_t kHciUp = 1U << 0;

struct HciDevInfo {
    std::uint16_t devId;
    char name[8];
    std::uint8_t bdaddr[6];
    std::uint32_t flags;
    std::uint8_t type;
    std::uint8_t features[8];
    std::uint32_t pktType, linkPolicy, linkMode;
    std::uint16_t aclMtu, aclPkts, scoMtu, scoPkts;
    std::uint32_t stats[10];
};

bool readFlag(const std::filesystem::path& file) {
    std::ifstream in(file);
    int value = 0;
    return (in >> value) && value != 0;
}

std::string readWord(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::string word;
    in >> word;
    return word;
}

std::optional<int> firstController(const std::filesystem::path& sysfs) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(sysfs / "bluetooth", error)) {
        const auto name = entry.path().filename().string();
        if (name.rfind("hci", 0) == 0 && name.find(':') == std::string::npos) {
            int index = 0;
            const auto digits = name.substr(3);
            const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), index);
            if (failure == std::errc() && end == digits.data() + digits.size()) return index;
        }
    }
    return std::nullopt;
}

bool blockedByRfkill(const std::filesystem::path& sysfs) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(sysfs / "rfkill", error)) {
        if (readWord(entry.path() / "type") != "bluetooth") continue;
        if (readFlag(entry.path() / "soft") || readFlag(entry.path() / "hard")) return true;
    }
    return false;
}

std::optional<bool> controllerUp(int id) {
    const int fd = ::socket(kAfBluetooth, SOCK_RAW | SOCK_CLOEXEC, kBtProtoHci);
    if (fd < 0) return std::nullopt;
    HciDevInfo info{};
    info.devId = static_cast<std::uint16_t>(id);
    const bool ok = ::ioctl(fd, kHciGetDevInfo, &info) == 0;
    ::close(fd);
    if (!ok) return std::nullopt;
    return (info.flags & kHciUp) != 0;
}

}  // namespace

int LinuxBluetooth::probe(const std::filesystem::path& sysfs) {
    const auto controller = firstController(sysfs);
    if (!controller) return 2;
    if (blockedByRfkill(sysfs)) return 4;
    const auto up = controllerUp(*controller);
    if (!up) return 0;
    return *up ? 5 : 4;
}

LinuxBluetooth::LinuxBluetooth(std::shared_ptr<MainQueue> mainQueue, std::chrono::milliseconds interval,
                               std::filesystem::path sysfs)
    : mainQueue_(std::move(mainQueue)), interval_(interval), sysfs_(std::move(sysfs)) {}

LinuxBluetooth::~LinuxBluetooth() {
    if (!thread_.joinable()) return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);
    thread_.join();
    ::close(wake_);
}

// The watching thread starts with the first question, not with the platform.
void LinuxBluetooth::startWatching() const {
    std::call_once(started_, [this] {
        wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        thread_ = std::thread([this] { watch(); });
    });
}

int LinuxBluetooth::state() const {
    startWatching();
    return state_.load();
}

std::shared_ptr<void> LinuxBluetooth::observe(std::function<void(int)> onChange) {
    auto handle = observers_->add(std::move(onChange));
    startWatching();
    return handle;
}

void LinuxBluetooth::watch() const {
    for (;;) {
        const int now = probe(sysfs_);
        if (state_.exchange(now) != now) {
            mainQueue_->post([observers = observers_, now] { observers->notify(now); });
        }
        pollfd wake{wake_, POLLIN, 0};
        if (::poll(&wake, 1, static_cast<int>(interval_.count())) > 0) return;
    }
}

}  // namespace pelm::platform
