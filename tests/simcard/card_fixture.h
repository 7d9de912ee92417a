// A simulated sound card for each test, reached through ALSA as any card. Its clock stands still
// unless a test moves it.
#pragma once

#include <optional>

#include "loop_fixture.h"
#include "temp_dir.h"
#include "tools/simcard/simcard.h"

class CardTest : public LoopTest {
  protected:
    ~CardTest() override { snd_config_update_free_global(); }

    static simcard::Settings stopped_clock() {
        simcard::Settings settings;
        settings.speed = 0;
        return settings;
    }
    simcard::Card& make_card(const simcard::Settings& settings = stopped_clock()) {
        card_.emplace(simcard::Card::create(directory_.path(), settings));
        snd_config_update_free_global();
        card_->use_in_this_process();
        return *card_;
    }
    uint64_t calls(simcard::Op op) const { return card_->counters()[op]; }

    const TempDir directory_;
    std::optional<simcard::Card> card_;
};
