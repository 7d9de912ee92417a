#include "local/track/track_texts.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <string_view>

#include "common/files/files.h"
#include "common/music/pictures.h"
#include "common/percent_encoding.h"
#include "local/base/files.h"
#include "local/texts/display_text.h"
#include "local/texts/file_url.h"

namespace local_core {

namespace {

namespace fs = std::filesystem;

std::string find_art(const fs::path& folder) {
    for (const std::string& name : nuvio::pictures_in(
             nuvio::UniqueFd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)))) {
        std::string error;
        const std::string path = folder / name;
        const nuvio::FileText file =
            nuvio::read_file(open_regular_file(path, &error), nuvio::kPictureStart);
        if (nuvio::picture_kind_of(file.text) != nullptr) {
            return file_url_from_path(path);
        }
    }
    return {};
}

// The first that is not empty.
std::string first_filled(std::initializer_list<std::string> texts) {
    const auto* const filled =
        std::ranges::find_if(texts, [](const std::string& text) { return !text.empty(); });
    return filled == texts.end() ? "" : *filled;
}

// The last part of a URL's path.
std::string name_in_url(std::string_view url) {
    url = url.substr(0, url.find_first_of("?#"));
    url.remove_prefix(std::min(url.rfind('/') + 1, url.size()));
    return nuvio::percent_decode(url).value_or(std::string(url));
}

std::string stem(const std::string& name) {
    return display_text(fs::path(name).stem().string());
}

TrackTexts describe_remote(const Track& track, const TrackInfo& info) {
    const std::string station = display_text(info.station);
    return {
        first_filled({display_text(info.live_title), track.title, display_text(info.title), station,
                      stem(name_in_url(track.location)), display_server(track.location)}),
        first_filled({track.artist, display_text(info.artist)}),
        first_filled({track.album, display_text(info.album), station}), track.album_art_url};
}

}  // namespace

TrackTexts describe_track(const Track& track, const TrackInfo& info) {
    if (track.remote) {
        return describe_remote(track, info);
    }
    const std::string art = find_art(fs::path(track.location).parent_path());
    if (!track.section.is_whole()) {
        return {first_filled({track.title, display_text(info.title), stem(track.location)}),
                first_filled({track.artist, display_text(info.artist)}),
                first_filled({track.album, display_text(info.album)}), art};
    }
    return {first_filled({display_text(info.title), track.title, stem(track.location)}),
            display_text(info.artist), display_text(info.album), art};
}

}  // namespace local_core
