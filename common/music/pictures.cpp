#include "common/music/pictures.h"

#include <aifffile.h>
#include <attachedpictureframe.h>
#include <dirent.h>
#include <flacfile.h>
#include <id3v2tag.h>
#include <mp4file.h>
#include <mpegfile.h>
#include <wavfile.h>
#include <xiphcomment.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

#include "common/music/open_music.h"
#include "common/released_by.h"
#include "common/text.h"

namespace nuvio {

namespace {

// Smaller goes before; none: no picture.
std::optional<size_t> rank_of(std::string_view name) {
    size_t rank = 0;
    for (const std::string_view ending : {".jpg", ".jpeg", ".png", ".webp", ".gif"}) {
        for (const std::string_view stem : {"cover", "folder", "front"}) {
            ++rank;
            if (name.size() == stem.size() + ending.size() &&
                starts_with_ignoring_case(name, stem) && ends_with_ignoring_case(name, ending)) {
                return rank;
            }
        }
    }
    return std::nullopt;
}

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

    std::optional<std::string> chosen() const {
        return m_chosen.isEmpty() ? std::nullopt
                                  : std::optional<std::string>({m_chosen.data(), m_chosen.size()});
    }

  private:
    TagLib::ByteVector m_chosen;
    bool m_is_front = false;
};

}  // namespace

const PictureKind* picture_kind_of(std::string_view bytes) {
    static constexpr struct {
        size_t at;
        std::string_view magic;
        PictureKind kind;
    } kKinds[] = {{0, "\xFF\xD8\xFF", {"image/jpeg", ".jpg"}},
                  {0, "\x89PNG\r\n\x1A\n", {"image/png", ".png"}},
                  {0, "GIF8", {"image/gif", ".gif"}},
                  {8, "WEBP", {"image/webp", ".webp"}}};
    const auto* const found = std::ranges::find_if(kKinds, [bytes](const auto& row) {
        return bytes.size() > row.at && bytes.substr(row.at).starts_with(row.magic);
    });
    return found == std::end(kKinds) ? nullptr : &found->kind;
}

std::vector<std::string> pictures_in(UniqueFd folder) {
    const std::unique_ptr<DIR, ReleasedBy<closedir>> listing(fdopendir(folder.get()));
    if (listing == nullptr) {
        return {};
    }
    folder.release();  // the DIR's now
    std::vector<std::pair<size_t, std::string>> found;
    while (const dirent* entry = readdir(listing.get())) {
        if (const std::optional<size_t> rank = rank_of(entry->d_name)) {
            found.emplace_back(*rank, entry->d_name);
        }
    }
    // Of "Cover.jpg" and "cover.jpg" the latter.
    std::ranges::sort(found, [](const auto& a, const auto& b) {
        return a.first != b.first ? a.first < b.first : a.second > b.second;
    });
    std::vector<std::string> names;
    std::ranges::transform(found, std::back_inserter(names),
                           [](auto& picture) { return std::move(picture.second); });
    return names;
}

std::optional<std::string> embedded_picture(UniqueFd fd) {
    const OpenMusic music(std::move(fd));
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
    return choice.chosen();
}

}  // namespace nuvio
