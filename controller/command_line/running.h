// What commands ask of the controller that runs, over its API: where it is NUVIO_CONTROLLER and
// NUVIO_CONTROLLER_PASSWORD say.
//
// Threads  the main thread's; each call waits for the answer, 40 s at most.
// Errors   Failure, with what the controller says.
#pragma once

#include <cstdint>
#include <string>

#include "common/json/json.h"

namespace nuvio::controller {

// Ends the command with status 1 and a line.
struct Failure {
    std::string text;
};
// With status 2, what is wrong where that is known, and the command's usage.
struct Misuse {
    std::string text = {};
};

// The answer's document; `path` is below /api/.
JsonPtr ask_controller(const char* method, const std::string& path, const std::string& body = {});
// "playlists/Evening/rename", of any name.
std::string path_below(const std::string& kind, const std::string& one, const char* what);
// Of a device by name or id, "devices/Kitchen/play".
std::string device_path(const std::string& device, const char* what);
void command_device(const std::string& device, const char* command, JsonPtr arguments);
// What the controller knows once it is more than `version`, within 25 s; -1: at once. `device`, a
// name or an id: of that one alone.
JsonPtr ask_state(const std::string& device = {}, int64_t version = -1);
// Of such a document of one device; borrowed from it.
const cJSON* device_in(const cJSON* state);
// A text as a terminal may have it; empty: there is none.
std::string shown(const cJSON* object, const char* key);

}  // namespace nuvio::controller
