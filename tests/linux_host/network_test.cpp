// The network status against the kernel, in a network namespace of the test's own.
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "device/network_monitor.h"
#include "temp_dir.h"

using namespace nuvio::host;

namespace {

bool can_ip(const std::string& arguments) {
    return std::system(("ip " + arguments).c_str()) == 0;
}
void ip(const std::string& arguments) {
    ASSERT_TRUE(can_ip(arguments)) << arguments;
}

class Alerts : public android::INeshAlerts {
  public:
    void NeshAlert(uint8_t iface, uint8_t status) override {
        const std::lock_guard lock(m_mutex);
        m_lines.push_back(std::to_string(iface) + " " + std::to_string(status));
    }
    std::vector<std::string> take() {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_lines, {});
    }

  private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

using Lines = std::vector<std::string>;

class Network : public testing::Test {
  protected:
    void SetUp() override {
        // The other end of each pair stays up, so that the pair has a carrier.
        if (::unshare(CLONE_NEWNET) != 0 || !can_ip("link add w0 type veth peer w0p")) {
            GTEST_SKIP() << "no network namespaces or virtual Ethernet here";
        }
        ip("link add wl0 type veth peer wl0p");
        ip("link set w0p up");
        ip("link set wl0p up");
        sysfs.write("wl0/wireless/status", "");
        pool.start();
    }

    void follow(bool allow_loopback = false) {
        monitor = std::make_unique<NetworkMonitor>(pool, allow_loopback, sysfs.path());
        monitor->add_listener(alerts);
    }

    // What has been told since the last call, given until `count` alerts are there; the kernel's
    // further reports are taken too.
    Lines told(size_t count) {
        Lines lines;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        do {
            for (pollfd events = {monitor->fd(), POLLIN, 0}; ::poll(&events, 1, 50) > 0;) {
                monitor->handle_events();
            }
            for (std::string& line : alerts->take()) {
                lines.push_back(std::move(line));
            }
        } while (lines.size() < count && std::chrono::steady_clock::now() < end);
        return lines;
    }

    const TempDir sysfs;
    NotificationPool pool;
    std::unique_ptr<NetworkMonitor> monitor;
    const android::sp<Alerts> alerts = new Alerts();
};

}  // namespace

TEST_F(Network, AnInterfaceCountsWhileItIsUpAndHasAnAddress) {
    follow();
    EXPECT_FALSE(monitor->is_usable(kWired));
    ip("link set w0 up");
    EXPECT_EQ(told(0), Lines());  // up, but with no more than a link-local address
    ip("address add 192.0.2.1/24 dev w0");
    EXPECT_EQ(told(1), Lines{"1 1"});
    EXPECT_TRUE(monitor->is_usable(kWired));
    ip("address add 192.0.2.2/24 dev w0");
    ip("link add w1 type veth peer w1p");
    EXPECT_EQ(told(0), Lines());  // nothing that matters
    ip("link set w0p down");      // the cable is pulled
    EXPECT_EQ(told(1), Lines{"1 0"});
    ip("link set w0p up");
    EXPECT_EQ(told(1), Lines{"1 1"});
    ip("link delete w0");
    EXPECT_EQ(told(1), Lines{"1 0"});
    EXPECT_FALSE(monitor->is_usable(kWired));
}

TEST_F(Network, WirelessIsToldFromWiredAndLoopbackFromBoth) {
    ip("link set wl0 up");
    ip("address add 2001:db8::1/64 dev wl0 nodad");
    follow();
    EXPECT_TRUE(monitor->is_usable(kWireless));
    EXPECT_FALSE(monitor->is_usable(kWired));
    EXPECT_FALSE(monitor->is_usable(3));
    ip("address flush dev wl0");
    EXPECT_EQ(told(1), Lines{"2 0"});

    follow(true);
    ip("link set lo up");
    EXPECT_EQ(told(1), Lines{"1 1"}) << "loopback counts where it is allowed";
    follow(false);
    EXPECT_FALSE(monitor->is_usable(kWired));
}
