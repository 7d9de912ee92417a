#include "media/sink/alsa/volume_manager.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "simcard/card_fixture.h"

using namespace std::chrono_literals;
using simcard::Op;

namespace {

using Events = std::vector<std::string>;

class VolumeManagerTest : public CardTest {
  protected:
    ~VolumeManagerTest() override { manager_.reset(); }

    void make(const simcard::Element& element = {}) {
        manager_.reset();
        simcard::Settings settings = stopped_clock();
        settings.element = element;
        make_card(settings);
        manager_.reset(volume_manager_new(
            &loop_, "simcard", "Master", 0,
            {&events_,
             [](volume_manager*, uint32_t volume, void* events) {
                 static_cast<Events*>(events)->push_back("volume " + std::to_string(volume));
             },
             [](volume_manager*, bool muted, void* events) {
                 static_cast<Events*>(events)->push_back(muted ? "muted" : "unmuted");
             }}));
        ASSERT_NE(manager_, nullptr);
    }
    // What the manager reported since the last call.
    Events events() {
        run_for(30ms);
        return std::exchange(events_, {});
    }

    volume_manager_ptr manager_;
    Events events_;
};

TEST_F(VolumeManagerTest, PercentagesMapToTheRawRangeAndBack) {
    const struct {
        long minimum, maximum;
        uint32_t set;
        long raw;
        uint32_t read;
    } rows[] = {
        {0, 255, 0, 0, 0},           {0, 255, 1, 2, 1},       {0, 255, 50, 127, 50},
        {0, 255, 100, 255, 100},     {0, 255, 101, 255, 100}, {-10239, 400, 50, -4919, 50},
        {-10239, 400, 0, -10239, 0}, {0, 31, 50, 15, 48},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.minimum << ".." << row.maximum << ": " << row.set);
        make({.minimum = row.minimum,
              .maximum = row.maximum,
              .volume = row.set < 100 ? row.maximum : row.minimum});
        volume_manager_set_volume(manager_.get(), row.set);
        EXPECT_EQ(card_->volume(0), row.raw);
        EXPECT_EQ(card_->volume(1), row.raw);
        EXPECT_EQ(volume_manager_get_volume(manager_.get()), row.read);
    }
}

TEST_F(VolumeManagerTest, WhatTheElementShowsAlreadyIsNotWritten) {
    make({.volume = 128});  // 50 percent, for which 127 would be written
    volume_manager_set_volume(manager_.get(), 50);
    volume_manager_set_mute_state(manager_.get(), false);
    EXPECT_EQ(calls(Op::write_volume), 0U);
    EXPECT_EQ(calls(Op::write_switch), 0U);
    EXPECT_THAT(events(), testing::IsEmpty());
}

TEST_F(VolumeManagerTest, EachChangeIsReportedOnceWhoeverMadeIt) {
    make({.volume = 0});
    card_->set_volume(255);
    EXPECT_THAT(events(), testing::ElementsAre("volume 100"));
    card_->set_volume(254);  // 99.6 percent, which reads as 100 too
    EXPECT_THAT(events(), testing::IsEmpty());
    card_->set_switch(false);
    EXPECT_THAT(events(), testing::ElementsAre("muted"));

    volume_manager_set_volume(manager_.get(), 50);
    volume_manager_set_mute_state(manager_.get(), false);
    EXPECT_THAT(events_, testing::IsEmpty()) << "never from inside a call";
    EXPECT_THAT(events(), testing::UnorderedElementsAre("volume 50", "unmuted"));
    volume_manager_set_volume(manager_.get(), 40);
    EXPECT_THAT(events(), testing::ElementsAre("volume 40"));
    EXPECT_TRUE(card_->switch_on(1));
    EXPECT_FALSE(volume_manager_get_mute_state(manager_.get()));

    // The value that was last reported before our own write is a change again.
    card_->set_volume(255);
    EXPECT_THAT(events(), testing::ElementsAre("volume 100"));

    const uint64_t idle = calls(Op::read_event);
    run_for(50ms);
    EXPECT_EQ(calls(Op::read_event), idle) << "a quiet mixer wakes nobody";
}

}  // namespace
