// What the service relies on a core for, a rule a function. Each has a core of its own. They stand
// in one file, long as it is, in the order in which they are looked at.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "conformance/core_device.h"
#include "conformance/report.h"
#include "conformance/wav_folder.h"

namespace nuvio::kit {
namespace {

using std::chrono::milliseconds;

constexpr auto kQuiet = milliseconds(200);  // in which nothing may come
constexpr uint64_t kMillisecondsIn = 1000;

struct Run {
    Breaches& breaches;
    std::string endpoint;
    std::chrono::seconds patience;
};

std::string ms(uint64_t value) {
    return std::to_string(value) + " ms";
}

// Joins a session as "conformance"; with an error where that failed.
void join(Device& device, const Run& run, bool become_active = true) {
    const nuv_error error = device.call([&](nuv_connect* core) {
        return nuv_connect_connect(core, "conformance", run.endpoint.c_str(), "token", 0,
                                   "ws://localhost:9/", "token", 0, become_active);
    });
    if (error != NUV_ERROR_OK) {
        throw Broken(std::string("connect answers ") + nuv_error_to_string(error));
    }
}

// A session whose first track plays, of which no more than some frames are taken.
void play(Device& device, const Run& run, uint64_t frames = 4410) {
    const size_t since = device.mark();
    device.take_only(frames);
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
        const Event* const event = device.find(name, place);
        if (event == nullptr) {
            throw Broken("\"" + name + "\" does not come after what precedes it: " + names.front() +
                         " ... " + names.back());
        }
        place = static_cast<size_t>(event - device.events().data()) + 1;
    }
}

// ---- Rules --------------------------------------------------------------------------------------

std::string check_texts(const Run&) {
    for (int value = -1; value < 9; ++value) {
        if (nuv_error_to_string(static_cast<nuv_error>(value)) == nullptr ||
            nuv_audio_quality_to_string(static_cast<nuv_audio_quality>(value)) == nullptr ||
            nuv_device_type_to_string(static_cast<nuv_device_type>(value)) == nullptr ||
            nuv_loop_mode_to_string(static_cast<nuv_loop_mode>(value)) == nullptr ||
            nuv_playback_state_to_string(static_cast<nuv_playback_state>(value)) == nullptr) {
            throw Broken("a text of the value " + std::to_string(value) + " is null");
        }
    }
    if (nuv_audio_sample_format_size(NUV_AUDIO_SAMPLE_FORMAT_16_BIT) != 2 ||
        nuv_audio_sample_format_size(NUV_AUDIO_SAMPLE_FORMAT_24_BIT) != 4) {
        throw Broken("a sample is not 2 bytes, at 24 bit 4");
    }
    return std::string("SDK ") + nuv_connect_get_sdk_version();
}

// As the service does between create and the loop's first pass.
std::string check_services(const Run& run) {
    Device device(run.breaches, run.patience);
    const auto set_up = [](nuv_connect* core) {
        const nuv_error volume = nuv_connect_set_volume(core, 50);
        const nuv_error mute = nuv_connect_set_mute_state(core, false);
        return volume != NUV_ERROR_OK ? volume : mute;
    };
    expect_answer("a new core, given the mixer's volume and mute state,", device.call(set_up));
    device.await("server", 0);
    device.await("advertise", 0);
    const char* uuid = nullptr;
    expect_answer("the query for the device's UUID", device.call([&](nuv_connect* core) {
        return nuv_connect_get_device_uuid(core, &uuid);
    }));
    if (uuid == nullptr || *uuid == '\0') {
        throw Broken("the device has no UUID");
    }
    return std::string("server and advertising are asked for; UUID ") + uuid;
}

std::string check_without_session(const Run& run) {
    Device device(run.breaches, run.patience);
    device.await("server", 0);
    const size_t since = device.mark();
    for (const auto control : {nuv_connect_pause_playback, nuv_connect_resume_playback,
                               nuv_connect_stop_playback, nuv_connect_next_track}) {
        device.command(control);
    }
    device.command([](nuv_connect* core) { return nuv_connect_seek_time(core, 0); });
    expect_answer("leaving no session",
                  device.command(nuv_connect_deactivate_and_disconnect_renderer));
    const char* session = "as before";
    device.call([&](nuv_connect* core) { return nuv_connect_get_session_id(core, &session); });
    if (std::string(session) != "as before") {
        throw Broken("there is a session id without a session");
    }
    device.run_for(kQuiet);
    for (const char* event : {"initiate", "pause", "resume", "stop", "seek"}) {
        if (device.find(event, since) != nullptr) {
            throw Broken(std::string("the renderer is told to ") + event);
        }
    }
    return "control calls do nothing";
}

std::string check_session(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    device.await("metadata", 0);
    expect_order(device, 0, {"started", "initiate", "state"});
    bool active = false;
    nuv_stream_metadata texts{};
    const uint64_t id = device.tracks().begin()->first;
    expect_answer("the query for the state", device.command([&](nuv_connect* core) {
        return nuv_connect_get_renderer_active_state(core, &active);
    }));
    // Asked on the loop's thread, where the stream cannot be disposed of meanwhile.
    expect_answer("the query for the texts", device.call([&](nuv_connect* core) {
        return nuv_connect_get_stream_metadata(core, id, &texts);
    }));
    const char* session = nullptr;
    device.call([&](nuv_connect* core) { return nuv_connect_get_session_id(core, &session); });
    if (!active || session == nullptr || std::string(session) != "conformance") {
        throw Broken("a session that plays is not active, or not the one that was joined");
    }
    const nuv_audio_format& format = device.tracks().begin()->second.info.format;
    return "\"" + std::string(texts.title == nullptr ? "(null)" : texts.title) + "\", " +
           std::to_string(format.sample_rate) + " Hz; started before initiate";
}

// Twenty times a part of an offer is taken, the rest is refused.
std::string check_delivery(const Run& run) {
    Device device(run.breaches, run.patience);
    device.resume_by_itself(false);
    play(device, run, 0);
    for (int i = 0; i < 20; ++i) {
        device.run_until("refused offer", [&] {
            return !device.tracks().empty() && device.tracks().begin()->second.refused;
        });
        if (i % 5 == 0) {
            device.run_for(kQuiet / 4);  // offers now are breaches
        }
        const uint64_t before = device.taken();
        device.take_only(97 + static_cast<uint64_t>(i));
        device.resume_delivery();
        device.run_until("offer after delivery was resumed",
                         [&] { return device.taken() > before; });
    }
    return "20 short counts: nothing until delivery was resumed, then the rest first";
}

// From the first track to the end of the last, or of the third.
std::string check_tracks(const Run& run) {
    Device device(run.breaches, run.patience);
    device.take_all();
    join(device, run);
    size_t heard = 0;
    size_t since = 0;
    do {
        const Event ended = device.await("end of track", since);
        since = device.mark();
        device.run_until("disposal of a track that was heard",
                         [&] { return !device.tracks().contains(ended.id); });
        ++heard;
    } while (!device.tracks().empty() && heard < 3);
    if (device.tracks().empty()) {
        device.await_state(NUV_PLAYBACK_STATE_STOPPED, 0);
    }
    expect_order(device, 0, {"started", "initiate", "finished", "end of track", "dispose"});
    return std::to_string(heard) + " tracks, " + std::to_string(device.taken()) +
           " bytes; finished, heard, then disposed of";
}

std::string check_next_early(const Run& run) {
    Device device(run.breaches, run.patience);
    device.take_all();
    join(device, run);
    const Event ended = device.await("end of track", 0);
    if (device.earliest_next_ms() == 0) {
        if (device.next_available()) {
            throw Broken("a next track is available, but none was started before the end");
        }
        throw NotSeen("the session has one track only");
    }
    device.run_until("initiate or offer of the next track",
                     [&] { return !device.tracks().contains(ended.id); });
    return "started " + ms(device.earliest_next_ms()) + " before the end of the one before it";
}

std::string check_pause(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    size_t since = device.mark();
    expect_answer("pause", device.command(nuv_connect_pause_playback));
    device.await("pause", since);
    device.await_state(NUV_PLAYBACK_STATE_PAUSED, since);
    since = device.mark();
    device.command(nuv_connect_pause_playback);  // already: whatever it answers, it tells nobody
    device.run_for(kQuiet);
    if (device.find("pause", since) != nullptr) {
        throw Broken("a second pause reaches the renderer");
    }
    const uint64_t before = device.taken();
    expect_answer("resume", device.command(nuv_connect_resume_playback));
    device.await("resume", since);
    device.await_state(NUV_PLAYBACK_STATE_PLAYING, since);
    device.take_all();
    device.run_until("sound after the pause", [&] { return device.taken() > before; });
    return "paused and resumed, the state told and answered each time";
}

// Two presses, both before the loop gets to see one.
std::string check_presses(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run, UINT64_MAX / 2);
    for (int i = 0; i < 2; ++i) {
        device.call(nuv_connect_pause_playback);
        device.call(nuv_connect_pause_playback);
        device.call(nuv_connect_resume_playback);
        device.call(nuv_connect_stop_playback);
        device.call(nuv_connect_stop_playback);
    }
    device.run_for(kQuiet);
    return "calls in a row reach the renderer in the states they are for";
}

