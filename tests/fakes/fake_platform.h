// The device's platform in a test's hands: configuration items, identity, messages, network status,
// source switch, user interface and the thread pool. Calls are recorded as lines of text; the
// notifications come when the test sends them, on the test's own thread.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/SourceSwitch.h"

namespace fake_platform {

struct Identity {
    bool known = true;
    std::string text;
};

// What the platform answers.
struct Device {
    std::map<std::string, std::string> items;
    std::map<int, std::string> messages;
    Identity friendly_name;
    Identity manufacturer;
    Identity model;
    bool wired = false;
    bool wireless = false;
    bool grants_output = true;
    bool has_ui = true;
    int unreachable_nesh = 0;  // so many checks of the network service fail
};

// An enabled device with credentials.
Device usual_device();

// The usual device, no calls, no listeners.
void reset();
void set(const Device& device);

// The calls so far: "play_my_source 31", "player_state 1", "app_volume 40", "playback_stopped",
// "disconnect_source", "write 51 0", "network_status 1", "ui_clear", "ui_update album=...
// artist=...", in order.
std::vector<std::string> calls();
std::vector<std::string> take_calls();  // and forgets them
size_t count(const std::string& prefix);

void set_message(int id, const std::string& text);
// To whoever has registered for the id, the network or the output.
void notify_message(int id);
void notify_network(int iface, int status);
android::sp<android::BnSourceSwitchListener> source_listener();
// Message ids registered for, and whether anyone listens to the network.
std::vector<int> watched_messages();
bool network_watched();

// Ends the process as a signal would: joinThreadPool returns.
void end_process();

}  // namespace fake_platform
