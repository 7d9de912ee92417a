// What a device hands back of its volume when it takes the output.
#include <gtest/gtest.h>

#include "local/playback/control.h"

namespace {

TEST(Echo, WhatTheDeviceHandsBackWhenItTakesTheOutputUndoesNoPress) {
    local_core::Control control("", [] {});
    control.set_volume(50);
    control.set_muted(false);
    EXPECT_EQ(control.tell_device_volume(), 50U);
    EXPECT_FALSE(control.tell_device_muted());
    control.set_volume(34);
    control.set_muted(true);
    control.set_device_volume(35);  // what its mixer makes of it
    control.output_is_taken();
    EXPECT_EQ(control.tell_device_volume(), 35U);
    EXPECT_TRUE(control.tell_device_muted());
    control.set_device_volume(50);
    control.set_device_muted(false);
    EXPECT_EQ(control.settings().volume, 35U);
    EXPECT_EQ(control.settings().muted, true);

    control.set_device_volume(50);  // once more: that is somebody's wish
    EXPECT_EQ(control.settings().volume, 50U);
    EXPECT_EQ(control.tell_device_volume(), 50U);
    control.output_is_taken();  // nothing was changed before
    control.set_device_volume(40);
    control.set_device_volume(50);
    EXPECT_EQ(control.settings().volume, 50U);
}

}  // namespace
