#include "device/network_monitor.h"

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "common/released_by.h"

namespace nuvio::host {

namespace {

using Addresses = std::unique_ptr<ifaddrs, ReleasedBy<freeifaddrs>>;

Addresses read_addresses() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        syslog(LOG_ERR, "nuvio-host: cannot list the network interfaces: %s",
               std::generic_category().message(errno).c_str());
    }
    return Addresses(list);
}

UniqueFd open_event_socket() {
    UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (!fd || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        syslog(LOG_ERR, "nuvio-host: changes of the network will not be noticed: %s",
               std::generic_category().message(errno).c_str());
        return {};
    }
    return fd;
}

// What the kernel's list says about one interface, gathered from its several entries.
struct Link {
    unsigned flags = 0;
    bool is_ethernet = false;
    bool has_address = false;
};

bool reaches_beyond_link(const sockaddr& address) {
    if (address.sa_family == AF_INET) {
        return true;
    }
    sockaddr_in6 v6{};
    std::memcpy(&v6, &address, sizeof v6);
    return !IN6_IS_ADDR_LINKLOCAL(&v6.sin6_addr);
}

void gather(const ifaddrs& entry, Link& link) {
    link.flags |= entry.ifa_flags;
    if (entry.ifa_addr == nullptr) {
        return;
    }
    switch (entry.ifa_addr->sa_family) {
        case AF_PACKET: {
            sockaddr_ll packet{};
            std::memcpy(&packet, entry.ifa_addr, sizeof packet);
            link.is_ethernet = packet.sll_hatype == ARPHRD_ETHER;
            break;
        }
        case AF_INET:
        case AF_INET6:
            link.has_address = link.has_address || reaches_beyond_link(*entry.ifa_addr);
            break;
        default:
            break;
    }
}

bool is_wireless(const std::string& name) {
    const std::string folder = "/sys/class/net/" + name;
    return ::access((folder + "/wireless").c_str(), F_OK) == 0 ||
           ::access((folder + "/phy80211").c_str(), F_OK) == 0;
}

constexpr size_t index_of(int iface) {
    return static_cast<size_t>(iface - kWired);
}
constexpr bool is_interface(int iface) {
    return iface == kWired || iface == kWireless;
}

}  // namespace

NetworkMonitor::NetworkMonitor(NotificationPool& pool, bool allow_loopback)
    : m_pool(pool),
      m_allow_loopback(allow_loopback),
      // Before the first look, so that no change is missed in between.
      m_socket(open_event_socket()),
      m_kernel(scan()) {}

NetworkMonitor::Status NetworkMonitor::scan() const {
    std::map<std::string, Link> links;
    const Addresses addresses = read_addresses();
    for (const ifaddrs* entry = addresses.get(); entry != nullptr; entry = entry->ifa_next) {
        // An address may have a label of its own: "eth0:1".
        const std::string name = entry->ifa_name;
        gather(*entry, links[name.substr(0, name.find(':'))]);
    }
    Status status{};
    for (const auto& [name, link] : links) {
        const bool runs = (link.flags & IFF_UP) != 0 && (link.flags & IFF_RUNNING) != 0;
        const bool is_loopback = (link.flags & IFF_LOOPBACK) != 0;
        if (!runs || !link.has_address || (is_loopback ? !m_allow_loopback : !link.is_ethernet)) {
            continue;
        }
        status[index_of(is_wireless(name) ? kWireless : kWired)] = true;
    }
    return status;
}

bool NetworkMonitor::is_usable(int iface) const {
    const std::lock_guard lock(m_mutex);
    return is_interface(iface) && effective()[index_of(iface)];
}

void NetworkMonitor::handle_events() {
    // The reports say only that something has changed, also when some were lost for want of room;
    // what has changed is read afresh.
    std::array<char, 8192> report{};
    while (::recv(m_socket.get(), report.data(), report.size(), 0) > 0 || errno == ENOBUFS ||
           errno == EINTR) {
    }
    const Status now = scan();
    const std::lock_guard lock(m_mutex);
    const Status before = effective();
    m_kernel = now;
    tell_changes(before);
}

void NetworkMonitor::override_status(int iface, std::optional<bool> usable) {
    if (!is_interface(iface)) {
        return;
    }
    const std::lock_guard lock(m_mutex);
    const Status before = effective();
    m_overrides[index_of(iface)] = usable;
    tell_changes(before);
}

NetworkMonitor::Status NetworkMonitor::effective() const {
    Status status = m_kernel;
    for (size_t i = 0; i < status.size(); ++i) {
        status[i] = m_overrides[i].value_or(status[i]);
    }
    return status;
}

void NetworkMonitor::tell_changes(const Status& before) {
    const Status now = effective();
    if (now != before && m_observer) {
        m_observer();
    }
    for (const int iface : {kWired, kWireless}) {
        const bool usable = now[index_of(iface)];
        if (usable == before[index_of(iface)]) {
            continue;
        }
        for (const auto& listener : m_listeners) {
            m_pool.post(Channel::network, [this, listener, iface, usable] {
                if (is_registered(listener)) {
                    listener->NeshAlert(static_cast<uint8_t>(iface), usable ? 1 : 0);
                }
            });
        }
    }
}

bool NetworkMonitor::is_registered(const android::sp<android::INeshAlerts>& listener) const {
    const std::lock_guard lock(m_mutex);
    return std::find(m_listeners.begin(), m_listeners.end(), listener) != m_listeners.end();
}

void NetworkMonitor::add_listener(const android::sp<android::INeshAlerts>& listener) {
    const std::lock_guard lock(m_mutex);
    m_listeners.push_back(listener);
}

void NetworkMonitor::remove_listener(const android::sp<android::INeshAlerts>& listener) {
    std::vector<android::sp<android::INeshAlerts>> removed;  // let go of without the lock
    const std::lock_guard lock(m_mutex);
    const auto tail = std::stable_partition(m_listeners.begin(), m_listeners.end(),
                                            [&](const auto& held) { return !(held == listener); });
    std::move(tail, m_listeners.end(), std::back_inserter(removed));
    m_listeners.erase(tail, m_listeners.end());
}

}  // namespace nuvio::host
