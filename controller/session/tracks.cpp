#include "controller/session/tracks.h"

#include "common/music/section.h"
#include "common/number.h"
#include "common/utf8.h"

namespace nuvio::controller {

namespace {

constexpr char kContent[] = "/content/";
constexpr size_t kMaxListBytes = size_t{48} << 10U;
constexpr int kMaxListLength = 500;

// With the file's extension, for players that go by it, and the part that it is of the file.
std::string url_of(const Playable& item, const std::string& here) {
    if (!item.track) {
        return item.url;
    }
    const std::string& path = item.track->below;
    return with_section(
        here + kContent + std::to_string(item.track->id) + path.substr(path.rfind('.')),
        item.track->section);
}

struct Names {
    const char *url, *title, *artist, *album, *cover, *duration;
};

// A JSPF's locations are lists.
JsonPtr describe(const Playable& item, const std::string& here, const Names& names) {
    JsonPtr entry = new_object();
    if (std::string_view(names.url) == "location") {
        JsonPtr locations = new_array();
        append(locations.get(), url_of(item, here));
        add(entry.get(), names.url, std::move(locations));
    } else {
        add(entry.get(), names.url, url_of(item, here));
    }
    if (!item.track) {
        if (!item.title.empty()) {
            add(entry.get(), names.title, beginning(item.title, 300));
        }
        return entry;
    }
    const Track& track = *item.track;
    add(entry.get(), names.title, track.title);
    add(entry.get(), names.artist, track.artist);
    add(entry.get(), names.album, track.album);
    add(entry.get(), names.cover, here + "/cover/" + std::to_string(track.album_id) + "?size=1000");
    if (track.duration_ms > 0) {
        add(entry.get(), names.duration, track.duration_ms);
    }
    return entry;
}

}  // namespace

std::string playlist_of(const std::vector<Playable>& items, const std::string& here) {
    constexpr Names kNames{"location", "title", "creator", "album", "image", "duration"};
    JsonPtr tracks = new_array();
    for (const Playable& item : items) {
        append(tracks.get(), describe(item, here, kNames));
    }
    JsonPtr playlist = new_object();
    add(playlist.get(), "track", std::move(tracks));
    JsonPtr document = new_object();
    add(document.get(), "playlist", std::move(playlist));
    return print_json(document.get());
}

std::vector<JsonPtr> track_lists(const std::vector<Playable>& items, const std::string& here) {
    constexpr Names kNames{"url", "title", "artist", "album", "cover", "duration_ms"};
    std::vector<JsonPtr> lists;
    size_t bytes = 0;
    for (const Playable& item : items) {
        JsonPtr entry = describe(item, here, kNames);
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

int64_t track_id_of(const std::string& url, const std::string& here) {
    const std::string own = here + kContent;
    if (!url.starts_with(own)) {
        return 0;
    }
    const std::string name = url.substr(own.size());
    return to_number<int64_t>(std::string_view(name).substr(0, name.find('.'))).value_or(0);
}

}  // namespace nuvio::controller
