// The mixer's faults: the element missing, read-only or gone, and each call of the volume manager
// failing, before the renderer is made and while it plays. Playback never suffers; the table says
// what becomes of the volume control.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "faults/card_sessions.h"

namespace {

using simcard::Card;
using simcard::Fault;
using simcard::Op;

// What still works after the fault: "sets" (the SDK's volume and mute reach the card) and "follows"
// (what others change there reaches the SDK).
enum Control : unsigned { none = 0, sets = 1, follows = 2, both = sets | follows };

void PrintTo(Control control, std::ostream* out) {
    *out << ((control & sets) != 0 ? "sets " : "") << ((control & follows) != 0 ? "follows" : "");
}

struct Row {
    std::string name;
    void (*strike)(Card&);
    Control afterwards;  // in the same session, once the fault is over
    Control next_session;
    void (*shape)(simcard::Element&) = nullptr;  // of the card's element
};
void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

template <Op op, int error, uint64_t times>
void fail(Card& card) {
    card.inject({op, error, 0, times});
}
constexpr uint64_t kForever = Fault::kForever;

// Changes by both sides, as long as the fault lasts.
class MixerFaults : public CardSessions {
  protected:
    void sdk_sets(uint32_t volume, bool muted) {
        const nuv_media_delegate media = audio_renderer_get_media_delegate(renderer_);
        media.volume_changed(fake_sdk::core(), volume, media.context);
        media.mute_state_changed(fake_sdk::core(), muted, media.context);
        settle();
    }
    void other_sets(Card& card, long raw, bool on) {
        card.set_volume(raw);
        card.set_switch(on);
        settle();
    }

    Control control(Card& card) {
        sdk_sets(20, true);
        sdk_sets(80, false);
        const bool is_set = card.volume() == 204 && card.switch_on();
        fake_sdk::take_calls();
        other_sets(card, 102, false);
        const auto calls = fake_sdk::take_calls();
        const bool is_followed = std::ranges::count(calls, "set_volume 40") == 1 &&
                                 std::ranges::count(calls, "set_mute_state true") == 1;
        other_sets(card, 128, true);
        return static_cast<Control>((is_set ? sets : none) | (is_followed ? follows : none));
    }

