// Covers inside files of every kind that has them.
#include "local/track/cover.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <taglib/aifffile.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/fileref.h>
#include <taglib/flacfile.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/wavfile.h>
#include <taglib/xiphcomment.h>

#include <filesystem>

#include "local_core/audio_files.h"

namespace {

using namespace local_core;
using namespace std::string_literals;

const std::string kFront = "\x89PNG\r\n\x1a\nfront"s;
const std::string kBack = "\x89PNG\r\n\x1a\nback"s;

TagLib::ByteVector bytes(const std::string& text) {
    return {text.data(), static_cast<unsigned>(text.size())};
}

TagLib::FLAC::Picture* picture(const std::string& text, bool is_front) {
    auto* const made = new TagLib::FLAC::Picture();  // the file's from then on
    made->setType(is_front ? TagLib::FLAC::Picture::FrontCover : TagLib::FLAC::Picture::BackCover);
    made->setData(bytes(text));
    return made;
}

void add_to(TagLib::ID3v2::Tag& tag) {
    using Frame = TagLib::ID3v2::AttachedPictureFrame;
    for (const bool is_front : {false, true}) {
        auto* const frame = new Frame();  // the tag's from then on
        frame->setMimeType("image/png");
        frame->setType(is_front ? Frame::FrontCover : Frame::BackCover);
        frame->setPicture(bytes(is_front ? kFront : kBack));
        tag.addFrame(frame);
    }
}

void add_covers(const std::string& path) {
    TagLib::FileRef reference(path.c_str(), false);
    ASSERT_FALSE(reference.isNull()) << path;
    TagLib::File* const file = reference.file();
    if (auto* const flac = dynamic_cast<TagLib::FLAC::File*>(file)) {
        flac->addPicture(picture(kBack, false));
        flac->addPicture(picture(kFront, true));
    } else if (auto* const mpeg = dynamic_cast<TagLib::MPEG::File*>(file)) {
        add_to(*mpeg->ID3v2Tag(true));
    } else if (auto* const wav = dynamic_cast<TagLib::RIFF::WAV::File*>(file)) {
        add_to(*wav->ID3v2Tag());
    } else if (auto* const aiff = dynamic_cast<TagLib::RIFF::AIFF::File*>(file)) {
        add_to(*aiff->tag());
    } else if (auto* const mp4 = dynamic_cast<TagLib::MP4::File*>(file)) {
        TagLib::MP4::CoverArtList covers;
        covers.append({TagLib::MP4::CoverArt::PNG, bytes(kFront)});
        mp4->tag()->setItem("covr", covers);
    } else if (auto* const xiph = dynamic_cast<TagLib::Ogg::XiphComment*>(file->tag())) {
        xiph->addPicture(picture(kBack, false));
        xiph->addPicture(picture(kFront, true));
    }
    ASSERT_TRUE(file->save()) << path;
}

std::optional<CoverImage> cover_of(const std::string& path) {
    return embedded_cover(nuvio::UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
}

TEST(Cover, TheFrontOneIsFoundInEveryKindOfFile) {
    const TempDir folder;
    for (const auto& [name, format] : {std::pair{"a.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
                                       {"a.mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III},
                                       {"a.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
                                       {"a.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16},
                                       {"a.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16}}) {
        write_audio(folder, name, 4410, format);
    }
    // As little as an MPEG-4 file can be.
    folder.write("a.m4a", "\0\0\0\x10"s + "ftypM4A \0\0\0\0"s + "\0\0\0\x08moov"s);
    for (const auto& file : std::filesystem::directory_iterator(folder.path())) {
        EXPECT_FALSE(cover_of(file.path())) << file.path();
        add_covers(file.path());
        const auto cover = cover_of(file.path());
        EXPECT_EQ(cover ? cover->bytes : "", kFront) << file.path();
    }
    EXPECT_FALSE(cover_of(folder.write("none.flac", "fLaC is not enough")));
}

TEST(Cover, IsAFileAsLongAsOneOfThoseWhoKeepItLives) {
    const TempDir folder;
    setenv("NUVIO_STATE_DIR", folder.path().c_str(), 1);
    const auto first = KeptCover::keep({kFront});
    auto again = KeptCover::keep({kFront});
    EXPECT_NE(KeptCover::keep({kBack})->url(), first->url());
    again.reset();
    const std::filesystem::directory_iterator files(folder.path());
    EXPECT_EQ(std::distance(files, {}), 1) << "the end of the last: test_content.py";
    EXPECT_EQ(KeptCover::keep({"<svg>"}), nullptr) << "nothing that can run is handed on";
}

}  // namespace