std::string seek_to(Device& device, uint64_t position) {
    const size_t since = device.mark();
    const nuv_error answer =
        device.command([=](nuv_connect* core) { return nuv_connect_seek_time(core, position); });
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
    const uint64_t before = device.taken();
    device.take_only(1000);
    device.run_until("sound after the seek", [&] { return device.taken() > before; });
    const size_t since = device.mark();
    expect_answer("pause", device.command(nuv_connect_pause_playback));
    device.await_state(NUV_PLAYBACK_STATE_PAUSED, since);
    seen += "; paused, " + seek_to(device, kMillisecondsIn / 2);
    device.take_all();
    expect_answer("resume", device.command(nuv_connect_resume_playback));
    device.await_state(NUV_PLAYBACK_STATE_PLAYING, since);
    device.await("finished", since);
    const Track& track = device.tracks().begin()->second;
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
    size_t since = device.mark();
    if (device.command(nuv_connect_next_track) != NUV_ERROR_OK) {
        if (device.next_available()) {
            throw Broken("next is available, but refused");
        }
        throw NotSeen("there is no next track");
    }
    device.take_only(1000);
    device.await_state(NUV_PLAYBACK_STATE_PLAYING, since);
    expect_order(device, since, {"stop", "dispose", "started", "initiate"});
    since = device.mark();
    expect_answer("previous", device.command(nuv_connect_previous_track));
    device.run_until("\"initiate\" or \"seeked\"", [&] {
        return device.find("initiate", since) != nullptr || device.find("seeked", since) != nullptr;
    });
    return "next stops, disposes, starts and initiates; previous goes back";
}

