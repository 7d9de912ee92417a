// Whole files: what a reader is given, and what is on the disk after a power cut.
#include "common/files/files.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "controller/session/house_state.h"
#include "local/device_uuid.h"
#include "temp_dir.h"

namespace {

using namespace nuvio;
using testing::ElementsAre;

std::vector<std::string> g_steps;  // what has been asked of the disk
bool g_disk_fails = false;

std::string name_of(const std::string& path) {
    return std::filesystem::path(path).filename();
}

}  // namespace

extern "C" {
int __real_fsync(int fd);
int __real_rename(const char* from, const char* to);

int __wrap_fsync(int fd) {
    g_steps.push_back(
        "fsync " + name_of(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd))));
    errno = EIO;
    return g_disk_fails ? -1 : __real_fsync(fd);
}

int __wrap_rename(const char* from, const char* to) {
    g_steps.push_back("rename " + name_of(from) + " " + name_of(to));
    return __real_rename(from, to);
}
}

namespace {

TEST(Files, WhatIsReplacedIsOnTheDiskBeforeItsNameIsAndTheNameBeforeTheAnswer) {
    const auto steps_of = [](const std::string& name, const auto& replace) {
        const TempDir dir;
        g_steps.clear();
        replace(dir / "state");
        EXPECT_THAT(g_steps, ElementsAre("fsync " + name + ".new",
                                         "rename " + name + ".new " + name, "fsync state"));
    };
    steps_of("text", [](const std::string& folder) { replace_file(folder + "/text", "new"); });
    steps_of("sessions.json", [](const std::string& folder) {
        controller::Changes changes;
        controller::HouseState(changes, folder).write_sessions();
    });
    steps_of("device_uuid", [](const std::string& folder) { local_core::device_uuid("", folder); });
}

TEST(Files, ReplacingThatFailsLeavesTheOldAlone) {
    const TempDir dir;
    dir.write("a", "old");
    g_disk_fails = true;
    EXPECT_EQ(replace_file(dir / "a", "new"), EIO);
    g_disk_fails = false;
    EXPECT_EQ(dir.read("a"), "old");
    EXPECT_FALSE(std::filesystem::exists(dir / "a.new"));
    EXPECT_EQ(replace_file(dir / "a/b", "new"), ENOTDIR);
}

TEST(Files, WhoMayReadTheOldMayReadTheNewAndNobodyElse) {
    const TempDir dir;
    const auto access_to = [&](const char* name) {
        struct stat status {};
        EXPECT_EQ(stat((dir / name).c_str(), &status), 0);
        return std::pair(status.st_mode & 07777U, status.st_uid);
    };
    const uid_t owner = getuid() == 0 ? 1000 : getuid();  // only root can give a file away
    dir.write("shared", "old");
    ASSERT_EQ(chown((dir / "shared").c_str(), owner, getgid()), 0);
    ASSERT_EQ(chmod((dir / "shared").c_str(), 0666), 0);
    dir.write("shared.new", "half of what was to be written when the power w");
    EXPECT_EQ(replace_file(dir / "shared", "new", 0600), 0);
    EXPECT_EQ(access_to("shared"), std::pair(0666U, owner));
    EXPECT_EQ(dir.read("shared"), "new");
    dir.write("secret.new", "");
    EXPECT_EQ(replace_file(dir / "secret", "new", 0600), 0);
    EXPECT_EQ(access_to("secret"), std::pair(0600U, getuid()));
}

TEST(Files, AReaderGetsNoMoreThanItAskedForAndNeverWaits) {
    const TempDir dir;
    std::string lines(40'000, 'x');
    lines.append("\nlast");
    const std::string big = dir.write("big", lines);
    EXPECT_EQ(read_file(big, 40'005).text.size(), 40'005U);
    EXPECT_FALSE(read_file(big, 40'005).cut);
    const FileText cut = read_file(big, 40'004);
    EXPECT_TRUE(cut.cut);
    EXPECT_EQ(cut.text.size(), 40'004U);
    EXPECT_EQ(cut.whole_lines().size(), 40'001U);
    ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(read_file(dir / "pipe", 10).error, EINVAL);
    EXPECT_EQ(read_file(dir.path(), 10).error, EINVAL);
    EXPECT_EQ(read_file(dir / "none", 10).error, ENOENT);
    EXPECT_FALSE(read_file("/proc/self/status", 100'000).text.empty());
}

TEST(Files, MakingOneLeavesOneThatIsThereAlone) {
    const TempDir dir;
    EXPECT_EQ(make_file(dir / "a", "one"), 0);
    EXPECT_EQ(make_file(dir / "a", "two"), EEXIST);
    EXPECT_EQ(dir.read("a"), "one");
}

}  // namespace
