// The device's platform in a test's hands: configuration, identity, messages, network status,
// source switch, user interface and thread pool. Calls are recorded as lines of text; notifications
// come when the test sends them, on its own thread.
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "fakes/locked.h"
#include "platform/Kora.h"
#include "platform/Nesh.h"
#include "platform/SourceSwitch.h"

namespace fake_platform {

struct Identity {
    bool known = true;
    std::string text;
};

struct State {
    State();  // enabled, with credentials and a wired network

    // What the platform answers.
    std::map<std::string, std::string> items;
    std::map<int, std::string> messages;
    Identity friendly_name, manufacturer, model;
    bool wired = true;
    bool grants_output = true;
    bool has_ui = true;
    int unreachable_nesh = 0;     // so many checks of the network service fail
    int unreachable_kora = 0;     // the same of the message service
    bool loses_messages = false;  // reading and writing them fails
    std::function<void()> in_each_call;
    std::function<void()> when_asked_for_output;  // within the call

    // Who listens.
    android::sp<android::IKoraAlerts> kora;
    std::vector<int> kora_ids;
    android::sp<android::INeshAlerts> nesh;

    // "play_my_source 31", "player_state 1", "app_volume 40", "playback_stopped",
    // "disconnect_source", "write 51 0", "network_status 1", "ui_clear", "ui_update album=... ..."
    std::vector<std::string> calls;

    std::vector<std::string> take_calls() { return std::exchange(calls, {}); }
    size_t count(const std::string& prefix) const {
        return static_cast<size_t>(std::ranges::count_if(
            calls, [&](const std::string& call) { return call.starts_with(prefix); }));
    }
};

using Locked = fakes::Locked<State>;
Locked state();
void reset();

// To whoever has registered for it; to nobody otherwise.
void notify_message(int id);
void notify_network(int iface, int status);
// Ends the process as a signal would: joinThreadPool returns.
void end_process();

}  // namespace fake_platform