std::string check_volume(const Run& run) {
    Device device(run.breaches, run.patience);
    device.await("server", 0);
    for (const uint32_t wanted : {37U, 0U, 100U}) {
        const size_t since = device.mark();
        expect_answer("volume", device.command([=](nuv_connect* core) {
            return nuv_connect_set_volume(core, wanted);
        }));
        device.run_until("\"volume\" of " + std::to_string(wanted), [&] {
            const Event* const told = device.find("volume", since);
            return told != nullptr && told->value == wanted;
        });
        uint32_t asked = 0;
        device.command([&](nuv_connect* core) { return nuv_connect_get_volume(core, &asked); });
        if (asked != wanted) {
            throw Broken("set to " + std::to_string(wanted) + " it answers " +
                         std::to_string(asked));
        }
    }
    const size_t since = device.mark();
    const auto too_loud = [](nuv_connect* core) { return nuv_connect_set_volume(core, 101); };
    if (device.command(too_loud) == NUV_ERROR_OK) {
        throw Broken("a volume of 101 is taken");
    }
    for (const bool wanted : {true, false}) {
        expect_answer("mute", device.command([=](nuv_connect* core) {
            return nuv_connect_set_mute_state(core, wanted);
        }));
        device.run_until("\"mute\"", [&] {
            return std::any_of(device.events().begin() + static_cast<std::ptrdiff_t>(since),
                               device.events().end(), [&](const Event& event) {
                                   return event.what == "mute" && event.value == uint64_t{wanted};
                               });
        });
    }
    return "37, 0, 100, mute and unmute told back and answered; 101 refused";
}

