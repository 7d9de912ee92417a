#include "watch/hooks.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <string_view>

#include "common/number.h"

namespace nuvio::host {

namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kPatience{10};
constexpr std::chrono::seconds kPatienceAtTheEnd{3};
constexpr milliseconds kPause{100};                // between two of a kind
constexpr milliseconds kPauseAfterShortage{1000};  // of processes or memory
constexpr int kDefaultOffDelay = 5;                // s
constexpr uint32_t kWatched = kPlayerStatus | kDeviceVolume | kPlayerSession;

constexpr const char* kPlaying = word_of(android::PLAY_STATE_PLAYING).key;
constexpr const char* kPaused = word_of(android::PLAY_STATE_PAUSED).key;
constexpr const char* kStopped = word_of(android::PLAY_STATE_STOPPED).key;
constexpr char kBegin[] = "begin";
constexpr char kEnd[] = "end";

constexpr std::array kKeys = {kHostHookPlaying, kHostHookPaused, kHostHookStopped, kHostHookVolume,
                              kHostHookSession};

bool is_on(std::string_view value) {
    return value == kPlaying || value == kBegin;
}

bool is_off(std::string_view value) {
    return value == kEnd || value == kStopped || value == kPaused;
}

// What is wrong with how a hook ended; empty when nothing is.
std::string fault_of(int status, bool killed) {
    if (killed) {
        return "killed: it took too long";
    }
    if (WIFSIGNALED(status)) {
        return "ended by signal " + std::to_string(WTERMSIG(status));
    }
    return WEXITSTATUS(status) == 0 ? std::string()
                                    : "ended with status " + std::to_string(WEXITSTATUS(status));
}

// As a hook is told it; empty while nobody has set one.
std::string volume_text(const DeviceModel& device) {
    const std::optional<int> volume = device.volume();
    return volume ? std::to_string(*volume) : std::string();
}

}  // namespace

Hooks::Hooks(const Settings& settings, const DeviceModel& device)
    : m_settings(settings), m_device(device), m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Hooks::start() {
    if (std::ranges::all_of(kKeys,
                            [this](const char* key) { return m_settings.get(key).empty(); })) {
        return;
    }
    m_off_delay = std::chrono::seconds(
        to_number<int>(m_settings.get(kHostHookOffDelay)).value_or(kDefaultOffDelay));
    m_environment = HookProcess::environment();
    m_slots[kVolume].wanted = m_slots[kVolume].told = volume_text(m_device);
    m_thread = std::thread([this] { run(); });
    pthread_setname_np(m_thread.native_handle(), "host-hooks");
}

void Hooks::changed(uint32_t changes) {
    if ((changes & kWatched) != 0) {
        ::eventfd_write(m_wake.get(), 1);
    }
}

void Hooks::stop() {
    if (m_thread.joinable()) {
        m_stop = true;
        ::eventfd_write(m_wake.get(), 1);
        m_thread.join();
    }
}

void Hooks::run() {
    for (;;) {
        const auto now = Clock::now();
        look(now);
        for (const Kind kind : {kState, kVolume, kSession}) {
            look_after(kind, now);
        }
        if (m_stop && all_done()) {
            return;
        }
        wait(now);
    }
}

// How things are.
void Hooks::look(Clock::time_point now) {
    if (m_stop) {
        for (Slot& slot : m_slots) {
            slot.kill_at = std::min(slot.kill_at, now + kPatienceAtTheEnd);
            slot.due = now;
        }
        want(m_slots[kState], kStopped, now);
        want(m_slots[kSession], kEnd, now);
        return;
    }
    const NowPlayingView view = m_device.playing();
    want(m_slots[kState], word_of(view.status).key, now);
    want(m_slots[kVolume], volume_text(m_device), now);
    want(m_slots[kSession], view.has_session ? kBegin : kEnd, now);
}

void Hooks::want(Slot& slot, const std::string& value, Clock::time_point now) const {
    if (slot.wanted == value) {
        return;
    }
    const bool goes_off = is_on(slot.told) && is_off(value);
    const bool waits_already = goes_off && is_off(slot.wanted);
    slot.wanted = value;
    if (!waits_already) {
        slot.due = goes_off && !m_stop ? now + m_off_delay : now;
    }
}

// Ends, kills or begins the one of this kind.
void Hooks::look_after(Kind kind, Clock::time_point now) {
    Slot& slot = m_slots[kind];
    if (slot.process.is_running()) {
        pollfd ended = {slot.process.fd(), POLLIN, 0};
        if (::poll(&ended, 1, 0) == 1) {
            report(slot, event_of(kind, slot), fault_of(slot.process.finish(), slot.killed));
            slot.rest_until = now + kPause;
        } else if (now >= slot.kill_at && !std::exchange(slot.killed, true)) {
            slot.process.kill();
        }
    }
    if (!slot.process.is_running() && slot.wanted != slot.told && now >= begins_at(slot)) {
        begin(kind, now);
    }
}

void Hooks::begin(Kind kind, Clock::time_point now) {
    Slot& slot = m_slots[kind];
    const std::string told_before = std::exchange(slot.told, slot.wanted);
    const std::string event = event_of(kind, slot);
    const std::string& hook = m_settings.get("host.hook." + event);
    if (hook.empty()) {
        return;
    }
    slot.killed = false;
    slot.kill_at = now + (m_stop ? kPatienceAtTheEnd : kPatience);
    if (const int error = slot.process.start(hook, event, slot.told, m_environment); error != 0) {
        report(slot, event, std::string("cannot be run: ") + std::strerror(error));
        const bool is_for_now = (error == EAGAIN || error == ENOMEM) && !m_stop;
        slot.rest_until = now + (is_for_now ? kPauseAfterShortage : kPause);
        if (is_for_now) {
            slot.told = told_before;
        }
    }
}

bool Hooks::all_done() const {
    return std::ranges::all_of(m_slots, [](const Slot& slot) {
        return (!slot.process.is_running() || slot.killed) && slot.wanted == slot.told;
    });
}

void Hooks::wait(Clock::time_point now) {
    std::array<pollfd, 1 + kKinds> descriptors{{{m_wake.get(), POLLIN, 0}}};
    std::optional<Clock::time_point> deadline;
    for (size_t i = 0; i < m_slots.size(); ++i) {
        const Slot& slot = m_slots[i];
        descriptors[i + 1] = {slot.process.fd(), POLLIN, 0};
        if (slot.process.is_running() ? !slot.killed : slot.wanted != slot.told) {
            const auto due = slot.process.is_running() ? slot.kill_at : begins_at(slot);
            deadline = deadline ? std::min(*deadline, due) : due;
        }
    }
    int timeout = -1;
    if (deadline) {
        const auto left = std::chrono::ceil<milliseconds>(*deadline - now);
        timeout = static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
    }
    ::poll(descriptors.data(), descriptors.size(), timeout);
    eventfd_t count = 0;
    ::eventfd_read(m_wake.get(), &count);
}

// As its setting is named.
std::string Hooks::event_of(Kind kind, const Slot& slot) {
    return kind == kState ? slot.told : kind == kVolume ? "volume" : "session";
}

// Says what is wrong where the one before was well.
void Hooks::report(Slot& slot, const std::string& event, const std::string& fault) {
    if (!std::exchange(slot.failed, !fault.empty()) && !fault.empty()) {
        syslog(LOG_ERR, "nuvio-host: host.hook.%s: %s", event.c_str(), fault.c_str());
    }
}

}  // namespace nuvio::host
