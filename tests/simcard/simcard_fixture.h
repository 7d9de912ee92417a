#ifndef TESTS_SIMCARD_SIMCARD_FIXTURE_H
#define TESTS_SIMCARD_SIMCARD_FIXTURE_H

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tools/simcard/simcard.h"

// A card of its own for each test, and a directory that goes away with it.
class SimcardTest : public testing::Test {
  protected:
    ~SimcardTest() override {
        snd_config_update_free_global();
        std::filesystem::remove_all(directory_);
    }

    simcard::Card& make_card(const simcard::Settings& settings = {}) {
        card_ = simcard::Card::create(directory_, settings);
        card_->use_in_this_process();
        snd_config_update_free_global();
        return *card_;
    }

    // Runs a shell command against the card, standard output discarded; true on success.
    bool shell(const std::string& command) const {
        return std::system(
                   (card_->tool_environment() + " " + command + " >/dev/null 2>&1").c_str()) == 0;
    }

    static std::vector<std::uint8_t> noise(std::size_t bytes) {
        std::mt19937 random(static_cast<unsigned>(bytes));
        std::vector<std::uint8_t> data(bytes);
        for (std::uint8_t& byte : data)
            byte = static_cast<std::uint8_t>(random());
        return data;
    }

    static bool readable(const pollfd& descriptor, int timeout_ms = 0) {
        pollfd copy = descriptor;
        return poll(&copy, 1, timeout_ms) == 1;
    }

    std::filesystem::path directory_ = make_directory();
    std::optional<simcard::Card> card_;

  private:
    static std::filesystem::path make_directory() {
        std::string name = (std::filesystem::temp_directory_path() / "simcard.XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            std::abort();
        return name;
    }
};

#endif