std::string check_modes(const Run& run) {
    Device device(run.breaches, run.patience);
    device.await("server", 0);
    size_t since = device.mark();
    const auto shuffle = [](nuv_connect* core) { return nuv_connect_set_shuffle_mode(core, true); };
    const auto repeat = [](nuv_connect* core) {
        return nuv_connect_set_loop_mode(core, NUV_LOOP_MODE_ALL);
    };
    if (device.command(shuffle) != NUV_ERROR_OK || device.command(repeat) != NUV_ERROR_OK) {
        throw NotSeen("the core refuses them");
    }
    device.run_until("both modes", [&] {
        const auto last = [&](const char* what) {
            uint64_t value = 0;
            for (size_t i = since; i < device.events().size(); ++i) {
                value = device.events()[i].what == what ? device.events()[i].value : value;
            }
            return value;
        };
        return last("shuffle") == 1 && last("loop mode") == NUV_LOOP_MODE_ALL;
    });
    bool shuffled = false;
    nuv_loop_mode mode = NUV_LOOP_MODE_OFF;
    device.command([&](nuv_connect* core) {
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
    const size_t since = device.mark();
    if (device.command([](nuv_connect* core) {
            return nuv_connect_set_device_name(core, "Another");
        }) != NUV_ERROR_OK) {
        throw NotSeen("the core refuses another name");
    }
    device.await("advertise", since);
    expect_order(device, since, {"stop advertising", "advertise"});
    return "advertised anew";
}

std::string check_stop(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    const size_t since = device.mark();
    expect_answer("stop", device.command(nuv_connect_stop_playback));
    device.await("stop", since);
    device.await_state(NUV_PLAYBACK_STATE_STOPPED, since);
    device.await_disposals();
    return "stopped, told, every stream disposed of";
}

std::string check_error(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    // Before there was sound a core may look for a track that does play.
    device.run_until("sound", [&] { return device.taken() > 0; });
    size_t since = device.mark();
    device.fail();
    device.await_state(NUV_PLAYBACK_STATE_STOPPED, since);
    device.await_disposals();
    if (device.find("stop", since) != nullptr) {
        throw Broken("a renderer that has failed is told to stop");
    }
    since = device.mark();
    device.fail_in_an_offer();
    device.take_all();
    join(device, run);
    device.await("initiate", since);
    device.await_state(NUV_PLAYBACK_STATE_STOPPED, since);
    device.await_disposals();
    const uint64_t before = device.taken();
    play(device, run);
    device.run_until("sound of the next session", [&] { return device.taken() > before; });
    return "between offers and in one: playback ends, the next session plays";
}

std::string check_leave(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    const size_t since = device.mark();
    expect_answer("leaving", device.command(nuv_connect_deactivate_and_disconnect_renderer));
    device.await("stop", since);
    device.await_state(NUV_PLAYBACK_STATE_STOPPED, since);
    device.await_disposals();
    bool active = true;
    const char* session = "none";
    device.command(
        [&](nuv_connect* core) { return nuv_connect_get_renderer_active_state(core, &active); });
    device.call([&](nuv_connect* core) { return nuv_connect_get_session_id(core, &session); });
    if (active || std::string(session) != "none") {
        throw Broken("after leaving it is active, or still has a session");
    }
    return "stops, disposes of every stream, is active no more";
}

// Whatever the command thread may call, by number.
void call_any(nuv_connect* core, unsigned which, unsigned value) {
    nuv_playback_state state{};
    bool flag = false;
    uint32_t volume = 0;
    switch (which % 14) {
        case 0:
            nuv_connect_pause_playback(core);
            break;
        case 1:
        case 2:
            nuv_connect_resume_playback(core);
            break;
        case 3:
            nuv_connect_stop_playback(core);
            break;
        case 4:
            nuv_connect_next_track(core);
            break;
        case 5:
            nuv_connect_previous_track(core);
            break;
        case 6:
            nuv_connect_seek_time(core, value % 5000);
            break;
        case 7:
            nuv_connect_set_volume(core, value % 101);
            break;
        case 8:
            nuv_connect_set_mute_state(core, value % 2 == 0);
            break;
        case 9:
            nuv_connect_set_shuffle_mode(core, value % 2 == 0);
            break;
        case 10:
            nuv_connect_set_loop_mode(core, static_cast<nuv_loop_mode>(value % 3));
            break;
        case 11:
            nuv_connect_set_device_name(core, value % 2 == 0 ? "A" : "B");
            break;
        case 12:
            nuv_connect_get_playback_state(core, &state);
            nuv_connect_get_renderer_active_state(core, &flag);
            break;
        default:
            nuv_connect_get_volume(core, &volume);
            nuv_connect_get_mute_state(core, &flag);
            break;
    }
}

// Two threads work while the loop plays. Whatever was asked for last, a session plays then.
std::string check_threads(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    device.take_all();
    device.take_at_random();
    static constexpr int kCalls = 2000;
    std::atomic<int> running{2};
    const auto work = [&](unsigned seed) {
        std::minstd_rand random(seed);
        for (int i = 0; i < kCalls; ++i) {
            call_any(device.core(), random(), random());
            if (i % 8 == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 500));
            }
        }
        --running;
    };
    std::thread first(work, 1);
    std::thread second(work, 2);
    try {
        device.run_until("end of the calls", [&] { return running == 0; });
    } catch (const Broken&) {
        first.detach();  // a call never returns
        second.detach();
        throw;
    }
    first.join();
    second.join();
    device.call(
        [](nuv_connect* core) { return nuv_connect_set_loop_mode(core, NUV_LOOP_MODE_OFF); });
    device.call([](nuv_connect* core) { return nuv_connect_set_shuffle_mode(core, false); });
    expect_answer("leaving", device.command(nuv_connect_deactivate_and_disconnect_renderer));
    device.await_disposals();
    const size_t since = device.mark();
    join(device, run);
    device.await("initiate", since);
    device.await("end of track", since);
    return std::to_string(2 * kCalls) + " calls beside a playing loop; then a session plays";
}

