// What files of music are called, and which picture is shown of each.
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
#include <wavfile.h>
#include <xiphcomment.h>

#include "common/music/names.h"
#include "common/music/pictures.h"
#include "common/music/tags.h"
#include "local_core/audio_files.h"

namespace {

using namespace nuvio;
using namespace std::string_literals;
using testing::ElementsAre;

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

TEST(Music, TheFirstFrontCoverThatCanBeShownIsFoundInEveryKindOfFile) {
    const TempDir folder;
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
        EXPECT_FALSE(embedded_picture(open_file(file.path()))) << file.path();
        {
            TagLib::FileRef reference(file.path().c_str(), false);
            ASSERT_FALSE(reference.isNull()) << file.path();
            add_pictures_to(reference.file(), file.path().filename());
            reference.tag()->setTitle("  Title\n");
            ASSERT_TRUE(reference.save()) << file.path();
        }
        EXPECT_EQ(embedded_picture(open_file(file.path())), kFront) << file.path();
        EXPECT_EQ(read_tags(open_file(file.path())).title, "Title") << file.path();
    }
    const std::string none = folder.write("none.flac", "fLaC is not enough");
    EXPECT_FALSE(embedded_picture(open_file(none)));
    EXPECT_EQ(read_tags(open_file(none)).duration_ms, 0);
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

}  // namespace
