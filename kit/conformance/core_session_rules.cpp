// What comes of a session: services, streams, delivery, one track behind the other.
#include <string>
#include <vector>

#include "conformance/core_rules.h"

namespace nuvio::kit {
namespace {

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
    expect_answer("a new core, given the mixer's volume and mute state,",
                  device.loop().call(set_up));
    device.await("server", 0);
    device.await("advertise", 0);
    const char* uuid = nullptr;
    expect_answer("the query for the device's UUID", device.loop().call([&](nuv_connect* core) {
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
    const size_t since = device.record().mark();
    for (const auto control : {nuv_connect_pause_playback, nuv_connect_resume_playback,
                               nuv_connect_stop_playback, nuv_connect_next_track}) {
        device.loop().command(control);
    }
    device.loop().command([](nuv_connect* core) { return nuv_connect_seek_time(core, 0); });
    expect_answer("leaving no session",
                  device.loop().command(nuv_connect_deactivate_and_disconnect_renderer));
    const char* session = "as before";
    device.loop().call(
        [&](nuv_connect* core) { return nuv_connect_get_session_id(core, &session); });
    if (std::string(session) != "as before") {
        throw Broken("there is a session id without a session");
    }
    device.loop().run_for(kQuiet);
    for (const char* event : {"initiate", "pause", "resume", "stop", "seek"}) {
        if (device.record().find(event, since) != nullptr) {
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
    const uint64_t id = device.renderer().tracks().begin()->first;
    expect_answer("the query for the state", device.loop().command([&](nuv_connect* core) {
        return nuv_connect_get_renderer_active_state(core, &active);
    }));
    // Asked on the loop's thread, where the stream cannot be disposed of meanwhile.
    expect_answer("the query for the texts", device.loop().call([&](nuv_connect* core) {
        return nuv_connect_get_stream_metadata(core, id, &texts);
    }));
    const char* session = nullptr;
    device.loop().call(
        [&](nuv_connect* core) { return nuv_connect_get_session_id(core, &session); });
    if (!active || session == nullptr || std::string(session) != "conformance") {
        throw Broken("a session that plays is not active, or not the one that was joined");
    }
    const nuv_audio_format& format = device.renderer().tracks().begin()->second.info.format;
    return "\"" + std::string(texts.title == nullptr ? "(null)" : texts.title) + "\", " +
           std::to_string(format.sample_rate) + " Hz; started before initiate";
}

// Twenty times a part of an offer is taken, the rest is refused.
std::string check_delivery(const Run& run) {
    Device device(run.breaches, run.patience);
    device.renderer().resume_by_itself(false);
    play(device, run, 0);
    for (int i = 0; i < 20; ++i) {
        device.loop().run_until("refused offer", [&] {
            return !device.renderer().tracks().empty() &&
                   device.renderer().tracks().begin()->second.refused;
        });
        if (i % 5 == 0) {
            device.loop().run_for(kQuiet / 4);  // offers now are breaches
        }
        const uint64_t before = device.renderer().taken();
        device.renderer().take_only(97 + static_cast<uint64_t>(i));
        device.renderer().resume_delivery();
        device.loop().run_until("offer after delivery was resumed",
                                [&] { return device.renderer().taken() > before; });
    }
    return "20 short counts: nothing until delivery was resumed, then the rest first";
}

// From the first track to the end of the last, or of the third.
std::string check_tracks(const Run& run) {
    Device device(run.breaches, run.patience);
    device.renderer().take_all();
    join(device, run);
    size_t heard = 0;
    size_t since = 0;
    do {
        const Event ended = device.await("end of track", since);
        since = device.record().mark();
        device.loop().run_until("disposal of a track that was heard",
                                [&] { return !device.renderer().tracks().contains(ended.id); });
        ++heard;
    } while (!device.renderer().tracks().empty() && heard < 3);
    if (device.renderer().tracks().empty()) {
        device.await_state(NUV_PLAYBACK_STATE_STOPPED, 0);
    }
    expect_order(device, 0, {"started", "initiate", "finished", "end of track", "dispose"});
    return std::to_string(heard) + " tracks, " + std::to_string(device.renderer().taken()) +
           " bytes; finished, heard, then disposed of";
}

std::string check_next_early(const Run& run) {
    Device device(run.breaches, run.patience);
    device.renderer().take_all();
    join(device, run);
    const Event ended = device.await("end of track", 0);
    if (device.renderer().earliest_next_ms() == 0) {
        if (device.renderer().next_available()) {
            throw Broken("a next track is available, but none was started before the end");
        }
        throw NotSeen("the session has one track only");
    }
    device.loop().run_until("initiate or offer of the next track",
                            [&] { return !device.renderer().tracks().contains(ended.id); });
    return "started " + ms(device.renderer().earliest_next_ms()) +
           " before the end of the one before it";
}

}  // namespace

std::vector<Rule> session_rules() {
    return {
        {"texts", check_texts},
        {"services", check_services},
        {"no-session", check_without_session},
        {"session", check_session},
        {"delivery", check_delivery},
        {"tracks", check_tracks},
        {"next-early", check_next_early},
    };
}

}  // namespace nuvio::kit
