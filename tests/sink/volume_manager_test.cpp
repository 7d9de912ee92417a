#include "media/sink/alsa/volume_manager.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "card_fixture.h"

using namespace std::chrono_literals;
using simcard::Op;

namespace {

class VolumeManagerTest : public CardTest {
  protected:
    ~VolumeManagerTest() override { manager_.reset(); }

    void make(const simcard::Element& element = {}) {
        manager_.reset();
        simcard::Settings settings = stopped_clock();
        settings.element = element;
        make_card(settings);
        manager_.reset(new_manager());
    }
    volume_manager* new_manager(const char* element = "Master") {
        return volume_manager_new(
            &loop_, "simcard", element, 0,
            {this,
             [](volume_manager*, uint32_t volume, void* user_data) {
                 static_cast<VolumeManagerTest*>(user_data)->events_.push_back(
                     "volume " + std::to_string(volume));
             },
             [](volume_manager*, bool muted, void* user_data) {
                 static_cast<VolumeManagerTest*>(user_data)->events_.push_back(muted ? "muted"
                                                                                     : "unmuted");
             }});
    }
    // What the manager reported since the last call.
    std::vector<std::string> events() {
        run_for(30ms);
        return std::exchange(events_, {});
    }

    volume_manager_ptr manager_;
    std::vector<std::string> events_;
};

TEST_F(VolumeManagerTest, PercentagesMapToTheRawRangeAndBack) {
    struct row {
        long minimum, maximum;
        uint32_t set;
        long raw;
        uint32_t read;
    };
    constexpr row kRows[] = {
        {0, 255, 0, 0, 0},           {0, 255, 1, 2, 1},       {0, 255, 50, 127, 50},
        {0, 255, 100, 255, 100},     {0, 255, 101, 255, 100}, {-10239, 400, 50, -4919, 50},
        {-10239, 400, 0, -10239, 0}, {0, 31, 50, 15, 48},
    };
    for (const row& row : kRows) {
        SCOPED_TRACE(testing::Message() << row.minimum << ".." << row.maximum << ": " << row.set);
        make({.minimum = row.minimum,
              .maximum = row.maximum,
              .volume = row.set < 100 ? row.maximum : row.minimum});
        ASSERT_NE(manager_, nullptr);
        volume_manager_set_volume(manager_.get(), row.set);
        EXPECT_EQ(card_->volume(0), row.raw);
        EXPECT_EQ(card_->volume(1), row.raw);
        EXPECT_EQ(volume_manager_get_volume(manager_.get()), row.read);
    }
}

TEST_F(VolumeManagerTest, WhatTheElementShowsAlreadyIsNotWritten) {
    make({.volume = 127});
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

TEST_F(VolumeManagerTest, AmixerIsFollowed) {
    make({.volume = 0});
    const std::string command =
        card_->tool_environment() + " amixer -q -D simcard sset Master 51 mute";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_THAT(events(), testing::ElementsAre("volume 20", "muted"));
}

TEST_F(VolumeManagerTest, MixerThatCannotBeUsedGivesNone) {
    make({.present = false});
    EXPECT_EQ(manager_, nullptr);
    make({.has_volume = false});
    EXPECT_EQ(manager_, nullptr);
    make({.has_switch = false});
    EXPECT_EQ(manager_, nullptr);
    make();
    EXPECT_EQ(new_manager("Headphone"), nullptr);
    for (const Op op : {Op::ctl_open, Op::ctl_list}) {
        card_->inject({.op = op, .error = EIO});
        EXPECT_EQ(new_manager(), nullptr) << simcard::op_name(op);
    }
    card_->unplug();
    EXPECT_EQ(new_manager(), nullptr);
}

TEST_F(VolumeManagerTest, FailedWriteLeavesTheElementAsItWas) {
    make({.volume = 0});
    card_->inject({.op = Op::write_volume, .error = EIO});
    card_->inject({.op = Op::write_switch, .error = EPERM});
    volume_manager_set_volume(manager_.get(), 80);
    volume_manager_set_mute_state(manager_.get(), true);
    EXPECT_EQ(card_->volume(), 0);
    EXPECT_TRUE(card_->switch_on());
    EXPECT_THAT(events(), testing::IsEmpty());
    volume_manager_set_volume(manager_.get(), 80);
    EXPECT_EQ(card_->volume(), 204) << "the next one works";
}

TEST_F(VolumeManagerTest, RemovedElementReadsAsNeutralAndIsNotTouchedAgain) {
    make({.volume = 200, .on = false});
    card_->remove_element();
    EXPECT_THAT(events(), testing::IsEmpty());
    EXPECT_EQ(volume_manager_get_volume(manager_.get()), 0U);
    EXPECT_FALSE(volume_manager_get_mute_state(manager_.get()));
    volume_manager_set_volume(manager_.get(), 50);
    volume_manager_set_mute_state(manager_.get(), true);
}

TEST_F(VolumeManagerTest, MixerThatFailsForEverIsPolledABoundedNumberOfTimes) {
    make();
    card_->inject({.op = Op::read_event, .error = ENODEV, .times = simcard::Fault::forever});
    card_->set_volume(3);
    run_for(100ms);
    EXPECT_LE(calls(Op::read_event), 20U);
    EXPECT_THAT(events(), testing::IsEmpty());
}

}  // namespace
