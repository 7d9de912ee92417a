// What a core does when a key is pressed or a setting changed.
#include <algorithm>
#include <string>
#include <vector>

#include "conformance/core_rules.h"

namespace nuvio::kit {
namespace {

std::string check_pause(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    size_t since = device.record().mark();
    expect_answer("pause", device.loop().command(nuv_connect_pause_playback));
    device.await("pause", since);
    device.await_state(NUV_PLAYBACK_STATE_PAUSED, since);
    since = device.record().mark();
    device.loop().command(
        nuv_connect_pause_playback);  // already: whatever it answers, it tells nobody
    device.loop().run_for(kQuiet);
    if (device.record().find("pause", since) != nullptr) {
        throw Broken("a second pause reaches the renderer");
    }
    const uint64_t before = device.renderer().taken();
    expect_answer("resume", device.loop().command(nuv_connect_resume_playback));
    device.await("resume", since);
    device.await_state(NUV_PLAYBACK_STATE_PLAYING, since);
    device.renderer().take_all();
    device.loop().run_until("sound after the pause",
                            [&] { return device.renderer().taken() > before; });
    return "paused and resumed, the state told and answered each time";
}

// Two presses, both before the loop gets to see one.
std::string check_presses(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run, UINT64_MAX / 2);
    for (int i = 0; i < 2; ++i) {
        device.loop().call(nuv_connect_pause_playback);
        device.loop().call(nuv_connect_pause_playback);
        device.loop().call(nuv_connect_resume_playback);
        device.loop().call(nuv_connect_stop_playback);
        device.loop().call(nuv_connect_stop_playback);
    }
    device.loop().run_for(kQuiet);
    return "calls in a row reach the renderer in the states they are for";
}

std::string seek_to(Device& device, uint64_t position) {
    const size_t since = device.record().mark();
    const nuv_error answer = device.loop().command(
        [=](nuv_connect* core) { return nuv_connect_seek_time(core, position); });
    if (answer == NUV_ERROR_INVALID_STATE) {
        throw NotSeen("the core does not seek");
    }
    expect_answer("seek", answer);
    const Event reached = device.await("seeked", since);
    expect_order(device, since, {"seek", "seeked"});
    return ms(position) + " to " + ms(reached.value);
}

std::string check_seek(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    std::string seen = seek_to(device, 2 * kMillisecondsIn);
    const uint64_t before = device.renderer().taken();
    device.renderer().take_only(1000);
    device.loop().run_until("sound after the seek",
                            [&] { return device.renderer().taken() > before; });
    const size_t since = device.record().mark();
    expect_answer("pause", device.loop().command(nuv_connect_pause_playback));
    device.await_state(NUV_PLAYBACK_STATE_PAUSED, since);
    seen += "; paused, " + seek_to(device, kMillisecondsIn / 2);
    device.renderer().take_all();
    expect_answer("resume", device.loop().command(nuv_connect_resume_playback));
    device.await_state(NUV_PLAYBACK_STATE_PLAYING, since);
    device.await("finished", since);
    const Track& track = device.renderer().tracks().begin()->second;
    const uint64_t heard_ms = track.start_ms + track.taken / track.frame_bytes() * kMillisecondsIn /
                                                   track.info.format.sample_rate;
    const uint64_t length = track.info.duration_ms;
    if (heard_ms + 50 < length || heard_ms > length + 50) {
        throw Broken("after seeks a track of " + ms(length) + " ends at " + ms(heard_ms));
    }
    return seen + "; the track then ends where it is to end";
}

std::string check_skip(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    size_t since = device.record().mark();
    if (device.loop().command(nuv_connect_next_track) != NUV_ERROR_OK) {
        if (device.renderer().next_available()) {
            throw Broken("next is available, but refused");
        }
        throw NotSeen("there is no next track");
    }
    device.renderer().take_only(1000);
    device.await_state(NUV_PLAYBACK_STATE_PLAYING, since);
    expect_order(device, since, {"stop", "dispose", "started", "initiate"});
    since = device.record().mark();
    expect_answer("previous", device.loop().command(nuv_connect_previous_track));
    device.loop().run_until("\"initiate\" or \"seeked\"", [&] {
        return device.record().find("initiate", since) != nullptr ||
               device.record().find("seeked", since) != nullptr;
    });
    return "next stops, disposes, starts and initiates; previous goes back";
}

std::string check_volume(const Run& run) {
    Device device(run.breaches, run.patience);
    device.await("server", 0);
    for (const uint32_t wanted : {37U, 0U, 100U}) {
        const size_t since = device.record().mark();
        expect_answer("volume", device.loop().command([=](nuv_connect* core) {
            return nuv_connect_set_volume(core, wanted);
        }));
        device.loop().run_until("\"volume\" of " + std::to_string(wanted), [&] {
            const Event* const told = device.record().find("volume", since);
            return told != nullptr && told->value == wanted;
        });
        uint32_t asked = 0;
        device.loop().command(
            [&](nuv_connect* core) { return nuv_connect_get_volume(core, &asked); });
        if (asked != wanted) {
            throw Broken("set to " + std::to_string(wanted) + " it answers " +
                         std::to_string(asked));
        }
    }
    const size_t since = device.record().mark();
    const auto too_loud = [](nuv_connect* core) { return nuv_connect_set_volume(core, 101); };
    if (device.loop().command(too_loud) == NUV_ERROR_OK) {
        throw Broken("a volume of 101 is taken");
    }
    for (const bool wanted : {true, false}) {
        expect_answer("mute", device.loop().command([=](nuv_connect* core) {
            return nuv_connect_set_mute_state(core, wanted);
        }));
        device.loop().run_until("\"mute\"", [&] {
            return std::any_of(
                device.record().events().begin() + static_cast<std::ptrdiff_t>(since),
                device.record().events().end(), [&](const Event& event) {
                    return event.what == "mute" && event.value == uint64_t{wanted};
                });
        });
    }
    return "37, 0, 100, mute and unmute told back and answered; 101 refused";
}

std::string check_modes(const Run& run) {
    Device device(run.breaches, run.patience);
    device.await("server", 0);
    size_t since = device.record().mark();
    const auto shuffle = [](nuv_connect* core) { return nuv_connect_set_shuffle_mode(core, true); };
    const auto repeat = [](nuv_connect* core) {
        return nuv_connect_set_loop_mode(core, NUV_LOOP_MODE_ALL);
    };
    if (device.loop().command(shuffle) != NUV_ERROR_OK ||
        device.loop().command(repeat) != NUV_ERROR_OK) {
        throw NotSeen("the core refuses them");
    }
    device.loop().run_until("both modes", [&] {
        const auto last = [&](const char* what) {
            uint64_t value = 0;
            for (size_t i = since; i < device.record().events().size(); ++i) {
                value = device.record().events()[i].what == what ? device.record().events()[i].value
                                                                 : value;
            }
            return value;
        };
        return last("shuffle") == 1 && last("loop mode") == NUV_LOOP_MODE_ALL;
    });
    bool shuffled = false;
    nuv_loop_mode mode = NUV_LOOP_MODE_OFF;
    device.loop().command([&](nuv_connect* core) {
        nuv_connect_get_shuffle_mode(core, &shuffled);
        return nuv_connect_get_loop_mode(core, &mode);
    });
    if (!shuffled || mode != NUV_LOOP_MODE_ALL) {
        throw Broken("told of both, asked it says otherwise");
    }
    return "shuffle and repeat told back and answered";
}

std::string check_name(const Run& run) {
    Device device(run.breaches, run.patience);
    device.await("advertise", 0);
    const size_t since = device.record().mark();
    if (device.loop().command([](nuv_connect* core) {
            return nuv_connect_set_device_name(core, "Another");
        }) != NUV_ERROR_OK) {
        throw NotSeen("the core refuses another name");
    }
    device.await("advertise", since);
    expect_order(device, since, {"stop advertising", "advertise"});
    return "advertised anew";
}

}  // namespace

std::vector<Rule> control_rules() {
    return {
        {"pause", check_pause}, {"presses", check_presses}, {"seek", check_seek},
        {"skip", check_skip},   {"volume", check_volume},   {"modes", check_modes},
        {"name", check_name},
    };
}

}  // namespace nuvio::kit
