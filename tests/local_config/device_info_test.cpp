#include "device_info/device_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

using testing::HasSubstr;

TEST(DeviceInfo, GivesBackTheTextsItWasGiven) {
    device_info* info =
        device_info_new("Kitchen", NUV_DEVICE_TYPE_SOUNDBAR, "Maker", "", "00:01", "app", nullptr);
    EXPECT_STREQ(device_info_get_device_name(info), "Kitchen");
    EXPECT_EQ(device_info_get_device_type(info), NUV_DEVICE_TYPE_SOUNDBAR);
    EXPECT_STREQ(device_info_get_manufacturer(info), "Maker");
    EXPECT_STREQ(device_info_get_model(info), "");
    EXPECT_STREQ(device_info_get_serial_number(info), "00:01");
    EXPECT_STREQ(device_info_get_app_id(info), "app");
    EXPECT_EQ(device_info_get_app_secret(info), nullptr);
    device_info_free(info);
}

TEST(DeviceInfo, DelegateLogsTheRenderersState) {
    device_info* info = device_info_new("", NUV_DEVICE_TYPE_SPEAKER, "", "", "", "", "secret");
    const nuv_renderer_state_delegate delegate = device_info_get_renderer_state_delegate(info);
    testing::internal::CaptureStdout();
    delegate.active_state_changed(nullptr, true, delegate.context);
    delegate.active_state_changed(nullptr, false, delegate.context);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(log, HasSubstr("INFO SampleApp: Renderer is now active\n"));
    EXPECT_THAT(log, HasSubstr("INFO SampleApp: Renderer is now inactive\n"));
    device_info_free(info);
}

TEST(DeviceInfoDeathTest, NamesTheFirstNullText) {
    const auto make = [](const char* name, const char* serial_number) {
        dup2(STDERR_FILENO, STDOUT_FILENO);  // where the line can be seen from outside
        device_info_new(name, NUV_DEVICE_TYPE_SPEAKER, "", "", serial_number, nullptr, nullptr);
    };
    EXPECT_DEATH(make(nullptr, nullptr), "device_info_new.*device_name != NULL");
    EXPECT_DEATH(make("", nullptr), "device_info_new.*serial_number != NULL");
    EXPECT_DEATH(make("", ""), "device_info_new.*app_id != NULL");
}

}  // namespace
