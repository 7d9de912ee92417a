// The threads of a host, and its end.
#include <platform/Environment.h>
#include <platform/Thread.h>
#include <unistd.h>

#include <csignal>

#include "conformance/host_rules.h"

namespace nuvio::kit {
namespace {

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
            const sp<Alerts> alerts = new Alerts(std::make_shared<Told>());
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

// A host that takes SIGTERM has blocked it by then; any other one's process is ended by it at once.
bool takes_end_signals() {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, SIGTERM) == 1;
}

// SIGTERM may have come before. No notification begins after the return.
std::string check_end() {
    ProcessState::self()->startThreadPool();
    if (!takes_end_signals()) {
        return "SIGTERM is left alone, and ends the process";
    }
    KORAHelper kora;
    const auto record = std::make_shared<Told>();
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

}  // namespace

std::vector<Rule> thread_rules() {
    return {
        {"thread", check_thread},
        {"any-thread", check_any_thread},
        {"end", check_end},
    };
}

}  // namespace nuvio::kit
