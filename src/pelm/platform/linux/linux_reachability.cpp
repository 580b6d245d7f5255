#include <pelm/platform/linux/linux_reachability.hpp>

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>

namespace pelm::platform {
namespace {

class Watcher final : public ReachabilityWatcher {
  public:
    Watcher(std::string host, std::chrono::milliseconds interval, LinuxReachability::Resolver resolver)
        : host_(std::move(host)), interval_(interval), resolver_(std::move(resolver)) {}
    ~Watcher() override { stopNotifier(); }

    void setCallbacks(Callback whenReachable, Callback whenUnreachable) override {
        reachableCallback_ = std::move(whenReachable);
        unreachableCallback_ = std::move(whenUnreachable);
    }

    bool startNotifier() override {
        std::lock_guard lock(control_);
        if (thread_.joinable()) return true;
        wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wake_ < 0) return false;
        netlink_ = openNetlink();  // without it, the interval alone still notices changes
        known_ = false;
        thread_ = std::thread([this] { watch(); });
        return true;
    }

    void stopNotifier() override {
        std::lock_guard lock(control_);
        if (!thread_.joinable()) return;
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);
        thread_.join();
        ::close(wake_);
        if (netlink_ >= 0) ::close(netlink_);
        wake_ = netlink_ = -1;
    }

    bool isReachable() const override { return evaluate(); }

  private:
    static int openNetlink() {
        const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
        if (fd < 0) return -1;
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups =
            RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
        if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd);
            return -1;
        }
        return fd;
    }

    bool evaluate() const {
        for (const auto& address : resolver_(host_)) {
            if (LinuxReachability::routeExists(address)) return true;
        }
        return false;
    }

    void watch() {
        for (;;) {
            const bool reachable = evaluate();
            if (!known_ || reachable != reachable_) {
                known_ = true;
                reachable_ = reachable;
                auto& callback = reachable ? reachableCallback_ : unreachableCallback_;
                if (callback) callback(*this);
            }
            pollfd fds[2] = {{wake_, POLLIN, 0}, {netlink_, POLLIN, 0}};
            const int ready = ::poll(fds, netlink_ >= 0 ? 2 : 1, static_cast<int>(interval_.count()));
            if (ready > 0 && (fds[0].revents & POLLIN) != 0) return;
            if (ready > 0 && (fds[1].revents & POLLIN) != 0) drainNetlink();
        }
    }

    void drainNetlink() const {
        char buffer[8192];
        while (::recv(netlink_, buffer, sizeof buffer, 0) > 0) {
        }
    }

    std::string host_;
    std::chrono::milliseconds interval_;
    LinuxReachability::Resolver resolver_;
    Callback reachableCallback_, unreachableCallback_;
    std::mutex control_;
    std::thread thread_;
    int wake_ = -1;
    int netlink_ = -1;
    bool known_ = false;
    bool reachable_ = false;
};

}  // namespace

LinuxReachability::LinuxReachability(std::chrono::milliseconds interval, Resolver resolver)
    : interval_(interval),
      resolver_(resolver ? std::move(resolver) : Resolver(&LinuxReachability::resolve)) {}

std::unique_ptr<ReachabilityWatcher> LinuxReachability::makeWatcher(const std::string& host) {
    const auto name = hostPart(host);
    if (name.empty()) return nullptr;
    return std::make_unique<Watcher>(name, interval_, resolver_);
}

std::string LinuxReachability::hostPart(const std::string& hostWithPort) {
    auto host = hostWithPort.substr(0, hostWithPort.find_first_of("/?#"));
    if (!host.empty() && host.front() == '[') {
        const auto close = host.find(']');
        return close == std::string::npos ? std::string() : host.substr(1, close - 1);
    }
    // One colon separates a port; more than one is a bare IPv6 address.
    if (const auto colon = host.find(':');
        colon != std::string::npos && host.find(':', colon + 1) == std::string::npos) {
        host.erase(colon);
    }
    return host;
}

std::vector<std::string> LinuxReachability::resolve(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    std::vector<std::string> addresses;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return addresses;
    for (auto* entry = found; entry != nullptr; entry = entry->ai_next) {
        char text[INET6_ADDRSTRLEN] = {};
        const void* raw =
            entry->ai_family == AF_INET
                ? static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(entry->ai_addr)->sin_addr)
                : static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(entry->ai_addr)->sin6_addr);
        if (::inet_ntop(entry->ai_family, raw, text, sizeof text) != nullptr) addresses.emplace_back(text);
    }
    ::freeaddrinfo(found);
    return addresses;
}

bool LinuxReachability::routeExists(const std::string& address) {
    sockaddr_storage target{};
    socklen_t length = 0;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&target);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&target);
    if (::inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(443);
        length = sizeof *v4;
    } else if (::inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(443);
        length = sizeof *v6;
    } else {
        return false;
    }
    const int fd = ::socket(target.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    // Connecting a datagram socket only looks up the route; nothing is sent.
    const bool routed = ::connect(fd, reinterpret_cast<sockaddr*>(&target), length) == 0;
    ::close(fd);
    return routed;
}

}  // namespace pelm::platform
