// BusLink: the process's connection to the message bus - made, lost and made again.
//
// Belongs to one thread, which polls what prepare names and then calls dispatch. While there is no
// bus nothing is polled for: the folder that its socket will appear in is watched, and a few tries
// follow each change there. Only a bus without a place in the file system is tried every 5 s.
// Whoever asks for a property by a name longer than names can be is refused before Setup's objects.
#pragma once

#include <poll.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bus/bus_address.h"
#include "common/released_by.h"
#include "common/unique_fd.h"

namespace nuvio::host {

using BusHandle = std::unique_ptr<sd_bus, ReleasedBy<sd_bus_close_unref>>;

class BusLink {
  public:
    using Clock = std::chrono::steady_clock;
    // Puts objects and names on a new connection; a negative errno value gives it up.
    using Setup = std::function<int(sd_bus* bus)>;

    BusLink(std::vector<BusAddress> addresses, Setup setup)
        : m_addresses(std::move(addresses)), m_setup(std::move(setup)) {}

    // First try. Without any bus: one log line, and the wait begins.
    void open();

    // Leaves the bus.
    void close() {
        m_ready = false;
        m_bus.reset();
    }

    // The connection once the bus has welcomed it, else null.
    sd_bus* ready() const { return m_ready ? m_bus.get() : nullptr; }

    // Adds the descriptors to wait for, and moves the deadline forward if something is due earlier.
    void prepare(std::vector<pollfd>& descriptors, std::optional<Clock::time_point>& deadline);
    // Does what is due. Never waits.
    void dispatch();

  private:
    bool try_from(size_t index);
    bool try_address(const BusAddress& address);
    void process();
    void lose(int error);
    void wait_for_bus(int tries);
    void watch_folders();
    void watch_folder_of(const std::string& socket_path);
    bool has_news();

    const std::vector<BusAddress> m_addresses;
    const Setup m_setup;

    BusHandle m_bus;
    size_t m_current = 0;  // of m_addresses, while there is a connection
    bool m_ready = false;
    bool m_told_of_absence = false;

    // While waiting.
    struct Watch {
        int descriptor;
        std::string awaited;  // the name that has to appear in the folder
    };
    UniqueFd m_folders;  // inotify
    std::vector<Watch> m_watches;
    int m_tries_left = 0;
    bool m_was_there = false;  // at the last try somebody, who did not welcome it
    std::optional<Clock::time_point> m_next_try;
};

}  // namespace nuvio::host
