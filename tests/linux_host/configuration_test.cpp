// What the host reads: settings, state, identity, bus addresses.
#include <alsa/asoundlib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include "base/text.h"
#include "bus/bus_address.h"
#include "common/files/files.h"
#include "common/utf8.h"
#include "configuration/identity.h"
#include "configuration/settings.h"
#include "configuration/settings_edit.h"
#include "configuration/state_store.h"
#include "platform/Environment.h"
#include "platform/Kora.h"
#include "temp_dir.h"

using namespace nuvio;
using namespace nuvio::host;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

TEST(SettingsEdit, ChangesTheLineThatCountsAndNoOther) {
    const std::string text = "# b = 1\r\n#b = 2\na = 1\n a=2\nno line\n# end";
    EXPECT_EQ(edit_settings(text, {{"a", "3"}, {"b", "4"}, {"c", "5"}}),
              "# b = 1\r\n#b = 2\nb = 4\na = 1\na = 3\nno line\n# end\nc = 5\n");
    EXPECT_EQ(edit_settings("", {{"a", "1"}}), "a = 1\n");
}

TEST(SettingsEdit, ATextOfADevicesMakerIsNoSecondSetting) {
    const TempDir folder;
    setenv("NUVIO_SETTINGS", (folder / "settings.conf").c_str(), 1);
    std::string told;
    EXPECT_FALSE(change_settings({{"volume", "PCM\nhost.hook.stopped = /bin/x"}}, "", told));
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
    unsetenv("NUVIO_SETTINGS");
}

TEST(SettingsEdit, EachDevicesOutputIsItsOwnAndStaysWhereItsSettingsDo) {
    const TempDir folder;
    std::string told;
    const auto set_up = [&](const char* name, const char* output) {
        setenv("NUVIO_SETTINGS", (folder / name).c_str(), 1);
        return change_settings({{"output", output}}, output, told);
    };
    EXPECT_TRUE(set_up("settings.conf", "first"));
    EXPECT_TRUE(set_up("kitchen.conf", "second"));
    EXPECT_EQ(folder.read("alsa.conf"), "first");
    folder.write("kitchen.conf.new/in the way", "");
    folder.write("hall.conf.new/in the way", "");
    EXPECT_FALSE(set_up("kitchen.conf", "third") || set_up("hall.conf", "fourth"));
    EXPECT_EQ(folder.read("kitchen.alsa.conf"), "second");
    EXPECT_EQ(folder.read("kitchen.conf"), "output = second\n");
    EXPECT_FALSE(std::filesystem::exists(folder / "hall.alsa.conf") ||
                 std::filesystem::exists(folder / "kitchen.alsa.conf.old"));
    folder.write("kitchen.alsa.conf.old/in the way", "");  // as where there are no links
    EXPECT_FALSE(set_up("kitchen.conf", "fifth"));
    EXPECT_EQ(folder.read("kitchen.alsa.conf"), "fifth") << "better than none";
    unsetenv("NUVIO_SETTINGS");
}

