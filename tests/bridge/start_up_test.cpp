// From the process's entry to the bridge: settings, network, the platform's notifications.
#include <cstdio>
#include <fstream>

#include "bridge/service_fixture.h"
#include "platform/Environment.h"
#include "startup/device_settings.h"

using namespace android;
using namespace service_test;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class StartUp : public Service {
  protected:
    Lines gather(const char* mac_path = "/nonexistent") {
        KORAHelper kora;
        return gatherDeviceInfo(kora, mac_path).value_or(Lines{});
    }
};

TEST_F(StartUp, SetItemsComeInTheOrderOfTheArray) {
    {
        const fake_platform::Locked platform = fake_platform::state();
        platform->items.insert({{KFeatureNuvioConnectHttpPort, "9000"},
                                {KFeatureNuvioConnectLog, "3"},
                                {KFeatureNuvioConnectVolume_Element, "PCM"},
                                {KFeatureNuvioConnectVolume_Device, "hw:1"},
                                {kALSAOutputDeviceName, "hw:0"}});
        platform->friendly_name.text = "Kitchen";
        platform->manufacturer = {false, "half known"};
        platform->model.known = false;
    }
    EXPECT_THAT(gather(), ElementsAre("9000", "id", "secret", "Kitchen", "half known", "VantaSync",
                                      "3", "hw:0", "PCM", HasSubstr("Vanta_"), "hw:1"));
}

TEST_F(StartUp, SerialNumberIsTheWifiAddressOnlyIfItLooksLikeOne) {
    const std::string path = testing::TempDir() + "wifi_address";
    const auto serial_for = [&](const std::string& content) {
        std::ofstream(path) << content;
        return gather(path.c_str())[DEVICE_INFO_SERIAL_NUMBER];
    };
    EXPECT_EQ(serial_for("a4:5E:60:01:02:0f\nmore"), "a45E6001020f");
    EXPECT_EQ(serial_for("a4:5e:60:01:02:0f"), "a45e6001020f");
    EXPECT_THAT(serial_for("a4:5e:60:01:02:0\n"), HasSubstr("Vanta_"));
    EXPECT_THAT(serial_for("a4:5e:60:01:02:0f0\n"), HasSubstr("Vanta_"));
    std::remove(path.c_str());
}

TEST_F(StartUp, WithoutCredentialsThereIsNoBridge) {
    fake_platform::state()->items[KFeatureNuvioConnectApp_secret] = "";
    const sp<NuvioConnectStart> start = NuvioConnectStart::GetInstance();
    start->run("start", -16, 0);
    start->join();
    EXPECT_EQ(countLines("err NuvioKora: APPID or Appsecret is empty"), 1U);
    EXPECT_THAT(fake_modules::state()->journal, testing::IsEmpty());
}

TEST_F(StartUp, OnlyANonZeroEnableItemStartsTheService) {
    for (const char* item : {"0", "", "abc"}) {
        fake_platform::state()->items[kFeatureNuvioConnect] = item;
        EXPECT_EQ(runService(), 0);
    }
    EXPECT_TRUE(fake_platform::state()->nesh == nullptr);
}

}  // namespace
