#include "conformance/core_rules.h"

namespace nuvio::kit {

// Joins a session as "conformance"; with an error where that failed.
void join(Device& device, const Run& run, bool become_active) {
    const nuv_error error = device.loop().call([&](nuv_connect* core) {
        return nuv_connect_connect(core, "conformance", run.endpoint.c_str(), "token", 0,
                                   "ws://localhost:9/", "token", 0, become_active);
    });
    if (error != NUV_ERROR_OK) {
        throw Broken(std::string("connect answers ") + nuv_error_to_string(error));
    }
}

// A session whose first track plays, of which no more than some frames are taken.
void play(Device& device, const Run& run, uint64_t frames) {
    const size_t since = device.record().mark();
    device.renderer().take_only(frames);
    join(device, run);
    device.await_state(NUV_PLAYBACK_STATE_PLAYING, since);
}

void expect_answer(const std::string& what, nuv_error answer) {
    if (answer != NUV_ERROR_OK) {
        throw Broken(what + " answers " + nuv_error_to_string(answer));
    }
}

// The order in which events are to come since the mark.
void expect_order(const Device& device, size_t since, const std::vector<std::string>& names) {
    size_t place = since;
    for (const std::string& name : names) {
        const Event* const event = device.record().find(name, place);
        if (event == nullptr) {
            throw Broken("\"" + name + "\" does not come after what precedes it: " + names.front() +
                         " ... " + names.back());
        }
        place = static_cast<size_t>(event - device.record().events().data()) + 1;
    }
}

}  // namespace nuvio::kit