    // The whole track is heard, whatever the mixer does.
    void expect_heard(Card& card, const std::function<void()>& while_playing) {
        card.reset_counters();
        ScriptedSdk sdk(&loop_, renderer_);
        sdk.at([&](Point point) {
            if (point == Point::waiting) {
                while_playing();
            }
        });
        sdk.play({{kCd, 250}});
        run(sdk);
        EXPECT_EQ(sdk.errors(), 0U);
        EXPECT_TRUE(sdk.ended());
        EXPECT_EQ(card.counters().frames_played, sdk.frames_taken());
    }
};

class MixerFaultsAtCreation : public MixerFaults, public testing::WithParamInterface<Row> {};
class MixerFaultsWhilePlaying : public MixerFaults, public testing::WithParamInterface<Row> {};

// A mixer that could not be set up is tried again by each session.
const Row kCreationRows[] = {
    {"ctl_open_ENODEV", fail<Op::ctl_open, ENODEV, 1>, both, both},
    {"ctl_open_EBUSY", fail<Op::ctl_open, EBUSY, 1>, both, both},
    {"ctl_list_EIO", fail<Op::ctl_list, EIO, 1>, both, both},
    {"element_missing", [](Card& card) { card.remove_element(); }, none, none},
    {"unplugged", [](Card& card) { card.unplug(); }, both, both},
    {"no_volume", nullptr, none, none, [](simcard::Element& it) { it.has_volume = false; }},
    {"no_switch", nullptr, none, none, [](simcard::Element& it) { it.has_switch = false; }},
    {"read_only", nullptr, follows, follows, [](simcard::Element& it) { it.read_only = true; }},
};

const Row kPlayingRows[] = {
    {"write_volume_EIO_1x", fail<Op::write_volume, EIO, 1>, both, both},
    {"write_volume_EBUSY_forever", fail<Op::write_volume, EBUSY, kForever>, both, both},
    {"write_volume_ENODEV_1x", fail<Op::write_volume, ENODEV, 1>, both, both},
    {"write_switch_EIO_1x", fail<Op::write_switch, EIO, 1>, both, both},
    {"write_switch_EPERM_forever", fail<Op::write_switch, EPERM, kForever>, both, both},
    {"read_volume_EIO_1x", fail<Op::read_volume, EIO, 1>, both, both},
    // Handling the event of another change fails with it: given up, as below.
    {"read_volume_EIO_forever", fail<Op::read_volume, EIO, kForever>, none, both},
    {"read_switch_EIO_1x", fail<Op::read_switch, EIO, 1>, both, both},
    {"read_event_EINTR_1x", fail<Op::read_event, EINTR, 1>, both, both},
    // Given up at once: its next call could wait for ever. The next session takes it up again.
    {"read_event_EIO_1x", fail<Op::read_event, EIO, 1>, none, both},
    {"read_event_EIO_forever", fail<Op::read_event, EIO, kForever>, none, both},
    {"read_event_ENODEV_forever", fail<Op::read_event, ENODEV, kForever>, none, both},
    {"element_gone", [](Card& card) { card.remove_element(); }, none, both},
};

TEST_P(MixerFaultsAtCreation, PlaybackGoesOnWithoutVolumeControl) {
    const Row& row = GetParam();
    simcard::Settings how = settings();
    if (row.shape != nullptr) {
        row.shape(how.element);
    }
    Card card = make_card(how);
    if (row.strike != nullptr) {
        row.strike(card);
    }
    make_renderer();
    EXPECT_THAT(fake_sdk::calls(), testing::ElementsAre("set_volume 50", "set_mute_state false"));
    card.clear_faults();
    card.plug_in();
    expect_heard(card, [&] { EXPECT_EQ(control(card), row.afterwards); });
    expect_heard(card, [&] { EXPECT_EQ(control(card), row.next_session); });
}

TEST_P(MixerFaultsWhilePlaying, PlaybackGoesOnAndTheControlIsWhatIsStated) {
    const Row& row = GetParam();
    Card card = make_card(settings());
    make_renderer();
    const size_t descriptors = open_descriptors();
    expect_heard(card, [&] {
        row.strike(card);
        settle();
        sdk_sets(30, true);
        other_sets(card, 50, true);
        const simcard::Counters counters = card.counters();
        EXPECT_TRUE(!card.element_present() ||
                    std::ranges::any_of(counters.faults, [](uint64_t times) { return times > 0; }))
            << "the fault never struck";
        card.clear_faults();
        if (!card.element_present()) {
            card.restore_element();
        }
        EXPECT_EQ(control(card), row.afterwards);
    });
    EXPECT_LE(card.counters()[Op::read_event], 200U);
    expect_heard(card, [&] { EXPECT_EQ(control(card), row.next_session); });
    EXPECT_LE(open_descriptors(), descriptors);
}

const auto kNameOf = [](const auto& row) { return row.param.name; };
INSTANTIATE_TEST_SUITE_P(Mixer, MixerFaultsAtCreation, testing::ValuesIn(kCreationRows), kNameOf);
INSTANTIATE_TEST_SUITE_P(Mixer, MixerFaultsWhilePlaying, testing::ValuesIn(kPlayingRows), kNameOf);

// Three attempts without the card are three playback errors; with the card back the old volume is.
TEST_F(MixerFaults, CardThatComesBackPlaysWithTheVolumeSetLast) {
    Card card = make_card(settings());
    make_renderer();
    sdk_sets(20, true);
    const size_t descriptors = open_descriptors();
    card.unplug();
    settle();
    for (int attempt = 0; attempt < 3; ++attempt) {
        ScriptedSdk sdk(&loop_, renderer_);
        sdk.play({{kCd, 100}});
        run(sdk);
        EXPECT_EQ(sdk.errors(), 1U);
    }
    sdk_sets(40, true);  // while it is away
    card.set_volume(255);
    card.set_switch(true);
    card.plug_in();
    expect_heard(card, [&] {
        EXPECT_EQ(card.volume(), 102);
        EXPECT_FALSE(card.switch_on());
        EXPECT_EQ(control(card), both);
    });
    EXPECT_LE(open_descriptors(), descriptors);
}

}  // namespace