// What a stop of the service does to a core, at any moment of its life.
std::string check_free(const Run& run) {
    static constexpr unsigned kRounds = 60;
    std::minstd_rand random(5);
    for (unsigned round = 0; round < kRounds; ++round) {
        Device device(run.breaches, run.patience);
        if (round % 3 == 1) {
            join(device, run);
        } else if (round % 3 == 2) {
            play(device, run);
            device.take_all();
        }
        for (unsigned passes = round == 0 ? 0 : random() % 20; passes > 0; --passes) {
            if (random() % 4 == 0) {
                call_any(device.core(), random(), random());
            }
            device.run_for(milliseconds(random() % 4 == 0 ? 1 : 0));
        }
    }
    return std::to_string(kRounds) + " moments: no delegate after it, nothing left on the loop";
}

struct Rule {
    const char* name;
    std::string (*check)(const Run& run);
};

constexpr std::array kRules = {
    Rule{"texts", check_texts},
    Rule{"services", check_services},
    Rule{"no-session", check_without_session},
    Rule{"session", check_session},
    Rule{"delivery", check_delivery},
    Rule{"tracks", check_tracks},
    Rule{"next-early", check_next_early},
    Rule{"pause", check_pause},
    Rule{"presses", check_presses},
    Rule{"seek", check_seek},
    Rule{"skip", check_skip},
    Rule{"volume", check_volume},
    Rule{"modes", check_modes},
    Rule{"name", check_name},
    Rule{"stop", check_stop},
    Rule{"error", check_error},
    Rule{"leave", check_leave},
    Rule{"threads", check_threads},
    Rule{"free", check_free},
};

