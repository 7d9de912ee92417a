// What the service relies on a host for, a rule a function, in one file, long as it is, in the
// order of a life: the last one ends it.
#include <platform/Environment.h>
#include <platform/Kora.h>
#include <platform/Nesh.h>
#include <platform/SourceSwitch.h>
#include <platform/Thread.h>
#include <platform/UIManager.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/number.h"
#include "common/utf8.h"
#include "conformance/report.h"

namespace nuvio::kit {
namespace {

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

std::chrono::seconds g_patience{10};

void expect(bool holds, const std::string& otherwise) {
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
class Record {
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
    explicit Alerts(std::shared_ptr<Record> record) : m_record(std::move(record)) {}
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
    const std::shared_ptr<Record> m_record;
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

bool comes(const std::function<bool()>& condition) {
    const auto end = Clock::now() + g_patience;
    while (!condition() && Clock::now() < end) {
        std::this_thread::sleep_for(milliseconds(5));
    }
    return condition();
}

Vector<int> list(std::initializer_list<int> ids) {
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
void write_other_state(KORAHelper& kora) {
    std::string now;
    kora.readRemoteMessage(KORA_PLAY_STATE, now);
    expect(kora.writeRemoteMessage(KORA_PLAY_STATE, now == "2" ? "1" : "2", 0),
           "message 51 is not taken");
}

// ---- Rules --------------------------------------------------------------------------------------

std::string check_items() {
    Stopwatch watch;
    std::array<char, kEnvItemBufferSize + 16> buffer{};
    for (const char* key : {kFeatureNuvioConnect, KFeatureNuvioConnectLog,
                            KFeatureNuvioConnectHttpPort, KFeatureNuvioConnectApp_id,
                            KFeatureNuvioConnectApp_secret, KFeatureNuvioConnectVolume_Element,
                            KFeatureNuvioConnectVolume_Device, kALSAOutputDeviceName, kOutputFS}) {
        std::string text = "left from before";
        watch.time("an item", kLimit, [&] { GetEnvItemByName(key, text); });
        expect(text != "left from before", std::string(key) + ": the text is left as it was");
        expect(nuvio::is_utf8(text), std::string(key) + " is not UTF-8");
        buffer.fill('#');
        GetEnvItemByName(key, buffer.data());
        expect(std::memchr(buffer.data(), '\0', kEnvItemBufferSize) != nullptr &&
                   buffer[kEnvItemBufferSize] == '#',
               std::string(key) + ": the plain form writes beyond 64 bytes");
        expect(text.substr(0, kEnvItemBufferSize - 1) == buffer.data(),
               std::string(key) + ": the two forms differ");
    }
    std::string unset = "left from before";
    GetEnvItemByName("there.is.no.such.item", unset);
    expect(unset.empty(), "an item that is not set does not read empty");
    std::string on;
    GetEnvItemByName(kFeatureNuvioConnect, on);
    return watch.longest() + "; the service is " + (nuvio::leading_number(on) != 0 ? "on" : "off");
}

std::string check_identity() {
    std::string seen;
    for (const auto get : {getFriendlyName, getManufacturer, getModel}) {
        std::string text = "left from before";
        const bool known = get(text);
        expect(text != "left from before", "a text is left as it was");
        expect(known || text.empty(), "unknown, but a text");
        expect(nuvio::is_utf8(text), "a text is not UTF-8");
        seen += (seen.empty() ? "\"" : ", \"") + text + "\"";
    }
    return seen;
}

std::string check_reach() {
    Stopwatch watch;
    KORAHelper kora;
    NeshHelper nesh;
    expect(comes([&] {
               return watch.time("KORA", kLimit, [&] { return kora.verifyConnection_l(); });
           }),
           "KORA is never reachable: the service waits for it without end");
    expect(comes([&] {
               return watch.time("Nesh", kLimit, [&] { return nesh.verifyConnection_l(); });
           }),
           "Nesh is never reachable: the service waits for it without end");
    return watch.longest();
}

std::string check_network() {
    Stopwatch watch;
    NeshHelper nesh;
    std::string seen;
    for (const int iface : {1, 2, 3, 0, -1}) {
        int status = 7;
        watch.time("a status", kLimit, [&] { nesh.getNetworkStatus(iface, &status); });
        expect(status != 7, "the status is left as it was");
        expect((iface == 1 || iface == 2) || status == 0, "an interface that is none is usable");
        seen += iface == 1   ? (status != 0 ? "wired up, " : "wired down, ")
                : iface == 2 ? (status != 0 ? "wireless up; " : "wireless down; ")
                             : "";
    }
    const auto gone = std::make_shared<std::atomic<bool>>(false);
    sp<INeshAlerts> alerts = new NetworkAlerts(gone);
    nesh.registerListener(alerts);
    expect(alerts->getStrongCount() > 1, "the listener is not kept");
    nesh.unregisterListener(alerts);
    alerts.clear();
    expect(comes([&] { return gone->load(); }), "a listener that has left is kept for ever");
    return seen + watch.longest();
}

std::string check_messages() {
    Stopwatch watch;
    KORAHelper kora;
    const auto read = [&](int id) {
        std::string text = "left from before";
        const bool known =
            watch.time("a read", kLoopLimit, [&] { return kora.readRemoteMessage(id, text); });
        expect(known || text.empty(), "message " + std::to_string(id) + ": unknown, but a text");
        return text;
    };
    const std::string mute = read(KORA_MUTE);
    expect(mute.empty() || mute == "MUTE" || mute == "UNMUTE", "message 63 is \"" + mute + "\"");
    const std::string volume = read(KORA_VOLUME);
    expect(volume.empty() || nuvio::to_number<unsigned>(volume).value_or(101) <= 100,
           "message 64 is \"" + volume + "\", no percentage");
    read(KORA_DEVICE_NAME);
    read(65000);
    for (int i = 0; i < 50; ++i) {
        watch.time("a position", kLoopLimit, [&] {
            return kora.writeRemoteMessage(KORA_PLAYBACK_POSITION, std::to_string(i * 1000), 0);
        });
    }
    for (const char* state : {"0", "2", "1"}) {
        expect(watch.time("a play state", kLimit,
                          [&] { return kora.writeRemoteMessage(KORA_PLAY_STATE, state, 0); }),
               "message 51 is not taken");
        expect(read(KORA_PLAY_STATE) == state, "message 51 does not hold what was written");
    }
    return watch.longest();
}

std::string check_listeners() {
    ProcessState::self()->startThreadPool();
    ProcessState::self()->startThreadPool();  // does nothing
    KORAHelper kora;
    const auto record = std::make_shared<Record>();
    const auto others = std::make_shared<Record>();
    sp<Alerts> alerts = new Alerts(record);
    const auto gone = alerts->gone();
    Vector<int> ids = list({KORA_PLAY_STATE, KORA_DEVICE_NAME});
    Vector<int> other_ids = list({KORA_DEVICE_NAME});
    const sp<Alerts> other = new Alerts(others);
    kora.registerListener(alerts, ids);
    kora.registerListener(other, other_ids);
    expect(alerts->getStrongCount() > 1, "the listener is not kept");
    write_other_state(kora);
    expect(record->await(KORA_PLAY_STATE), "a listener is not told of a change of message 51");
    expect(!record->on_own_thread(), "a listener is told from inside a call");
    // Of three changes the first is being taken when it leaves: the others come no more.
    const auto taken = std::make_shared<std::atomic<bool>>(false);
    alerts->on_alert = [taken](int) {
        *taken = true;
        std::this_thread::sleep_for(kQuiet);
    };
    for (int i = 0; i < 3; ++i) {
        write_other_state(kora);
    }
    expect(comes([&] { return taken->load(); }), "no notification");
    kora.unregisterListener(alerts, ids);
    const size_t told = record->ids().size() + 1;
    write_other_state(kora);
    std::this_thread::sleep_for(3 * kQuiet);
    expect(record->ids().size() <= told, "a listener that has left is still told");
    expect(others->ids().empty(), "a listener is told of an id that it did not name");
    kora.unregisterListener(other, other_ids);
    alerts.clear();
    expect(comes([&] { return gone->load(); }), "a listener that has left is kept for ever");
    return "told of its ids, on another thread, until it leaves; then let go of";
}

// The service's listener may wait for seconds, and calls back.
std::string check_waiting() {
    ProcessState::self()->startThreadPool();
    Stopwatch watch;
    KORAHelper kora;
    const auto record = std::make_shared<Record>();
    std::mutex gate;
    std::atomic<bool> called{false};
    std::atomic<bool> read_back{false};
    const sp<Alerts> alerts = new Alerts(record);
    const std::thread::id own = std::this_thread::get_id();
    std::atomic<bool> told_in_call{false};
    alerts->on_alert = [&](int id) {
        if (std::this_thread::get_id() == own) {
            told_in_call = called = true;  // to wait would be for ever
            return;
        }
        std::string text;
        KORAHelper inside;
        inside.readRemoteMessage(id, text);
        read_back = true;
        called = true;
        const std::scoped_lock wait(gate);
    };
    Stay stay(kora, alerts, {KORA_PLAY_STATE});
    std::unique_lock closed(gate);
    write_other_state(kora);
    expect(comes([&] { return called.load(); }), "no notification");
    expect(!told_in_call, "a listener is told from inside a call");
    const auto gone = std::make_shared<std::atomic<bool>>(false);
    const sp<BnSourceSwitchListener> source = new Source(gone);
    for (int i = 0; i < 20; ++i) {
        std::string text;
        watch.time("a position", kLoopLimit, [&] {
            return kora.writeRemoteMessage(KORA_PLAYBACK_POSITION, std::to_string(i), 0);
        });
        watch.time("a read", kLoopLimit, [&] { return kora.readRemoteMessage(KORA_VOLUME, text); });
        watch.time("a change that is to be told", kLimit, [&] { write_other_state(kora); });
        watch.time("a report", kLimit,
                   [&] { SourceSwitchClient::UpdatePlayerState(source, PLAY_STATE_PAUSED); });
    }
    closed.unlock();
    expect(comes([&] { return read_back.load(); }), "a listener cannot call back");
    return "beside a listener that waits, " + watch.longest();
}

std::string check_source() {
    Stopwatch watch;
    KORAHelper kora;
    const auto gone = std::make_shared<std::atomic<bool>>(false);
    sp<BnSourceSwitchListener> source = new Source(gone);
    const auto ask = [&] {
        return SourceSwitchClient::PlayMySource(source, SOURCE_TYPE_NUVIO_CONNECT);
    };
    const bool granted = watch.time("PlayMySource", kLimit, ask);
    expect(source->getStrongCount() > 1, "the listener is not kept, granted or not");
    std::string number;
    kora.readRemoteMessage(KORA_CURRENT_SOURCE, number);
    if (granted) {
        expect(nuvio::leading_number(number) != 0, "the output is granted, but message 50 is \"" +
                                                       number + "\": volume would not be reported");
    }
    for (const EPlayState state : {PLAY_STATE_PLAYING, PLAY_STATE_PAUSED, PLAY_STATE_STOPPED}) {
        watch.time("UpdatePlayerState", kLimit,
                   [&] { SourceSwitchClient::UpdatePlayerState(source, state); });
    }
    for (const char* volume : {"0", "37", "100"}) {
        watch.time("UpdateAppVolume", kLimit, [&] { SourceSwitchClient::UpdateAppVolume(volume); });
    }
    for (const char* mute : {"MUTE", "UNMUTE"}) {
        expect(watch.time("message 63", kLimit,
                          [&] { return kora.writeRemoteMessage(KORA_MUTE, mute, 0); }),
               "message 63 is not taken");
    }
    // As a source switch and a standby do it, one after the other.
    for (int i = 0; i < 2; ++i) {
        watch.time("NotifyPlaybackStopped", kLimit,
                   [&] { SourceSwitchClient::NotifyPlaybackStopped(source); });
        watch.time("DisconnectMySource", kLimit,
                   [&] { SourceSwitchClient::DisconnectMySource(source); });
    }
    source.clear();
    expect(comes([&] { return gone->load(); }), "the listener is kept after its source is gone");
    return std::string(granted ? "granted" : "refused") + "; " + watch.longest();
}

std::string check_display() {
    Stopwatch watch;
    expect(IUIManager::asInterface(nullptr) == nullptr, "of null there is an interface");
    const sp<IServiceManager> services = defaultServiceManager();
    expect(services != nullptr, "there is no service manager");
    const auto gone = std::make_shared<std::atomic<bool>>(false);
    const sp<BnSourceSwitchListener> foreign = new Source(gone);
    expect(IUIManager::asInterface(sp<IBinder>(foreign.get())) == nullptr,
           "another service's binder counts as the user interface's");
    expect(services->getService("there.is.no.such.service") == nullptr,
           "a service that is none has a binder");
    const sp<IUIManager> manager =
        IUIManager::asInterface(services->getService(IUIManager::kServiceName));
    if (manager == nullptr) {
        return "no user interface; the service does without";
    }
    const sp<AMessage> info = new AMessage(0, 0);
    for (const char* key : {"album", "artist", "trackName", "coverArt", "codec", "sampleRate",
                            "bitdepth", "channels"}) {
        info->setString(key, "T\xC3\xA4xt", 5);
    }
    for (const char* key :
         {"totalTime", "repeat", "shuffle", "next", "prev", "currentSource", "seek"}) {
        info->setInt32(key, 1);
    }
    for (int i = 0; i < 20; ++i) {
        watch.time("updatePlayBackInfo", kLimit, [&] { manager->updatePlayBackInfo(info); });
        watch.time("clearPlayBackInfo", kLimit,
                   [&] { manager->clearPlayBackInfo(new AMessage(0, 0)); });
    }
    expect(info->getStrongCount() <= 2, "messages are kept");
    return watch.longest();
}

class Rounds : public Thread {
  public:
    explicit Rounds(std::shared_ptr<std::atomic<int>> rounds) : m_rounds(std::move(rounds)) {}

  private:
    bool threadLoop() override { return ++*m_rounds < 3; }
    const std::shared_ptr<std::atomic<int>> m_rounds;
};

std::string check_thread() {
    const auto rounds = std::make_shared<std::atomic<int>>(0);
    const sp<Rounds> thread = new Rounds(rounds);
    thread->join();  // it has not run yet: returns at once
    expect(thread->run("NuvioConnectStart", -16, 0) == 0, "a thread cannot be started");
    thread->join();
    expect(*rounds == 3, "threadLoop ran " + std::to_string(*rounds) + " times, not until false");
    expect(thread->run("NuvioConnectStart", 0, 0) < 0, "a thread is started twice");
    const auto alone = std::make_shared<std::atomic<int>>(0);
    sp<Rounds>(new Rounds(alone))->run("alone");
    expect(comes([&] { return *alone == 3; }), "a thread whose owner is gone does not run");
    return "runs until false, once, and keeps itself alive";
}

std::string check_any_thread() {
    std::atomic<bool> failed{false};
    std::vector<std::thread> threads;
    const auto end = Clock::now() + milliseconds(500);
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&failed, end, i] {
            const sp<Alerts> alerts = new Alerts(std::make_shared<Record>());
            const auto gone = std::make_shared<std::atomic<bool>>(false);
            const sp<BnSourceSwitchListener> source = new Source(gone);
            KORAHelper kora;
            NeshHelper nesh;
            Vector<int> ids = list({KORA_PLAY_STATE, KORA_MUTE});
            while (Clock::now() < end) {
                std::string text;
                int status = 0;
                kora.registerListener(alerts, ids);
                kora.writeRemoteMessage(KORA_PLAY_STATE, std::to_string(i % 3), 0);
                kora.readRemoteMessage(KORA_PLAY_STATE, text);
                failed = failed || text.size() != 1;
                GetEnvItemByName(kOutputFS, text);
                nesh.getNetworkStatus(1, &status);
                SourceSwitchClient::PlayMySource(source, SOURCE_TYPE_NUVIO_CONNECT);
                SourceSwitchClient::UpdateAppVolume("30");
                SourceSwitchClient::DisconnectMySource(source);
                kora.unregisterListener(alerts, ids);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    expect(!failed, "a message read beside writes is torn");
    return "every call from four threads at once";
}

// SIGTERM, which the process has blocked, may have come before. No notification begins after the
// return.
std::string check_end() {
    ProcessState::self()->startThreadPool();
    KORAHelper kora;
    const auto record = std::make_shared<Record>();
    const sp<Alerts> alerts = new Alerts(record);
    const Stay stay(kora, alerts, {KORA_PLAY_STATE});
    kill(getpid(), SIGTERM);
    const auto start = Clock::now();
    IPCThreadState::self()->joinThreadPool(true);
    const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    expect(took < kLimit, "joinThreadPool takes " + std::to_string(took.count()) + " ms to return");
    const size_t told = record->ids().size();
    write_other_state(kora);
    std::this_thread::sleep_for(kQuiet);
    expect(record->ids().size() == told, "a notification begins after joinThreadPool's return");
    return "returned " + std::to_string(took.count()) + " ms after SIGTERM, nothing told since";
}

struct Rule {
    const char* name;
    std::string (*check)();
};

constexpr std::array kRules = {
    Rule{"items", check_items},           Rule{"identity", check_identity},
    Rule{"reach", check_reach},           Rule{"network", check_network},
    Rule{"messages", check_messages},     Rule{"listeners", check_listeners},
    Rule{"waiting", check_waiting},       Rule{"source", check_source},
    Rule{"display", check_display},       Rule{"thread", check_thread},
    Rule{"any-thread", check_any_thread}, Rule{"end", check_end},
};

std::vector<std::string> names() {
    std::vector<std::string> result;
    for (const Rule& rule : kRules) {
        result.emplace_back(rule.name);
    }
    return result;
}

void check_all(Report& report, const Options& options) {
    g_patience = std::chrono::seconds(options.patience_s);
    for (const Rule& rule : kRules) {
        if (!options.wants(rule.name)) {
            continue;
        }
        report.begin(rule.name, 3 * options.patience_s);
        try {
            report.line(rule.name, Verdict::holds, rule.check());
        } catch (const Broken& broken) {
            report.line(rule.name, Verdict::broken, broken.what());
        }
    }
}

}  // namespace
}  // namespace nuvio::kit

extern "C" __attribute__((visibility("default"))) nuvio::kit::Rules nuvio_rules() {
    return {nuvio::kit::names(), nuvio::kit::check_all};
}
