// The renderer is freed, its sink open or not, at any moment of a session; the next one plays.
#include <gtest/gtest.h>

#include <utility>

#include "faults/card_sessions.h"
#include "faults/seed.h"

namespace {

class RendererLifecycle : public CardSessions {
  protected:
    void run_for(unsigned ms) {
        LoopWatch watch(&loop_, ms, [] { return true; });
        while (!watch.is_overdue()) {
            uv_run(&loop_, UV_RUN_ONCE);
        }
    }
};

TEST_F(RendererLifecycle, EndsAtAnyMomentOfASessionAndTheNextOnePlays) {
    std::mt19937_64 random(draw_seed());
    const size_t rounds = how_many(20, 300);
    simcard::Card card = make_card(settings());
    size_t descriptors = 0;
    for (size_t round = 0; round < rounds; ++round) {
        alarm(60);
        make_renderer();
        {
            ScriptedSdk sdk(&loop_, renderer_);
            sdk.at([&](Point point) {
                if (point == Point::waiting && random() % 3 == 0) {
                    sdk.pause_for(static_cast<unsigned>(random() % 50));
                } else if (point == Point::waiting && random() % 3 == 0) {
                    sdk.seek_ahead(20);
                }
            });
            sdk.play({{cd, 200}, {cd, 150}, {hi_res, 150}});
            run_for(static_cast<unsigned>(random() % 500));
        }
        audio_renderer_free(std::exchange(renderer_, nullptr));
        settle();
        descriptors = round == 0 ? open_descriptors() : descriptors;
        EXPECT_LE(open_descriptors(), descriptors) << "in round " << round;
    }

    make_renderer();
    card.reset_counters();
    ScriptedSdk sdk(&loop_, renderer_);
    sdk.play({{cd, 150}});
    run(sdk);
    EXPECT_TRUE(sdk.ended());
    EXPECT_EQ(card.counters().frames_played, sdk.frames_taken());
}

}  // namespace