struct Throughout {
    const char* name;
    const char* holds;
};

constexpr std::array kThroughout = {
    Throughout{"loop-thread", "every delegate came on the loop's thread"},
    Throughout{"not-inside", "no delegate came from inside a call"},
    Throughout{"states", "each in a state of the renderer that it is for"},
    Throughout{"streams", "each of a stream that was started and not disposed of"},
    Throughout{"disposal", "no stream was disposed of while it played"},
    Throughout{"frames", "offers were whole frames"},
    Throughout{"rest", "what was refused came again first"},
    Throughout{"notices", "the renderer's notices were taken"},
};

// True when the rule is seen broken.
bool check(Report& report, const Rule& rule, const Run& run) {
    report.begin(rule.name, static_cast<unsigned>(12 * run.patience.count()));
    try {
        const std::string seen = rule.check(run);
        // Some rules are watched by the device as well.
        const std::string breach = run.breaches.of(rule.name);
        report.line(rule.name, breach.empty() ? Verdict::holds : Verdict::broken,
                    breach.empty() ? seen : breach);
        return !breach.empty();
    } catch (const Broken& broken) {
        report.line(rule.name, Verdict::broken, broken.what());
        return true;
    } catch (const NotSeen& why) {
        report.line(rule.name, Verdict::not_seen, why.what());
        return false;
    }
}

}  // namespace
}  // namespace nuvio::kit

extern "C" __attribute__((visibility("default"))) void nuvio_check_rules(
    nuvio::kit::Report& report, const nuvio::kit::Options& options) {
    using namespace nuvio::kit;
    std::vector<const char*> names;
    std::ranges::transform(kRules, std::back_inserter(names), &Rule::name);
    std::ranges::transform(kThroughout, std::back_inserter(names), &Throughout::name);
    if (is_only_asked(report, options, names)) {
        return;
    }
    std::optional<WavFolder> tracks;
    if (options.endpoint.empty()) {
        tracks.emplace();
        // For the local core, which reads files from named folders only.
        setenv("NUVIO_MUSIC_FOLDERS", tracks->path().c_str(), 0);
    }
    Breaches breaches;
    const Run run{breaches, tracks ? tracks->path() : options.endpoint,
                  std::chrono::seconds(options.patience_s)};
    std::vector<const char*> watched;  // what the rules behind them may still break
    // What holds throughout is watched in all that is done.
    const bool all = std::ranges::any_of(
        kThroughout, [&](const Throughout& each) { return options.wants(each.name); });
    for (const Rule& rule : kRules) {
        if ((all || options.wants(rule.name)) && !check(report, rule, run)) {
            watched.push_back(rule.name);
        }
    }
    for (const char* name : watched) {
        if (const std::string breach = breaches.of(name); !breach.empty()) {
            report.line(name, Verdict::broken, "in what followed: " + breach);
        }
    }
    for (const auto& [name, holds] : kThroughout) {
        if (!options.wants(name)) {
            continue;
        }
        const std::string breach = breaches.of(name);
        report.line(name, breach.empty() ? Verdict::holds : Verdict::broken,
                    breach.empty() ? holds : breach);
    }
}
