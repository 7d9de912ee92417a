#include "local/track/cover.h"

#include <taglib/aifffile.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/fileref.h>
#include <taglib/flacfile.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/tfilestream.h>
#include <taglib/wavfile.h>
#include <taglib/xiphcomment.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <string_view>
#include <system_error>

#include "common/files/files.h"
#include "common/fnv1a.h"
#include "local/texts/file_url.h"

namespace local_core {

namespace {

namespace fs = std::filesystem;

// ---- Inside a file ------------------------------------------------------------------------------

using Bytes = TagLib::ByteVector;

// The front cover, else the first picture: of FLAC and ID3 the kinds have the same numbers.
template <typename List, typename Picture>
Bytes choose(const List& pictures, Bytes (*bytes_of)(Picture&), int (*kind_of)(Picture&)) {
    constexpr int kFrontCover = 3;
    Bytes chosen;
    for (auto* const entry : pictures) {
        auto* const picture = dynamic_cast<Picture*>(entry);
        if (picture != nullptr && (chosen.isEmpty() || kind_of(*picture) == kFrontCover)) {
            chosen = bytes_of(*picture);
        }
    }
    return chosen;
}

Bytes cover_of(const TagLib::List<TagLib::FLAC::Picture*>& pictures) {
    using Picture = TagLib::FLAC::Picture;
    return choose<decltype(pictures), Picture>(
        pictures, [](Picture& picture) { return picture.data(); },
        [](Picture& picture) { return static_cast<int>(picture.type()); });
}

Bytes cover_of(const TagLib::ID3v2::Tag* tag) {
    using Picture = TagLib::ID3v2::AttachedPictureFrame;
    if (tag == nullptr) {
        return {};
    }
    const TagLib::ID3v2::FrameList& frames = tag->frameList("APIC");
    return choose<decltype(frames), Picture>(
        frames, [](Picture& picture) { return picture.picture(); },
        [](Picture& picture) { return static_cast<int>(picture.type()); });
}

Bytes cover_of(TagLib::MP4::Tag* tag) {
    const TagLib::MP4::CoverArtList covers =
        tag != nullptr ? tag->item("covr").toCoverArtList() : TagLib::MP4::CoverArtList();
    return covers.isEmpty() ? Bytes() : covers.front().data();
}

Bytes cover_in(TagLib::File& file) {
    if (auto* const flac = dynamic_cast<TagLib::FLAC::File*>(&file)) {
        const Bytes cover = cover_of(flac->pictureList());
        return cover.isEmpty() ? cover_of(flac->ID3v2Tag()) : cover;
    }
    if (auto* const mpeg = dynamic_cast<TagLib::MPEG::File*>(&file)) {
        return cover_of(mpeg->ID3v2Tag());
    }
    if (auto* const mp4 = dynamic_cast<TagLib::MP4::File*>(&file)) {
        return cover_of(mp4->tag());
    }
    if (auto* const wav = dynamic_cast<TagLib::RIFF::WAV::File*>(&file)) {
        return cover_of(wav->ID3v2Tag());
    }
    if (auto* const aiff = dynamic_cast<TagLib::RIFF::AIFF::File*>(&file)) {
        return cover_of(aiff->tag());
    }
    auto* const comment = dynamic_cast<TagLib::Ogg::XiphComment*>(file.tag());
    return comment != nullptr ? cover_of(comment->pictureList()) : Bytes();
}

// ---- As a file ----------------------------------------------------------------------------------

constexpr std::string_view kPrefix = "cover-";

struct Kept {
    std::mutex mutex;  // guards the map, and that a file is there as long as its entry lives
    std::map<std::string, std::weak_ptr<const KeptCover>> by_path;
};

Kept& kept() {
    // Never destroyed: a thread that hangs may outlive the process's end of the rest.
    static auto* const covers = new Kept();
    return *covers;
}

// By what the bytes are: display programs go by the ending.
const char* ending_of(std::string_view bytes) {
    static constexpr struct {
        size_t at;
        std::string_view magic;
        const char* ending;
    } kKinds[] = {
        {0, "\xff\xd8\xff", ".jpg"}, {0, "\x89PNG\r\n\x1a\n", ".png"}, {8, "WEBP", ".webp"}};
    for (const auto& kind : kKinds) {
        if (bytes.size() > kind.at && bytes.substr(kind.at).starts_with(kind.magic)) {
            return kind.ending;
        }
    }
    return nullptr;
}

std::string state_directory() {
    const char* const named = std::getenv("NUVIO_STATE_DIR");
    return named != nullptr ? named : "";
}

// What a process that was killed has left.
void remove_old_covers(const fs::path& folder) {
    std::error_code error;
    for (fs::directory_iterator it(folder, error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        if (it->path().filename().string().starts_with(kPrefix)) {
            std::error_code ignored;
            fs::remove(it->path(), ignored);
        }
    }
}

}  // namespace

std::optional<CoverImage> embedded_cover(nuvio::UniqueFd file) {
    TagLib::FileStream stream(file.release(), true);  // closes it
    const TagLib::FileRef reference(&stream, false);
    if (reference.isNull()) {
        return std::nullopt;
    }
    const Bytes cover = cover_in(*reference.file());
    if (cover.isEmpty() || cover.size() > kMaxCoverBytes) {
        return std::nullopt;
    }
    return CoverImage{std::string(cover.data(), cover.size())};
}

std::shared_ptr<const KeptCover> KeptCover::keep(const CoverImage& image) {
    const std::string folder = state_directory();
    const char* const ending = ending_of(image.bytes);
    if (folder.empty() || ending == nullptr || image.bytes.size() > kMaxCoverBytes) {
        return nullptr;
    }
    std::error_code error;
    fs::create_directories(folder, error);
    static std::once_flag once;
    std::call_once(once, [&] { remove_old_covers(folder); });

    const std::string path = folder + "/" + std::string(kPrefix) +
                             std::to_string(nuvio::fnv1a(nuvio::kFnv1aStart, image.bytes)) + ending;
    const std::string written = path + "." + std::to_string(gettid());
    if (nuvio::make_file(written, image.bytes) != 0) {
        return nullptr;
    }
    const std::lock_guard lock(kept().mutex);
    std::weak_ptr<const KeptCover>& entry = kept().by_path[path];
    std::shared_ptr<const KeptCover> cover = entry.lock();
    if (cover) {
        unlink(written.c_str());
    } else if (rename(written.c_str(), path.c_str()) == 0) {
        cover.reset(new KeptCover(path));
        entry = cover;
    }
    return cover;
}

KeptCover::~KeptCover() {
    const std::lock_guard lock(kept().mutex);
    const auto entry = kept().by_path.find(m_path);
    if (entry != kept().by_path.end() && entry->second.expired()) {
        kept().by_path.erase(entry);
        unlink(m_path.c_str());
    }
}

std::string KeptCover::url() const {
    return file_url_from_path(m_path);
}

}  // namespace local_core
