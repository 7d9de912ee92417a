// Sessions of a renderer on a simulated card, each with an end and a bound on what it may cost.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>

#include "fakes/fake_sdk.h"
#include "faults/scripted_sdk.h"
#include "loop_fixture.h"
#include "media/audio_renderer.h"
#include "temp_dir.h"
#include "tools/simcard/simcard.h"
#include "utility/uv_utilities.h"

inline size_t entries_of(const char* directory) {
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

class CardSessions : public LoopTest {
  protected:
    CardSessions() {
        alarm(kStuckAfterS);  // a blocked loop can't end the test by itself
        fake_sdk::reset();
    }
    ~CardSessions() override {
        if (renderer_ != nullptr) {
            audio_renderer_free(renderer_);
        }
    }

    static constexpr double kSpeed = 4;
    // Of the card that a session is played on by default.
    static simcard::Settings settings() {
        simcard::Settings settings;
        settings.default_buffer_ms = 100;
        settings.speed = kSpeed;
        settings.patient = true;  // underruns come from the test, not from a busy machine
        return settings;
    }
    simcard::Card make_card(const simcard::Settings& settings) const {
        simcard::Card card = simcard::Card::create(m_directory.path(), settings);
        card.use_in_this_process();
        return card;
    }
    void make_renderer() {
        renderer_ = audio_renderer_new(&loop_, "simcard", "simcard", "Master");
        ASSERT_NE(renderer_, nullptr);
        audio_renderer_set_core(renderer_, fake_sdk::core());
    }

    // Runs the session to its end.
    void run(const ScriptedSdk& sdk) {
        bool overdue = false;
        uv_timer_t* limit = uv_timer_new(&loop_, &overdue);
        uv_timer_start(
            limit, [](uv_timer_t* timer) { *static_cast<bool*>(timer->data) = true; },
            kSessionLimitMs, 0);
        unsigned wake_ups = 0;  // passes on which the SDK delivers are none
        while (!sdk.is_over() && !overdue) {
            wake_ups += sdk.is_delivering() ? 0 : 1;
            uv_run(&loop_, UV_RUN_ONCE);
        }
        uv_timer_free(limit);
        EXPECT_FALSE(overdue) << "the session came to no end";
        EXPECT_LE(wake_ups, kMaxWakeUps) << "the loop spins";
    }
    // Runs what is due now.
    void settle() {
        for (int pass = 0; pass < 20; ++pass) {
            uv_run(&loop_, UV_RUN_NOWAIT);
        }
    }

    static size_t open_descriptors() { return entries_of("/proc/self/fd"); }

    audio_renderer* renderer_ = nullptr;

  private:
    static constexpr unsigned kStuckAfterS = 60;
    static constexpr unsigned kSessionLimitMs = 20000;
    // A session is shorter than a second: some 20 wake-ups for room, a few timers.
    static constexpr unsigned kMaxWakeUps = 300;

    const TempDir m_directory;
};
