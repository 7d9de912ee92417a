#include "controller/session/tracks.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "common/music/section.h"
#include "common/number.h"
#include "common/utf8.h"

namespace nuvio::controller {

namespace {

constexpr std::string_view kContent = "content/";
constexpr size_t kMaxListBytes = size_t{48} << 10U;
constexpr int kMaxListLength = 500;
constexpr size_t kMaxTitle = 300;  // of an address; the library's are no longer

// With the file's extension, for players that go by it, and the part that it is of the file.
std::string url_of(const Track& track) {
    return with_section(std::string(kContent) + std::to_string(track.id) +
                            track.below.substr(track.below.rfind('.')),
                        track.section);
}

ToldTrack told_of(const Playable& item) {
    if (!item.track) {
        return {item.url, std::string(beginning(item.title, kMaxTitle)), {}, {}, {}};
    }
    const Track& track = *item.track;
    return {url_of(track),
            track.title,
            track.artist,
            track.album,
            "cover/" + std::to_string(track.album_id),
            track.duration_ms};
}

struct Names {
    const char *url, *title, *artist, *album, *cover, *duration;
};

// A JSPF's locations are lists.
JsonPtr describe(const ToldTrack& track, const std::string& here, const Names& names) {
    JsonPtr entry = new_object();
    const std::string url = track.url.starts_with(kContent) ? here + "/" + track.url : track.url;
    if (std::string_view(names.url) == "location") {
        JsonPtr locations = new_array();
        append(locations.get(), url);
        add(entry.get(), names.url, std::move(locations));
    } else {
        add(entry.get(), names.url, url);
    }
    const auto text = [&](const char* name, const std::string& value) {
        if (!value.empty()) {
            add(entry.get(), name, value);
        }
    };
    text(names.title, track.title);
    text(names.artist, track.artist);
    text(names.album, track.album);
    text(names.cover, track.cover.empty() ? "" : here + "/" + track.cover + "?size=1000");
    if (track.duration_ms > 0) {
        add(entry.get(), names.duration, track.duration_ms);
    }
    return entry;
}

}  // namespace

ToldTracks told(const std::vector<Playable>& items) {
    ToldTracks tracks;
    tracks.reserve(items.size());
    std::ranges::transform(items, std::back_inserter(tracks), told_of);
    return tracks;
}

std::string playlist_of(const ToldTracks& tracks, const std::string& here) {
    constexpr Names kNames{"location", "title", "creator", "album", "image", "duration"};
    JsonPtr list = new_array();
    for (const ToldTrack& track : tracks) {
        append(list.get(), describe(track, here, kNames));
    }
    JsonPtr playlist = new_object();
    add(playlist.get(), "track", std::move(list));
    JsonPtr document = new_object();
    add(document.get(), "playlist", std::move(playlist));
    return print_json(document.get());
}

std::vector<JsonPtr> track_lists(const ToldTracks& tracks, const std::string& here) {
    constexpr Names kNames{"url", "title", "artist", "album", "cover", "duration_ms"};
    std::vector<JsonPtr> lists;
    size_t bytes = 0;
    for (const ToldTrack& track : tracks) {
        JsonPtr entry = describe(track, here, kNames);
        const size_t size = print_json(entry.get()).size();
        if (lists.empty() || bytes + size > kMaxListBytes ||
            cJSON_GetArraySize(lists.back().get()) >= kMaxListLength) {
            lists.push_back(new_array());
            bytes = 0;
        }
        bytes += size;
        append(lists.back().get(), std::move(entry));
    }
    return lists;
}

int64_t track_id_of(const std::string& url) {
    if (!url.starts_with(kContent)) {
        return 0;
    }
    const std::string_view name = std::string_view(url).substr(kContent.size());
    return to_number<int64_t>(name.substr(0, name.find('.'))).value_or(0);
}

}  // namespace nuvio::controller
