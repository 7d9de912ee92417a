// CUE sheets: what they say, which files they mean, and parts of a sound as they are written.
#include "reader/inside/sheet.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "local_core/audio_files.h"
#include "reader/client/folder_sheets.h"

namespace {

using namespace nuvio;
using namespace nuvio::reader;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// "title/artist/file begin-end", in seconds.
std::vector<std::string> found_in(std::string_view text) {
    std::string fault;
    std::vector<std::string> found;
    for (const SheetTrack& track : parse_sheet(text, &fault)) {
        found.push_back(std::to_string(track.number) + " " + track.title + "/" + track.artist +
                        "/" + track.file + with_section("", track.section));
    }
    EXPECT_EQ(fault.empty(), !found.empty());
    return found.empty() ? std::vector{fault} : found;
}

TEST(Sheet, EachTrackEndsWhereTheNextOneOfItsFileBegins) {
    EXPECT_THAT(
        found_in("\xef\xbb\xbfREM COMMENT \"by hand\"\r\nPERFORMER Band\r\n"
                 "TITLE \"An album\"\r\n"
                 "file one.wav WAVE\r\n"
                 "  track 01 audio\r\n\tTITLE \"First \"one\" \"\r\n"
                 "    INDEX 00 00:00:00\r\n    INDEX 01 00:02:00\r\n"
                 "  TRACK 02 AUDIO\r\n    PERFORMER \"Her & Him\"\r\n"
                 "    INDEX 00 00:09:00\r\n    INDEX 01 00:10:01\r\n    INDEX 02 00:11:00\r\n"
                 "  TRACK 03 AUDIO\r\n    TITLE Th\xc3\xafrd\r\n    INDEX 00 100:59:74\r\n"
                 "FILE \"b b.wav\" WAVE\r\n    INDEX 01 00:00:00\r\n"
                 "  TRACK 04 MODE1/2352\r\n    INDEX 01 01:00:37\r\n"),
        ElementsAre("1 First \"one\"/Band/one.wav#t=0.000000,10.013333",
                    "2 /Her & Him/one.wav#t=10.013333",
                    "3 Th\xc3\xafrd/Band/b b.wav#t=0.000000,60.493333"));
    EXPECT_THAT(found_in("FILE a b.bin BINARY\rTRACK 1 AUDIO\rTITLE caf\xe9\rINDEX 1 0:0:0\r"),
                ElementsAre("1 caf\xc3\xa9//a b.bin"));
}

TEST(Sheet, OneWithAFaultIsNoneAndSaysWhere) {
    const std::string file = "FILE a WAVE\n";
    const std::string track = "TRACK 01 AUDIO\nINDEX 01 00:01:00\n";
    const std::string twice = track + track;
    std::string many = file;
    for (int n = 0; n < 100; ++n) {
        many += "TRACK 01 AUDIO\nINDEX 01 " + std::to_string(n) + ":00:00\n";
    }
    for (const auto& [text, fault] :
         {std::pair{std::string("\0\xff\x1b", 3), "it names no track"},
          {file, "it names no track"},
          {file + "TRACK 01 MODE1/2352\nINDEX 01 00:00:00", "no track"},
          {track, "line 2: a place of no track, or in no file"},
          {file + "INDEX 01 00:00:00", "line 2: a place of no track"},
          {file + track + "TRACK 02 AUDIO\nTITLE x", "without a place"},
          {file + twice, "line 5: a track that does not begin"},
          {file + "TRACK 01 AUDIO\nINDEX 01 00:60:00", "line 3: no time"},
          {file + "TRACK 01 AUDIO\nINDEX 01 00:00:75", "line 3: no time"},
          {file + "TRACK 01 AUDIO\nINDEX 01 -1:00:00", "line 3: no time"},
          {file + "TRACK 01 AUDIO\nINDEX 01 0000", "line 3: no time"},
          {many, "line 200: more than 99 tracks"}}) {
        EXPECT_THAT(found_in(text), ElementsAre(HasSubstr(fault))) << text.substr(0, 99);
    }
}

TEST(Sheet, AFileIsFoundByWhatItIsCalledNowadays) {
    const TempDir folder;
    for (const char* name : {"a.wav", "B.wav", "other.FLAC", "sheet.flac"}) {
        write_audio(folder, name, 44100);
    }
    MusicReader reader;
    const auto open_file = [&](const std::string& name) {
        return UniqueFd(open((folder / name).c_str(), O_RDONLY | O_CLOEXEC));
    };
    for (const auto& [line, file] : {std::pair{"a.wav", "a.wav"},
                                     {"C:\\Music\\b.WAV", "B.wav"},
                                     {"../secret/Other.wav", "other.FLAC"},
                                     {"long gone.ape", "sheet.flac"}}) {
        folder.write("sheet.cue", std::string("FILE \"") + line + "\" WAVE\n" +
                                      "TRACK 1 AUDIO\nINDEX 01 00:00:00\n"
                                      "TRACK 2 AUDIO\nINDEX 01 00:00:60\n");
        std::string told;
        FolderSheets sheets(reader, {"B.wav", "a.wav", "other.FLAC", "sheet.flac", "sheet.cue"},
                            open_file, [&](const std::string& name, const std::string& why) {
                                told.append(name).append(": ").append(why);
                            });
        const auto files = sheets.files_of("sheet.cue");
        EXPECT_THAT(std::get<std::vector<std::string>>(files), ElementsAre(file)) << line;
        const auto parts = std::get<FolderSheets::Parts>(sheets.parts_of(file));
        EXPECT_EQ(parts.sheet, "sheet.cue");
        ASSERT_EQ(parts.tracks.size(), 2U);
        EXPECT_EQ(parts.tracks[1].title, "Track 2");
        EXPECT_EQ(told, "");
    }
}

TEST(Section, ATimeIsExactToTheFrame) {
    for (const uint32_t rate : {44100U, 48000U, 96000U, 192000U, 705600U, 768000U}) {
        for (uint64_t n = 0; n < 6000; n += 7) {
            EXPECT_EQ(nearest_frame(time_us_of(n * 977, rate), rate), n * 977) << rate;
            EXPECT_EQ(nearest_frame(time_us_of(n, 75), rate), n * rate / 75) << rate;
        }
    }
    EXPECT_EQ(nearest_frame(Section::kLongest, 4'000'000), Section::kLongest * 4);
    EXPECT_EQ(time_us_of(UINT64_MAX, 16'000'000), Section::kLongest);
}

TEST(Section, AUrlSaysWhichPartAndAnythingElseIsTheWhole) {
    for (const Section& section : {Section{}, Section{0, 1}, Section{2'000'001, 5'999'999},
                                   Section{7, Section::kToTheEnd}}) {
        const std::string url = with_section("http://a/b#c.flac", section);
        EXPECT_EQ(section_of(url), section) << url;
        EXPECT_EQ(without_section(url), "http://a/b#c.flac");
    }
    EXPECT_EQ(section_of("a#t=10.5"), (Section{10'500'000, Section::kToTheEnd}));
    EXPECT_EQ(section_of("a#t=0,20"), (Section{0, 20'000'000}));
    for (const char* other : {"a#t=", "a#t=2,1", "a#t=1,1", "a#t=-1", "a#t=1,", "a#t=1.1234567",
                              "a#t=1:00", "a#t=1e3", "a#t=99999999", "#t=1,99999999999", "t=1,2"}) {
        EXPECT_TRUE(section_of(other).is_whole()) << other;
        EXPECT_EQ(without_section(other), other);
    }
}

}  // namespace
