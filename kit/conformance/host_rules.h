// What the service relies on a host for: a rule a function, in a file a topic, in the order of a
// life, which the last rule ends; and what they have in common.
#pragma once

#include <platform/Kora.h>
#include <platform/Nesh.h>
#include <platform/SourceSwitch.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace nuvio::kit {

// Returns what was seen; throws Broken.
struct Rule {
    const char* name;
    std::string (*check)();
};

// In the order in which they are looked at.
std::vector<Rule> device_rules();
std::vector<Rule> message_rules();
std::vector<Rule> source_rules();
std::vector<Rule> thread_rules();

using namespace android;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The loop's thread makes these calls while music plays: a card waits 125 ms for the next frames.
constexpr milliseconds kLoopLimit{100};
// The start and the command thread wait for these; a key press waits behind them.
constexpr milliseconds kLimit{2000};
constexpr milliseconds kQuiet{200};  // in which nothing may come

class Broken : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline std::chrono::seconds g_patience{10};

inline void expect(bool holds, const std::string& otherwise) {
    if (!holds) {
        throw Broken(otherwise);
    }
}

// Times calls; remembers the longest.
class Stopwatch {
  public:
    template <typename Call>
    auto time(const char* what, milliseconds limit, const Call& call) {
        const auto start = Clock::now();
        if constexpr (std::is_void_v<decltype(call())>) {
            call();
            stop(what, limit, start);
        } else {
            auto result = call();
            stop(what, limit, start);
            return result;
        }
    }
    std::string longest() const {
        return "longest " + std::string(m_what) + " with " + std::to_string(m_longest.count()) +
               " us";
    }

  private:
    void stop(const char* what, milliseconds limit, Clock::time_point start) {
        const auto took =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
        if (took >= m_longest) {
            m_longest = took;
            m_what = what;
        }
        expect(took <= limit, std::string(what) + " takes " + std::to_string(took.count() / 1000) +
                                  " ms; " + std::to_string(limit.count()) + " at most");
    }

    std::chrono::microseconds m_longest{0};
    const char* m_what = "";
};

// What listeners have been told. Any thread.
class Told {
  public:
    void add(int id) {
        const std::scoped_lock lock(m_mutex);
        m_ids.push_back(id);
        m_on_own_thread = m_on_own_thread || std::this_thread::get_id() == m_owner;
        m_changed.notify_all();
    }
    bool await(int id) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, g_patience, [&] {
            return std::find(m_ids.begin(), m_ids.end(), id) != m_ids.end();
        });
    }
    std::vector<int> ids() const {
        const std::scoped_lock lock(m_mutex);
        return m_ids;
    }
    bool on_own_thread() const {
        const std::scoped_lock lock(m_mutex);
        return m_on_own_thread;
    }

  private:
    const std::thread::id m_owner = std::this_thread::get_id();
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<int> m_ids;        // guarded by m_mutex
    bool m_on_own_thread = false;  // guarded by m_mutex
};

class Alerts : public IKoraAlerts {
  public:
    explicit Alerts(std::shared_ptr<Told> record) : m_record(std::move(record)) {}
    ~Alerts() override { *m_gone = true; }
    void MessageBoxAlert(uint16_t id, uint16_t) override {
        if (on_alert) {
            on_alert(id);
        }
        m_record->add(id);
    }
    void MessageBoxAlert(uint16_t, uint16_t, uint32_t) override {}
    std::shared_ptr<std::atomic<bool>> gone() const { return m_gone; }

    std::function<void(int)> on_alert;  // set while nothing is on its way

  private:
    const std::shared_ptr<Told> m_record;
    const std::shared_ptr<std::atomic<bool>> m_gone = std::make_shared<std::atomic<bool>>(false);
};

class NetworkAlerts : public INeshAlerts {
  public:
    explicit NetworkAlerts(std::shared_ptr<std::atomic<bool>> gone) : m_gone(std::move(gone)) {}
    ~NetworkAlerts() override { *m_gone = true; }
    void NeshAlert(uint8_t, uint8_t) override {}

  private:
    const std::shared_ptr<std::atomic<bool>> m_gone;
};

class Source : public BnSourceSwitchListener {
  public:
    explicit Source(std::shared_ptr<std::atomic<bool>> gone) : m_gone(std::move(gone)) {}
    ~Source() override { *m_gone = true; }
    void OnSourceSwitchEvent() override {}
    void OnSourceEvent(const char*) override {}
    void OnVolumeChangeEvent(const char*) override {}

  private:
    const std::shared_ptr<std::atomic<bool>> m_gone;
};

inline bool comes(const std::function<bool()>& condition) {
    const auto end = Clock::now() + g_patience;
    while (!condition() && Clock::now() < end) {
        std::this_thread::sleep_for(milliseconds(5));
    }
    return condition();
}

inline Vector<int> list(std::initializer_list<int> ids) {
    Vector<int> result;
    for (const int id : ids) {
        result.add(id);
    }
    return result;
}

// A listener's stay, which ends with the rule however that ends: what a notification uses is to be
// declared before it.
class Stay {
  public:
    Stay(KORAHelper& kora, const sp<Alerts>& alerts, std::initializer_list<int> ids)
        : m_kora(kora), m_alerts(alerts), m_ids(list(ids)) {
        m_kora.registerListener(m_alerts, m_ids);
    }
    ~Stay() { leave(); }
    Stay(const Stay&) = delete;
    Stay& operator=(const Stay&) = delete;

    // Waits a moment: what has begun goes on.
    void leave() {
        if (m_alerts != nullptr) {
            m_kora.unregisterListener(m_alerts, m_ids);
            m_alerts.clear();
            std::this_thread::sleep_for(kQuiet);
        }
    }

  private:
    KORAHelper& m_kora;
    sp<Alerts> m_alerts;
    Vector<int> m_ids;
};

// The other of two values, so that it is news.
inline void write_other_state(KORAHelper& kora) {
    std::string now;
    kora.readRemoteMessage(KORA_PLAY_STATE, now);
    expect(kora.writeRemoteMessage(KORA_PLAY_STATE, now == "2" ? "1" : "2", 0),
           "message 51 is not taken");
}

}  // namespace nuvio::kit
