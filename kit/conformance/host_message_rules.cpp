// The numbered messages, and who is told of them.
#include <platform/Thread.h>

#include "common/number.h"
#include "conformance/host_rules.h"

namespace nuvio::kit {
namespace {

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
    const auto record = std::make_shared<Told>();
    const auto others = std::make_shared<Told>();
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
    const auto record = std::make_shared<Told>();
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

}  // namespace

std::vector<Rule> message_rules() {
    return {
        {"messages", check_messages},
        {"listeners", check_listeners},
        {"waiting", check_waiting},
    };
}

}  // namespace nuvio::kit
