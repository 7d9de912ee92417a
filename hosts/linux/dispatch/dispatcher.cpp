#include "dispatch/dispatcher.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string_view>

#include "bus/bus_address.h"
#include "bus/bus_name.h"
#include "bus/raw_messages.h"
#include "watch/service_status.h"

namespace nuvio::host {

namespace {

constexpr std::chrono::milliseconds kSaveDelay{1000};
constexpr uint64_t kMaxUnsent = 16;  // messages that wait to be written to the bus

// For poll: never (-1) without a deadline, else rounded up so that nothing is woken too early.
int timeout_until(const std::optional<std::chrono::steady_clock::time_point>& deadline) {
    if (!deadline) {
        return -1;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
}

}  // namespace

Dispatcher::Dispatcher(Controls& controls, const DeviceModel& device, NetworkMonitor& network,
                       StateStore& state, const Settings& settings)
    : m_device(device),
      m_network(network),
      m_state(state),
      m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_mpris(controls, device),
      m_panel(controls, device),
      m_shows_raw_messages(settings.is_on(kHostBusMessages)),
      m_link(bus_addresses(settings.get(kHostBus)), [this](sd_bus* bus) { return set_up(bus); }),
      m_metrics(settings.get(kHostMetricsSocket), device) {}

void Dispatcher::start() {
    m_thread = std::thread([this] { run(); });
    pthread_setname_np(m_thread.native_handle(), "host-dispatch");
}

void Dispatcher::stop() {
    m_stop = true;
    wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    m_state.save();
}

void Dispatcher::wake() {
    ::eventfd_write(m_wake.get(), 1);
}

void Dispatcher::changed(uint32_t changes) {
    {
        const std::lock_guard lock(m_mutex);
        m_notices.changes |= changes;
    }
    wake();
}

void Dispatcher::message_changed(int id, const std::string& text) {
    if (!m_shows_raw_messages) {
        return;
    }
    {
        const std::lock_guard lock(m_mutex);
        m_notices.messages.insert_or_assign(id, text);
    }
    wake();
}

void Dispatcher::save_soon() {
    {
        const std::lock_guard lock(m_mutex);
        m_notices.save = true;
    }
    wake();
}

int Dispatcher::set_up(sd_bus* bus) {
    int r = m_mpris.attach(bus);
    if (r >= 0) {
        r = m_panel.attach(bus);
    }
    if (r >= 0 && m_shows_raw_messages) {
        r = attach_raw_messages(bus, m_panel.controls());
    }
    if (r >= 0) {
        r = request_bus_name(bus, Mpris::kBusName);
    }
    if (r >= 0) {
        r = request_bus_name(bus, Panel::kBusName);
    }
    return r;
}

void Dispatcher::run() {
    report_status(m_device);
    m_metrics.open();
    m_link.open();
    while (!m_stop) {
        publish();
        wait_for_events();
        save_when_due();
    }
    m_link.close();
    m_metrics.close();
}

// Nothing while the bus has yet to take what it was told before: what changes meanwhile is told
// once, as it is then, so no flood of changes grows the process.
Dispatcher::Notices Dispatcher::take_notices() {
    const std::lock_guard lock(m_mutex);
    if (std::exchange(m_notices.save, false) && !m_save_at) {
        m_save_at = Clock::now() + kSaveDelay;
    }
    uint64_t unsent = 0;
    if (sd_bus* const bus = m_link.ready(); bus != nullptr) {
        sd_bus_get_n_queued_write(bus, &unsent);
    }
    return unsent > kMaxUnsent ? Notices() : std::exchange(m_notices, {});
}

void Dispatcher::publish() {
    const Notices notices = take_notices();
    sd_bus* const bus = m_link.ready();
    m_mpris.publish(bus, notices.changes);
    if ((notices.changes & (kPlayerStatus | kPlayerTrack)) != 0) {
        report_status(m_device);
    }
    if (bus == nullptr) {
        return;
    }
    Panel::publish(bus, notices.changes);
    for (const auto& [id, text] : notices.messages) {
        publish_raw_message(bus, id, text);
    }
}

void Dispatcher::wait_for_events() {
    std::optional<Clock::time_point> deadline = m_save_at;
    std::vector<pollfd> descriptors = {{m_wake.get(), POLLIN, 0}, {m_network.fd(), POLLIN, 0}};
    m_link.prepare(descriptors, deadline);
    m_metrics.prepare(descriptors, deadline);
    if (::poll(descriptors.data(), descriptors.size(), timeout_until(deadline)) < 0) {
        return;
    }
    if (descriptors[0].revents != 0) {
        eventfd_t count = 0;
        ::eventfd_read(m_wake.get(), &count);
    }
    if (descriptors[1].revents != 0) {
        m_network.handle_events();
    }
    m_link.dispatch();
    m_metrics.dispatch(descriptors);
}

void Dispatcher::save_when_due() {
    if (m_save_at && Clock::now() >= *m_save_at) {
        m_save_at.reset();
        m_state.save();
    }
}

}  // namespace nuvio::host
