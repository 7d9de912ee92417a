// What files of music are called, which picture is shown of each, and what happens to a reader
// whose file is not what it seems: the real one, and one that a file has taken over.
#include <aifffile.h>
#include <attachedpictureframe.h>
#include <fcntl.h>
#include <fileref.h>
#include <flacfile.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <id3v2tag.h>
#include <mp4file.h>
#include <mpegfile.h>
#include <png.h>
#include <turbojpeg.h>
#include <unistd.h>
#include <wavfile.h>
#include <webp/decode.h>
#include <webp/encode.h>
#include <xiphcomment.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "common/environment.h"
#include "common/music/names.h"
#include "common/music/pictures.h"
#include "local_core/audio_files.h"
#include "reader/client/music_reader.h"
#include "reader/client/picture_scaler.h"
#include "reader/harmful_files.h"

namespace {

using namespace nuvio;
using namespace nuvio::reader;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string kBack = "\x89PNG\r\n\x1a\nback"s;
const std::string kFront = "GIF89a front"s;
const std::string kSecond = "\xff\xd8\xff second front"s;
const std::string kUnknown = "<svg>"s;

TagLib::ByteVector bytes(const std::string& text) {
    return {text.data(), static_cast<unsigned>(text.size())};
}

// A front cover that can't be shown, a back cover, two front covers.
template <typename Picture, typename Add>
void add_pictures(void (Picture::*set)(const TagLib::ByteVector&), const Add& add) {
    for (const auto& [text, kind] : {std::pair(kUnknown, Picture::FrontCover),
                                     {kBack, Picture::BackCover},
                                     {kFront, Picture::FrontCover},
                                     {kSecond, Picture::FrontCover}}) {
        auto* const picture = new Picture();  // the file's from then on
        picture->setMimeType("image/png");    // which may be a lie
        picture->setType(kind);
        (picture->*set)(bytes(text));
        add(picture);
    }
}

void add_to(TagLib::ID3v2::Tag* tag) {
    using Frame = TagLib::ID3v2::AttachedPictureFrame;
    add_pictures<Frame>(&Frame::setPicture, [tag](Frame* frame) { tag->addFrame(frame); });
}

void add_pictures_to(TagLib::File* file, const std::string& name) {
    using Picture = TagLib::FLAC::Picture;
    if (auto* const flac = dynamic_cast<TagLib::FLAC::File*>(file)) {
        if (name.starts_with("id3")) {
            add_to(flac->ID3v2Tag(true));
        } else {
            add_pictures<Picture>(&Picture::setData,
                                  [flac](Picture* picture) { flac->addPicture(picture); });
        }
    } else if (auto* const mpeg = dynamic_cast<TagLib::MPEG::File*>(file)) {
        add_to(mpeg->ID3v2Tag(true));
    } else if (auto* const wav = dynamic_cast<TagLib::RIFF::WAV::File*>(file)) {
        add_to(wav->ID3v2Tag());
    } else if (auto* const aiff = dynamic_cast<TagLib::RIFF::AIFF::File*>(file)) {
        add_to(aiff->tag());
    } else if (auto* const mp4 = dynamic_cast<TagLib::MP4::File*>(file)) {
        TagLib::MP4::CoverArtList covers;
        for (const std::string& text : {kUnknown, kFront, kBack}) {  // of no kind: the first
            covers.append({TagLib::MP4::CoverArt::PNG, bytes(text)});
        }
        mp4->tag()->setItem("covr", covers);
    } else if (auto* const xiph = dynamic_cast<TagLib::Ogg::XiphComment*>(file->tag())) {
        add_pictures<Picture>(&Picture::setData,
                              [xiph](Picture* picture) { xiph->addPicture(picture); });
    }
}

UniqueFd open_file(const std::string& path) {
    return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

template <typename Result>
std::string failure_of(const Outcome<Result>& outcome) {
    const auto* const failure = std::get_if<Failure>(&outcome);
    return failure == nullptr                     ? "none"
           : failure->kind == Failure::Kind::file ? failure->reason
                                                  : "not the file's: " + failure->reason;
}

// Fail the test where there is none.
template <typename Result>
Result result_of(Outcome<Result> outcome, const std::string& path) {
    EXPECT_EQ(failure_of(outcome), "none") << path;
    auto* const result = std::get_if<Result>(&outcome);
    return result != nullptr ? std::move(*result) : Result{};
}

Tags tags_of(MusicReader& reader, const std::string& path) {
    return result_of(reader.tags(open_file(path)), path);
}

std::string picture_of(MusicReader& reader, const std::string& path) {
    return result_of(reader.picture(open_file(path)), path).bytes();
}

TEST(Reader, TheFirstFrontCoverThatCanBeShownIsFoundInEveryKindOfFile) {
    const TempDir folder;
    MusicReader reader;
    for (const auto& [name, format] : {std::pair{"a.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
                                       {"id3.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
                                       {"a.mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III},
                                       {"a.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
                                       {"a.opus", SF_FORMAT_OGG | SF_FORMAT_OPUS},
                                       {"a.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16},
                                       {"a.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16}}) {
        write_audio(folder, name, 4800, format, 48000);
    }
    // As little as an MPEG-4 file can be.
    folder.write("a.m4a", "\0\0\0\x10"s + "ftypM4A \0\0\0\0"s + "\0\0\0\x08moov"s);
    for (const auto& file : std::filesystem::directory_iterator(folder.path())) {
        EXPECT_EQ(picture_of(reader, file.path()), "");
        {
            TagLib::FileRef reference(file.path().c_str(), false);
            ASSERT_FALSE(reference.isNull()) << file.path();
            add_pictures_to(reference.file(), file.path().filename());
            reference.tag()->setTitle("  Title\n");
            ASSERT_TRUE(reference.save()) << file.path();
        }
        EXPECT_EQ(picture_of(reader, file.path()), kFront) << file.path();
        EXPECT_EQ(tags_of(reader, file.path()).title, "Title") << file.path();
    }
    const std::string none = folder.write("none.flac", "fLaC is not enough");
    EXPECT_EQ(picture_of(reader, none), "");
    EXPECT_EQ(tags_of(reader, none).duration_ms, 0);
}

TEST(Music, OfThePicturesBesideItTheCoverGoesFirstInWhateverCase) {
    const TempDir folder;
    for (const char* name : {"Front.PNG", "FOLDER.jpeg", "front.webp", "Cover.jpg", "cover.jpg",
                             "cover.jpg.txt", "cover art.jpg", "cover", "folder.JPG"}) {
        folder.write(name, "");
    }
    EXPECT_THAT(pictures_in(UniqueFd(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY))),
                ElementsAre("cover.jpg", "Cover.jpg", "folder.JPG", "FOLDER.jpeg", "Front.PNG",
                            "front.webp"));
    EXPECT_THAT(pictures_in(UniqueFd()), ElementsAre());
    EXPECT_EQ(picture_kind_of("RIFF\x10\0\0\0WEBPVP8 "s)->type, "image/webp");
    EXPECT_EQ(picture_kind_of("RIFF\x10\0\0\0WAVEfmt "s), nullptr);
}

TEST(Music, NamesAreReadByTheirEndings) {
    EXPECT_EQ(audio_kind_of("a.AIFC")->type, "audio/aiff");
    EXPECT_EQ(audio_kind_of("/b/c.dff")->type, "audio/x-dff");
    EXPECT_EQ(audio_kind_of(".wav"), nullptr);
    EXPECT_EQ(audio_kind_of("wav"), nullptr);
    EXPECT_EQ(audio_kind_of("a.wav.part"), nullptr);
    EXPECT_TRUE(is_playlist_name("List.M3U8"));
}

// ---- Pictures -----------------------------------------------------------------------------------

constexpr int kWidth = 2000;
constexpr int kHeight = 1000;
using Bytes = std::vector<uint8_t>;

// Red, the right half blue, which covers a third: blue, green, red and cover of each pixel.
Bytes red_and_pale_blue() {
    Bytes pixels;
    for (int i = 0; i < kWidth * kHeight; ++i) {
        const bool is_left = i % kWidth < kWidth / 2;
        pixels.insert(pixels.end(), {static_cast<uint8_t>(is_left ? 0 : 255), 0,
                                     static_cast<uint8_t>(is_left ? 255 : 0),
                                     static_cast<uint8_t>(is_left ? 255 : 85)});
    }
    return pixels;
}

std::string text_of(const uint8_t* bytes, size_t size) {
    return {reinterpret_cast<const char*>(bytes), size};
}

std::string as_jpeg(const Bytes& pixels) {
    const tjhandle encoder = tjInitCompress();
    unsigned char* bytes = nullptr;
    unsigned long size = 0;
    tjCompress2(encoder, pixels.data(), kWidth, 0, kHeight, TJPF_BGRX, &bytes, &size, TJSAMP_420,
                90, 0);
    std::string text = text_of(bytes, size);
    tjFree(bytes);
    tjDestroy(encoder);
    return text;
}

std::string as_png(const Bytes& pixels) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = kWidth;
    image.height = kHeight;
    image.format = PNG_FORMAT_BGRA;
    Bytes bytes(kWidth * kHeight * 4);
    png_alloc_size_t size = bytes.size();
    png_image_write_to_memory(&image, bytes.data(), &size, 0, pixels.data(), 0, nullptr);
    return text_of(bytes.data(), size);
}

std::string as_webp(const Bytes& pixels) {
    uint8_t* bytes = nullptr;
    const size_t size = WebPEncodeLosslessBGRA(pixels.data(), kWidth, kHeight, kWidth * 4, &bytes);
    std::string text = text_of(bytes, size);
    WebPFree(bytes);
    return text;
}

struct Seen {
    int width = 0, height = 0;
    int left = 0, right = 0;  // 0xRGB, from 0 to 3 each
};

Seen look_at(const std::string& jpeg) {
    Seen seen;
    const tjhandle decoder = tjInitDecompress();
    const auto* const bytes = reinterpret_cast<const uint8_t*>(jpeg.data());
    int ignored = 0;
    tjDecompressHeader3(decoder, bytes, jpeg.size(), &seen.width, &seen.height, &ignored, &ignored);
    Bytes pixels(static_cast<size_t>(3) * static_cast<size_t>(seen.width * seen.height));
    tjDecompress2(decoder, bytes, jpeg.size(), pixels.data(), seen.width, 0, seen.height, TJPF_RGB,
                  0);
    tjDestroy(decoder);
    const auto colour = [&pixels](int at) {
        int rounded = 0;
        for (int i = 0; i < 3; ++i) {
            rounded = rounded << 4 | (pixels[static_cast<size_t>(3 * at + i)] + 42) / 85;
        }
        return rounded;
    };
    const int middle = seen.height / 2 * seen.width;
    seen.left = colour(middle + seen.width / 4);
    seen.right = colour(middle + seen.width * 3 / 4);
    return seen;
}

TEST(Scaler, EveryKindOfPictureBecomesAJpegOfTheSizeAskedFor) {
    const TempDir folder;
    const Bytes pixels = red_and_pale_blue();
    constexpr int kRed = 0x300;
    for (const auto& [name, bytes, right] : {std::tuple("a.jpg", as_jpeg(pixels), 0x003),
                                             {"a.png", as_png(pixels), 0x223},
                                             {"a.webp", as_webp(pixels), 0x223}}) {
        for (const uint32_t edge : {320U, 1000U, 4000U}) {
            PictureScaler scaler;
            const auto scaled = scaler.scaled(open_file(folder.write(name, bytes)), edge);
            ASSERT_EQ(failure_of(scaled), "none") << name;
            const Seen seen = look_at(std::get<Picture>(scaled).bytes());
            EXPECT_EQ(seen.width, std::min<int>(static_cast<int>(edge), kWidth)) << name;
            EXPECT_EQ(seen.height, seen.width / 2) << name;
            EXPECT_EQ(seen.left, kRed) << name << std::hex << seen.left;
            EXPECT_EQ(seen.right, right) << name << std::hex << seen.right;
        }
        PictureScaler scaler;
        const std::string damaged = bytes.substr(0, 300);
        const auto nothing = scaler.scaled(open_file(folder.write(name, damaged)), 320);
        EXPECT_EQ(failure_of(nothing), "none") << name;
    }
    PictureScaler scaler;
    for (const std::string& other : {kFront, kUnknown, ""s}) {
        const auto none = scaler.scaled(open_file(folder.write("other", other)), 320);
        EXPECT_EQ(std::get<Picture>(none).size, 0U) << other;
    }
}

// ---- Files that are made to harm ----------------------------------------------------------------

#ifdef NUVIO_SANITIZED
// Its runtime has its own way to end, which the walls end, and room without a limit.
constexpr char kCrash[] = "its reader";
constexpr char kNoMemory[] = "its reader";
#else
constexpr char kCrash[] = "signal 11";
constexpr char kNoMemory[] = "too much memory";
#endif

TEST(Reader, AFileThatEndsItsReaderEndsNothingElse) {
    const TempDir folder;
    MusicReader reader;
    const AudioFile good =
        write_audio(folder, "good.flac", 48000, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    for (const auto& [name, bytes] : {std::pair("small.m4a"s, m4a_of_nested_atoms(700)),
                                      {"large.m4a"s, m4a_of_nested_atoms(100'000)},
                                      {"small.mp3"s, mp3_of_nested_chapters(340)},
                                      {"large.mp3"s, mp3_of_nested_chapters(20'000)}}) {
        const std::string path = folder.write(name, bytes);
        for (const std::string& failure : {failure_of(reader.tags(open_file(path))),
                                           failure_of(reader.picture(open_file(path)))}) {
            EXPECT_THAT(failure, testing::AnyOf("none", HasSubstr(kCrash), HasSubstr(kNoMemory)))
                << name;
        }
        EXPECT_EQ(tags_of(reader, good.path).duration_ms, 1088) << name;
    }
    // A title of 2 MB, of a file that takes no room on its disk.
    const std::string title = folder.write("title.mp3", id3("TIT2" + syncsafe(2 << 20), 3 << 20));
    ASSERT_EQ(truncate(title.c_str(), 4 << 20), 0);
    EXPECT_EQ(failure_of(reader.tags(open_file(title))), "none");
}

// ---- A reader that a file has taken over --------------------------------------------------------

class TakenOver : public testing::Test {
  protected:
    void SetUp() override {
        if (getenv("NUVIO_READER_UNFILTERED") != nullptr) {
            GTEST_SKIP() << "this kernel has no filter of system calls";
        }
        const auto here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
        setenv("NUVIO_READERS", (here / "attacking").c_str(), 1);
    }
    void TearDown() override { setenv("NUVIO_READERS", m_readers.c_str(), 1); }

    UniqueFd file(const std::string& what) { return open_file(m_folder.write("file", what)); }

    // Of the only process that this one has, as the kernel would choose it.
    static std::string out_of_memory_score() {
        std::string child;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::ifstream(task.path() / "children") >> child;
        }
        std::ifstream score("/proc/" + child + "/oom_score_adj");
        return {std::istreambuf_iterator<char>(score), {}};
    }
    static size_t open_descriptors() {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    const std::string m_readers = environment_text("NUVIO_READERS");
    const TempDir m_folder;
    MusicReader m_reader;
    const size_t m_descriptors = open_descriptors();
};

TEST_F(TakenOver, WhateverItTriesCostsItsOwnFile) {
    constexpr char kRefused[] = "signal 31";  // SIGSYS
    for (const auto& [attack, end] : {std::pair{"open a file", kRefused},
                                      {"make a file", kRefused},
                                      {"make a socket", kRefused},
                                      {"connect", kRefused},
                                      {"listen", kRefused},
                                      {"execute", kRefused},
                                      {"fork", kRefused},
                                      {"trace the parent", kRefused},
                                      {"kill the parent", kRefused},
                                      {"make code", kRefused},
                                      {"lift the limits", kRefused},
                                      {"turn for ever", "signal 27"},  // SIGPROF
                                      {"take memory", kNoMemory},
                                      {"take the stack", kCrash},
                                      {"touch nothing", kCrash},
                                      {"half an answer", "lied"},
                                      {"an answer of another's", "lied"},
                                      {"leave", "status 0"}}) {
        EXPECT_THAT(failure_of(m_reader.tags(file(attack))), HasSubstr(end)) << attack;
        EXPECT_EQ(std::get<Tags>(m_reader.tags(file("a title"))).title, "a title") << attack;
    }
    EXPECT_FALSE(std::filesystem::exists("made"));
}

TEST_F(TakenOver, NothingItSaysIsBelieved) {
    const Tags lies = std::get<Tags>(m_reader.tags(file("lie")));
    EXPECT_EQ(lies.title, "");
    EXPECT_EQ(lies.artist, std::string(300, 'a'));
    EXPECT_EQ(std::tuple(lies.disc, lies.duration_ms, lies.rate_hz),
              std::tuple(9999U, 0, 10'000'000U));
    for (const char* attack : {"shrink", "longer", "huge", "text"}) {
        EXPECT_THAT(failure_of(m_reader.picture(file(attack))),
                    testing::AnyOf(HasSubstr("signal 31"), HasSubstr("lied")))
            << attack;
    }
    EXPECT_EQ(std::get<Picture>(m_reader.picture(file(""))).bytes(), "GIF89a");

    // What it says unasked is not taken for the next file's.
    for (const char* attack : {"a flood", "a descriptor"}) {
        MusicReader reader;
        EXPECT_EQ(std::get<Tags>(reader.tags(file(attack))).title, "x");
        EXPECT_THAT(failure_of(reader.tags(file("a title"))), HasSubstr("lied")) << attack;
        EXPECT_EQ(std::get<Tags>(reader.tags(file("a title"))).title, "a title") << attack;
    }
    m_reader.rest();
    EXPECT_EQ(open_descriptors(), m_descriptors);
}

TEST_F(TakenOver, OneThatSaysNothingIsWaitedForNoLongerThanWanted) {
    std::thread impatient([this] {
        for (int i = 0; i < 1000 && out_of_memory_score() != "1000\n"; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(out_of_memory_score(), "1000\n");
        m_reader.interrupt();
    });
    EXPECT_EQ(failure_of(m_reader.tags(file("silence"))),
              "not the file's: no answer from its disk");
    impatient.join();
}

TEST_F(TakenOver, WithoutAReaderNothingIsRead) {
    setenv("NUVIO_READERS", "/nowhere", 1);
    EXPECT_THAT(failure_of(m_reader.tags(file("a title"))),
                HasSubstr("not the file's: /nowhere/nuvio-connect-reader: No such file"));
}

}  // namespace
