// How playback ends: on request, by an error, beside other threads, with the core itself.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "conformance/core_rules.h"

namespace nuvio::kit {
namespace {

std::string check_stop(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    const size_t since = device.record().mark();
    expect_answer("stop", device.loop().command(nuv_connect_stop_playback));
    device.await("stop", since);
    device.await_state(NUV_PLAYBACK_STATE_STOPPED, since);
    device.await_disposals();
    return "stopped, told, every stream disposed of";
}

std::string check_error(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    // Before there was sound a core may look for a track that does play.
    device.loop().run_until("sound", [&] { return device.renderer().taken() > 0; });
    size_t since = device.record().mark();
    device.renderer().fail();
    device.await_state(NUV_PLAYBACK_STATE_STOPPED, since);
    device.await_disposals();
    if (device.record().find("stop", since) != nullptr) {
        throw Broken("a renderer that has failed is told to stop");
    }
    since = device.record().mark();
    device.renderer().fail_in_an_offer();
    device.renderer().take_all();
    join(device, run);
    device.await("initiate", since);
    device.await_state(NUV_PLAYBACK_STATE_STOPPED, since);
    device.await_disposals();
    const uint64_t before = device.renderer().taken();
    play(device, run);
    device.loop().run_until("sound of the next session",
                            [&] { return device.renderer().taken() > before; });
    return "between offers and in one: playback ends, the next session plays";
}

std::string check_leave(const Run& run) {
    Device device(run.breaches, run.patience);
    play(device, run);
    const size_t since = device.record().mark();
    expect_answer("leaving", device.loop().command(nuv_connect_deactivate_and_disconnect_renderer));
    device.await("stop", since);
    device.await_state(NUV_PLAYBACK_STATE_STOPPED, since);
    device.await_disposals();
    bool active = true;
    const char* session = "none";
    device.loop().command(
        [&](nuv_connect* core) { return nuv_connect_get_renderer_active_state(core, &active); });
    device.loop().call(
        [&](nuv_connect* core) { return nuv_connect_get_session_id(core, &session); });
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
    device.renderer().take_all();
    device.renderer().take_at_random();
    static constexpr int kCalls = 2000;
    std::atomic<int> running{2};
    const auto work = [&](unsigned seed) {
        std::minstd_rand random(seed);
        for (int i = 0; i < kCalls; ++i) {
            call_any(device.loop().core(), random(), random());
            if (i % 8 == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 500));
            }
        }
        --running;
    };
    std::thread first(work, 1);
    std::thread second(work, 2);
    try {
        device.loop().run_until("end of the calls", [&] { return running == 0; });
    } catch (const Broken&) {
        first.detach();  // a call never returns
        second.detach();
        throw;
    }
    first.join();
    second.join();
    device.loop().call(
        [](nuv_connect* core) { return nuv_connect_set_loop_mode(core, NUV_LOOP_MODE_OFF); });
    device.loop().call([](nuv_connect* core) { return nuv_connect_set_shuffle_mode(core, false); });
    expect_answer("leaving", device.loop().command(nuv_connect_deactivate_and_disconnect_renderer));
    device.await_disposals();
    const size_t since = device.record().mark();
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
            device.renderer().take_all();
        }
        for (unsigned passes = round == 0 ? 0 : random() % 20; passes > 0; --passes) {
            if (random() % 4 == 0) {
                call_any(device.loop().core(), random(), random());
            }
            device.loop().run_for(milliseconds(random() % 4 == 0 ? 1 : 0));
        }
    }
    return std::to_string(kRounds) + " moments: no delegate after it, nothing left on the loop";
}

}  // namespace

std::vector<Rule> end_rules() {
    return {
        {"stop", check_stop},       {"error", check_error}, {"leave", check_leave},
        {"threads", check_threads}, {"free", check_free},
    };
}

}  // namespace nuvio::kit
