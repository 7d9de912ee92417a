#include "local/track_texts.h"

#include <filesystem>
#include <system_error>

#include "local/texts/display_text.h"
#include "local/texts/file_url.h"

namespace local_core {

namespace {

namespace fs = std::filesystem;

constexpr const char* kArtNames[] = {"cover.jpg",  "folder.jpg", "Cover.jpg",
                                     "Folder.jpg", "cover.png",  "folder.png"};

std::string find_art(const fs::path& folder) {
    for (const char* name : kArtNames) {
        std::error_code error;
        const fs::path path = folder / name;
        if (fs::is_regular_file(path, error)) {
            return file_url_from_path(path.string());
        }
    }
    return {};
}

std::string first_filled(std::string first, const std::string& second, const std::string& third) {
    if (!first.empty()) {
        return first;
    }
    return !second.empty() ? second : third;
}

}  // namespace

TrackTexts describe_track(const Track& track, const TrackInfo& info) {
    const fs::path path(track.path);
    return {first_filled(display_text(info.title), track.title, display_text(path.stem().string())),
            display_text(info.artist), display_text(info.album), find_art(path.parent_path())};
}

}  // namespace local_core