TEST(SoundServer, GetsLongerPeriodsUnlessSomethingStandsBeforeItOrTheUserWantsOthers) {
    const TempDir folder;
    setenv("NUVIO_SETTINGS", (folder / "settings.conf").c_str(), 1);
    setenv("ALSA_CONFIG_PATH", (folder / "asound.conf").c_str(), 1);
    folder.write("asound.conf", "");
    use_alsa_configuration("out:A");
    const std::pair<std::string, long> rows[] = {
        {"pcm.out { @args [ A ] @args.A { type string } type pipewire }", 250'000},
        {"pcm.out other\n pcm.other { type pulse }", 250'000},
        {"pcm.out { type pulse }\n defaults.pcm.minperiodtime 20000", 20'000},
        {"pcm.out { type plug slave.pcm { type pulse } }", 5'000},
        {"pcm.out other\n pcm.other out", 5'000}};
    for (const auto& [pcms, expected] : rows) {
        folder.write("asound.conf", "defaults.pcm.minperiodtime 5000\n" + pcms);
        snd_config_t* found = nullptr;
        long period = 0;
        ASSERT_TRUE(snd_config_update_free_global() == 0 && snd_config_update() >= 0);
        snd_config_search_definition(snd_config, "pcm", "nobody", &found);
        ASSERT_EQ(snd_config_search(snd_config, "defaults.pcm.minperiodtime", &found), 0);
        EXPECT_TRUE(snd_config_get_integer(found, &period) == 0 && period == expected) << pcms;
    }
    unsetenv("NUVIO_SETTINGS");
}

TEST(Settings, LinesAreTakenApartAndBadOnesNamed) {
    const ParsedSettings parsed = parse_settings(
        "\xEF\xBB\xBF# a comment\r\n"
        "\n"
        "  alsa.output_device =  hw:0,0 \r\n"
        "a.b = x = y # z\n"
        "empty =\n"
        "no equals sign\n"
        "= no key\n"
        "Upper.Case = 1\n"
        "control = a\x01b\n"
        "latin1 = \xE4\n" +
        std::string(65, 'k') + " = 1\nlong = " + std::string(kMaxValueBytes + 1, 'v') +
        "\n"
        "a.b = later wins\n"
        "last = without a line end");
    EXPECT_THAT(parsed.values, UnorderedElementsAre(Pair("alsa.output_device", "hw:0,0"),
                                                    Pair("a.b", "later wins"), Pair("empty", ""),
                                                    Pair("last", "without a line end")));
    std::vector<size_t> lines;
    std::ranges::transform(parsed.problems, std::back_inserter(lines), &SettingsProblem::line);
    EXPECT_THAT(lines, ElementsAre(6, 7, 8, 9, 10, 11, 12));
}

TEST(Settings, TheShippedExampleIsWithoutFault) {
    const FileText example =
        read_file(NUVIO_SOURCE_DIR "/packaging/settings.conf", kMaxSettingsBytes);
    ASSERT_EQ(example.error, 0);
    EXPECT_THAT(parse_settings(example.text).problems, IsEmpty());
    EXPECT_EQ(parse_settings(example.text).values.at(kFeatureNuvioConnect), "1");
}

TEST(State, OfADamagedFileTheGoodLinesCountAndWhatCouldNotBeSavedIsSavedLater) {
    const TempDir dir;
    // A file where the folder should be: fails for root too.
    const std::string folder = dir.write("deep", "") + "/er";
    StateStore state(folder);
    EXPECT_THAT(state.load(), IsEmpty());
    EXPECT_TRUE(state.set(android::KORA_VOLUME, "35"));
    EXPECT_FALSE(state.set(android::KORA_VOLUME, "35"));               // nothing new
    EXPECT_FALSE(state.set(android::KORA_PLAYBACK_POSITION, "1000"));  // not kept
    EXPECT_FALSE(state.set(android::KORA_DEVICE_NAME, "two\nlines"));
    EXPECT_FALSE(state.set(android::KORA_VOLUME, "101"));
    state.save();
    std::filesystem::remove(dir / "deep");
    state.save();
    EXPECT_EQ(dir.read("deep/er/state"), "volume = 35\n");
    EXPECT_FALSE(std::filesystem::exists(folder + "/state.new"));
    dir.write("deep/er/state", std::string("name = \xFF\nvolume = 1000\nmute = MUTE\n\0\0\0", 38));
    EXPECT_THAT(StateStore(folder).load(), UnorderedElementsAre(Pair(android::KORA_MUTE, "MUTE")));
}

TEST(Identity, ComesFromTheMachineUnlessSet) {
    const TempDir root;
    root.write("etc/machine-info", "CHASSIS=vm\nPRETTY_HOSTNAME=\"Anna's Radio\"\n");
    root.write("sys/class/dmi/id/sys_vendor", "Acme\n");
    root.write("sys/class/dmi/id/product_name", "To Be Filled By O.E.M.\n");
    root.write("proc/device-tree/model", std::string("Board 2\0", 8));
    const TempDir bare;
    const auto texts = [](const std::string& settings, const TempDir& machine) {
        const Settings set(parse_settings(settings));
        return std::vector{friendly_name(set, machine.path()), manufacturer(set, machine.path()),
                           model(set, machine.path())};
    };
    EXPECT_THAT(texts("", root), ElementsAre("Anna's Radio", "Acme", "Board 2"));
    EXPECT_THAT(texts("host.friendly_name=F\nhost.manufacturer=M\nhost.model=N", root),
                ElementsAre("F", "M", "N"));
    EXPECT_THAT(texts("", bare), ElementsAre(testing::Not(""), "", ""));  // the host name
}

TEST(BusAddress, SessionGoesBeforeSystemAndTheRunOfTheBusDoesNotMatter) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/run/a%20b,guid=0123;unix:abstract=x", 1);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/system", 1);
    const auto texts = [](const std::string& choice) {
        std::vector<std::string> result;
        for (const BusAddress& address : bus_addresses(choice)) {
            result.push_back(address.text + " at " + address.socket_path);
        }
        return result;
    };
    EXPECT_THAT(texts(""), ElementsAre("unix:path=/run/a%20b at /run/a b", "unix:abstract=x at ",
                                       "unix:path=/run/system at /run/system"));
    EXPECT_THAT(texts("system"), ElementsAre("unix:path=/run/system at /run/system"));
    EXPECT_THAT(texts("none"), IsEmpty());
    EXPECT_THAT(texts("unix:path=/x,guid=1"), ElementsAre("unix:path=/x at /x"));
    EXPECT_THAT(texts(";;:"), ElementsAre(": at "));
}

TEST(Text, OnlyWellFormedUtf8GoesOut) {
    const std::string good = "a\xC3\xBC\xE2\x82\xAC\xEF\xBF\xBD\xF0\x9F\xBF\xBD";
    const std::string bad = "\xEF\xBF\xBD";
    EXPECT_EQ(to_utf8(good), good);
    EXPECT_FALSE(is_printable_utf8("\xC2\x9B"));
    EXPECT_EQ(printable("a\x1B[\xC2\x9B\x9B\n" + good), "a [ " + bad + " " + good);
    EXPECT_EQ(to_utf8("\xC0\x80"), bad + bad);            // overlong
    EXPECT_EQ(to_utf8("\xED\xA0\x80"), bad + bad + bad);  // surrogate
    EXPECT_EQ(to_utf8("x\xE2\x82"), "x" + bad + bad);     // cut
    for (const std::string none : {"\xEF\xBF\xBE", "\xEF\xB7\x90", "\xF0\x9F\xBF\xBF"}) {
        EXPECT_EQ(to_utf8(none).find(none), std::string::npos) << "the bus takes no noncharacter";
    }
    EXPECT_EQ(to_url("relative.jpg"), "");
}
