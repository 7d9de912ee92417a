#include "bus/bus_link.h"

#include <sys/inotify.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

namespace nuvio::host {

namespace {

using std::chrono::milliseconds;

// A socket's file is there before its owner listens, so one try is not enough.
constexpr int kTries = 8;
constexpr milliseconds kBetweenTries{250};
constexpr milliseconds kBlindInterval{5000};
constexpr milliseconds kNoWelcomeInterval{60000};
// Messages taken in one go, so that a flood of them cannot starve the thread's other work.
constexpr int kMessagesPerRound = 64;

std::string describe(int error) {
    return std::generic_category().message(error);
}

std::chrono::steady_clock::time_point from_bus_time(uint64_t microseconds) {
    // Both clocks are CLOCK_MONOTONIC.
    return std::chrono::steady_clock::time_point(std::chrono::microseconds(microseconds));
}

// Everybody may ask for a property, and the library answers an unknown name with texts that have it
// in them: of one of megabytes these would be what the service has memory for.
int refuse_long_names(sd_bus_message* call, void*, sd_bus_error* error) {
    constexpr size_t kLongestName = 255;  // of an interface or a property, as D-Bus has it
    if (sd_bus_message_is_method_call(call, "org.freedesktop.DBus.Properties", nullptr) <= 0) {
        return 0;
    }
    const char* name = nullptr;
    while (sd_bus_message_read_basic(call, SD_BUS_TYPE_STRING, static_cast<void*>(&name)) > 0) {
        if (std::strlen(name) > kLongestName) {
            return sd_bus_error_set_const(error, SD_BUS_ERROR_INVALID_ARGS,
                                          "There is no such name");
        }
    }
    return std::min(sd_bus_message_rewind(call, 1), 0);
}

void move_forward(std::optional<std::chrono::steady_clock::time_point>& deadline,
                  std::chrono::steady_clock::time_point due) {
    deadline = deadline ? std::min(*deadline, due) : due;
}

}  // namespace

void BusLink::open() {
    m_tries_left = kTries;
    if (!m_addresses.empty() && !try_from(0)) {
        wait_for_bus(kTries);
    }
}

bool BusLink::try_from(size_t index) {
    if (index == 0) {
        m_was_there = false;
    }
    for (; index < m_addresses.size(); ++index) {
        if (try_address(m_addresses[index])) {
            m_current = index;
            return true;
        }
    }
    return false;
}

bool BusLink::try_address(const BusAddress& address) {
    sd_bus* made = nullptr;
    if (sd_bus_new(&made) < 0) {
        return false;
    }
    BusHandle bus(made);
    if (sd_bus_set_address(made, address.text.c_str()) < 0 || sd_bus_set_bus_client(made, 1) < 0) {
        return false;
    }
    const int started = sd_bus_start(made);
    if (started < 0 || sd_bus_add_filter(made, nullptr, refuse_long_names, nullptr) < 0 ||
        m_setup(made) < 0) {
        m_was_there = m_was_there || (started != -ENOENT && started != -ECONNREFUSED);
        return false;
    }
    m_bus = std::move(bus);
    return true;
}

void BusLink::prepare(std::vector<pollfd>& descriptors,
                      std::optional<Clock::time_point>& deadline) {
    if (m_bus != nullptr) {
        const int events = sd_bus_get_events(m_bus.get());
        const int fd = sd_bus_get_fd(m_bus.get());
        uint64_t due = UINT64_MAX;
        if (events < 0 || fd < 0) {
            // Lost since the last look; dispatch finds out.
            move_forward(deadline, Clock::now());
            return;
        }
        descriptors.push_back({fd, static_cast<short>(events), 0});
        if (sd_bus_get_timeout(m_bus.get(), &due) >= 0 && due != UINT64_MAX) {
            move_forward(deadline, from_bus_time(due));
        }
        return;
    }
    if (m_folders) {
        descriptors.push_back({m_folders.get(), POLLIN, 0});
    }
    if (m_next_try) {
        move_forward(deadline, *m_next_try);
    }
}

void BusLink::dispatch() {
    if (m_bus != nullptr) {
        process();
        return;
    }
    if (m_folders && has_news()) {
        wait_for_bus(kTries);
    }
    if (m_next_try && Clock::now() >= *m_next_try && !try_from(0)) {
        wait_for_bus(std::max(m_tries_left - 1, 0));
    }
}

void BusLink::process() {
    for (int i = 0; i < kMessagesPerRound; ++i) {
        const int result = sd_bus_process(m_bus.get(), nullptr);
        if (result < 0) {
            lose(-result);
            return;
        }
        if (!m_ready && sd_bus_is_ready(m_bus.get()) > 0) {
            m_ready = true;
            m_told_of_absence = false;
            m_folders = UniqueFd();
            m_next_try.reset();
            syslog(LOG_INFO, "nuvio-host: on the message bus at %s",
                   m_addresses[m_current].text.c_str());
        }
        if (result == 0) {
            return;
        }
    }
}

void BusLink::lose(int error) {
    m_bus.reset();
    if (std::exchange(m_ready, false)) {
        syslog(LOG_ERR, "nuvio-host: the message bus has gone: %s", describe(error).c_str());
        m_told_of_absence = true;
        wait_for_bus(kTries);
        return;
    }
    m_was_there = true;
    if (!try_from(m_current + 1)) {
        wait_for_bus(std::max(m_tries_left - 1, 0));
    }
}

void BusLink::wait_for_bus(int tries) {
    if (!std::exchange(m_told_of_absence, true)) {
        syslog(LOG_ERR,
               "nuvio-host: no message bus; players and panels reach the device once "
               "there is one");
    }
    m_tries_left = tries;
    m_next_try.reset();
    const bool blind = std::any_of(m_addresses.begin(), m_addresses.end(),
                                   [](const BusAddress& one) { return one.socket_path.empty(); });
    if (tries > 0) {
        m_next_try = Clock::now() + kBetweenTries;
    } else if (blind) {
        m_next_try = Clock::now() + kBlindInterval;
    } else if (m_was_there) {
        // A socket but no welcome behind it: a bus that is busy or still starting. No file event
        // will tell when it is ready.
        m_next_try = Clock::now() + kNoWelcomeInterval;
    }
    // Watches stay while tries are counted down: what comes after the last one is seen.
    if (tries == kTries || !m_folders) {
        watch_folders();
    }
}

void BusLink::watch_folders() {
    m_watches.clear();
    m_folders = UniqueFd(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    for (const BusAddress& address : m_addresses) {
        if (m_folders && !address.socket_path.empty()) {
            watch_folder_of(address.socket_path);
        }
    }
}

// Watches the deepest folder on the way to the socket that is there, for the next name on the way.
void BusLink::watch_folder_of(const std::string& socket_path) {
    std::filesystem::path folder = std::filesystem::path(socket_path).parent_path();
    std::filesystem::path awaited = std::filesystem::path(socket_path).filename();
    constexpr uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF |
                                 IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD;
    while (!folder.empty()) {
        const int watch = ::inotify_add_watch(m_folders.get(), folder.c_str(), kEvents);
        if (watch >= 0) {
            m_watches.push_back({watch, awaited.string()});
            return;
        }
        if (folder == folder.parent_path()) {
            return;
        }
        awaited = folder.filename();
        folder = folder.parent_path();
    }
}

bool BusLink::has_news() {
    alignas(inotify_event) std::array<char, 4096> buffer;
    bool news = false;
    ssize_t size = 0;
    while ((size = ::read(m_folders.get(), buffer.data(), buffer.size())) > 0) {
        for (size_t at = 0; at < static_cast<size_t>(size);) {
            inotify_event event{};
            std::memcpy(&event, buffer.data() + at, sizeof event);
            const std::string_view name = event.len == 0 ? "" : buffer.data() + at + sizeof event;
            at += sizeof event + event.len;
            news = news || (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_Q_OVERFLOW)) != 0;
            for (const Watch& watch : m_watches) {
                news = news || (watch.descriptor == event.wd && watch.awaited == name);
            }
        }
    }
    return news;
}

}  // namespace nuvio::host
