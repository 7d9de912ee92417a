// Covers as files for whoever shows the track.
#include "local/track/cover.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "temp_dir.h"

namespace {

using namespace local_core;
using namespace std::string_literals;

const std::string kFront = "\x89PNG\r\n\x1a\nfront"s;
const std::string kBack = "\x89PNG\r\n\x1a\nback"s;

TEST(Cover, IsAFileAsLongAsOneOfThoseWhoKeepItLives) {
    const TempDir folder;
    setenv("NUVIO_STATE_DIR", folder.path().c_str(), 1);
    const auto first = KeptCover::keep(kFront);
    auto again = KeptCover::keep(kFront);
    EXPECT_NE(KeptCover::keep(kBack)->url(), first->url());
    again.reset();
    const std::filesystem::directory_iterator files(folder.path());
    EXPECT_EQ(std::distance(files, {}), 1) << "the end of the last: test_content.py";
    EXPECT_EQ(KeptCover::keep("<svg>"), nullptr) << "nothing that can run is handed on";
}

}  // namespace
