// A simulated sound card for each test, reached through ALSA as any card. Its clock stands still
// unless a test moves it.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>

#include "loop_fixture.h"
#include "tools/simcard/simcard.h"

class CardTest : public LoopTest {
  protected:
    ~CardTest() override {
        card_.reset();
        snd_config_update_free_global();
        std::filesystem::remove_all(directory_);
    }

    static simcard::Settings stopped_clock() {
        simcard::Settings settings;
        settings.speed = 0;
        return settings;
    }
    simcard::Card& make_card(const simcard::Settings& settings = stopped_clock()) {
        card_.emplace(simcard::Card::create(directory_, settings));
        snd_config_update_free_global();
        card_->use_in_this_process();
        return *card_;
    }
    uint64_t calls(simcard::Op op) const { return card_->counters()[op]; }

    std::optional<simcard::Card> card_;

  private:
    std::filesystem::path directory_ =
        std::filesystem::temp_directory_path() / ("sink-test-" + std::to_string(getpid()));
};
