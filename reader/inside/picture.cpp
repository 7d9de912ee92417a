#include "reader/inside/picture.h"

#include <aifffile.h>
#include <attachedpictureframe.h>
#include <flacfile.h>
#include <id3v2tag.h>
#include <mp4file.h>
#include <mpegfile.h>
#include <wavfile.h>
#include <xiphcomment.h>

#include <algorithm>

#include "common/music/pictures.h"
#include "reader/inside/music_file.h"

namespace nuvio::reader {

namespace {

// Of FLAC and ID3 the kinds have the same numbers.
constexpr int kFrontCover = 3;

// The one of several pictures that is shown.
class Choice {
  public:
    void offer(const TagLib::ByteVector& bytes, int kind) {
        const bool is_better = m_chosen.isEmpty() || (kind == kFrontCover && !m_is_front);
        if (is_better && bytes.size() <= kMaxPictureBytes &&
            picture_kind_of({bytes.data(), bytes.size()}) != nullptr) {
            m_chosen = bytes;
            m_is_front = kind == kFrontCover;
        }
    }
    void offer(const TagLib::List<TagLib::FLAC::Picture*>& pictures) {
        for (const auto* picture : pictures) {
            offer(picture->data(), picture->type());
        }
    }
    void offer(TagLib::Ogg::XiphComment* comment) {
        if (comment != nullptr) {
            offer(comment->pictureList());
        }
    }
    void offer(const TagLib::ID3v2::Tag* tag) {
        using Frame = TagLib::ID3v2::AttachedPictureFrame;
        if (tag == nullptr) {
            return;
        }
        for (const auto* frame : tag->frameList("APIC")) {
            if (const auto* picture = dynamic_cast<const Frame*>(frame)) {
                offer(picture->picture(), picture->type());
            }
        }
    }
    void offer(const TagLib::MP4::Tag* tag) {
        const TagLib::MP4::CoverArtList covers =
            tag != nullptr ? tag->item("covr").toCoverArtList() : TagLib::MP4::CoverArtList();
        for (const TagLib::MP4::CoverArt& cover : covers) {
            offer(cover.data(), 0);
        }
    }

    const TagLib::ByteVector& chosen() const { return m_chosen; }

  private:
    TagLib::ByteVector m_chosen;
    bool m_is_front = false;
};

}  // namespace

void read_picture(const UniqueFd& fd, char* picture, PictureAnswer* answer) {
    const MusicFile music(fd);
    TagLib::File* const file = music.file();
    Choice choice;
    if (auto* flac = dynamic_cast<TagLib::FLAC::File*>(file)) {
        choice.offer(flac->pictureList());
        choice.offer(flac->xiphComment());
        choice.offer(flac->ID3v2Tag());
    } else if (auto* mpeg = dynamic_cast<TagLib::MPEG::File*>(file)) {
        choice.offer(mpeg->ID3v2Tag());
    } else if (auto* mp4 = dynamic_cast<TagLib::MP4::File*>(file)) {
        choice.offer(mp4->tag());
    } else if (auto* wav = dynamic_cast<TagLib::RIFF::WAV::File*>(file)) {
        choice.offer(wav->ID3v2Tag());
    } else if (auto* aiff = dynamic_cast<TagLib::RIFF::AIFF::File*>(file)) {
        choice.offer(aiff->tag());
    } else if (file != nullptr) {
        choice.offer(dynamic_cast<TagLib::Ogg::XiphComment*>(file->tag()));
    }
    const TagLib::ByteVector& chosen = choice.chosen();
    std::copy(chosen.begin(), chosen.end(), picture);
    answer->size = chosen.size();
}

}  // namespace nuvio::reader
