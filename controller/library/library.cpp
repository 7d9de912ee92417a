#include "controller/library/library.h"

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "common/files/files.h"
#include "common/m3u.h"
#include "common/music/names.h"
#include "common/number.h"
#include "common/url/url.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxPlaylistFile = size_t{4} << 20U;
// That there are more is seen by the one that is not taken.
constexpr int64_t kOneTooMany = Library::kMaxSelection + 1;

std::string made_database(const std::string& state_folder) {
    std::string path = state_folder + "/library.db";
    try {
        static_cast<void>(Catalogue(path));
    } catch (const DatabaseError&) {
        return path;  // the first scan makes it anew, or says why it can't be had
    }
    return path;
}

std::vector<Playable> playables(std::vector<Track> tracks) {
    std::vector<Playable> items;
    items.reserve(tracks.size());
    for (Track& track : tracks) {
        items.push_back({{}, {}, std::move(track)});
    }
    return items;
}

}  // namespace

Library::Library(const std::vector<std::string>& folders, const std::string& state_folder,
                 std::function<void()> on_change)
    : m_folders(folders),
      m_database(made_database(state_folder)),
      m_view(m_database, [this](const DatabaseError& error) { m_scanner.make_anew(error); }),
      m_covers(m_folders, state_folder + "/covers"),
      m_scanner(m_folders, m_database, m_view, std::move(on_change)) {}

std::optional<Library::File> Library::open_track(int64_t id) {
    const std::optional<Track> track = m_view.track(id);
    if (!track) {
        return std::nullopt;
    }
    const std::optional<size_t> root = m_folders.index_of(track->root);
    UniqueFd fd = root ? m_folders.open_file(*root, track->below) : UniqueFd();
    if (!fd) {
        return std::nullopt;
    }
    const AudioKind* const kind = audio_kind_of(track->below);
    return File{std::move(fd), kind != nullptr ? kind->type : "application/octet-stream"};
}

Covers::Found Library::open_cover(int64_t album, CoverSize size) {
    return m_covers.open(m_view.tracks_of_album(album, 3), size);
}

Selection Library::select(const std::string& what) {
    Selection selection = selected(what);
    return selection.items.size() > kMaxSelection ? Selection{{}, kTooMany} : selection;
}

Selection Library::selected(const std::string& what) {
    if (is_web_address(what)) {
        return {{{what, {}, {}}}, {}};
    }
    if (what.starts_with('/')) {
        return select_path(what);
    }
    const size_t colon = what.find(':');
    const std::string kind = what.substr(0, colon);
    const std::string rest = colon == std::string::npos ? "" : what.substr(colon + 1);
    Selection selection;
    if (kind == "search") {
        selection.items = playables(best_match(rest));
    } else if (const std::optional<int64_t> id = to_number<int64_t>(rest)) {
        const std::optional<Track> track = kind == "track" ? m_view.track(*id) : std::nullopt;
        selection.items = playables(kind == "album"    ? m_view.tracks_of_album(*id, kOneTooMany)
                                    : kind == "artist" ? m_view.tracks_of_artist(*id, kOneTooMany)
                                    : kind == "folder" ? m_view.tracks_below(*id, kOneTooMany)
                                    : track            ? std::vector<Track>{*track}
                                                       : std::vector<Track>{});
    }
    if (selection.items.empty()) {
        selection.failure =
            (kind == "search" ? "nothing in the library has all of these words: " + rest
                              : "not in the library any longer: " + what) +
            (m_scanner.progress().is_scanning ? " (it is being read)" : "");
    }
    return selection;
}

std::vector<Library::PlaylistFile> Library::playlists_in(int64_t folder) {
    const FolderPlace place = m_view.place_of(folder).value_or(FolderPlace{});
    const std::optional<size_t> root = m_folders.index_of(place.root);
    Listing listing;
    if (root) {
        read_listing(m_folders.open_folder(*root, place.below), &listing);
    }
    std::vector<PlaylistFile> files;
    files.reserve(listing.playlists.size());
    for (const std::string& name : listing.playlists) {
        files.push_back({name, std::filesystem::path(place.root) / place.below / name});
    }
    return files;
}

// An album or an artist of that name rather than all tracks that have the words.
std::vector<Track> Library::best_match(const std::string& words) {
    Found found = m_view.search(words, {0, 500});
    if (!found.albums.empty()) {
        return m_view.tracks_of_album(found.albums.front().id, kOneTooMany);
    }
    return found.artists.empty() ? std::move(found.tracks)
                                 : m_view.tracks_of_artist(found.artists.front().id, kOneTooMany);
}

Selection Library::select_path(const std::string& path) {
    Selection selection;
    for (const MusicFolders::Place& place : m_folders.places_of(path)) {
        const std::string& root = m_folders.path(place.folder);
        if (is_playlist_name(place.below)) {
            selection = select_playlist(place);
        } else if (const auto folder = m_view.folder_at(root, place.below)) {
            selection.items = playables(m_view.tracks_below(*folder, kOneTooMany));
        } else {
            selection.items = playables(m_view.tracks_at(root, place.below));
        }
        if (!selection.items.empty()) {
            return selection;
        }
    }
    selection.failure = "not in the library: " + path +
                        (m_scanner.progress().is_scanning ? " (it is being read)" : "");
    return selection;
}

// Entries that are no music of the library are passed over.
Selection Library::select_playlist(const MusicFolders::Place& place) {
    const FileText file =
        read_file(m_folders.open_file(place.folder, place.below), kMaxPlaylistFile);
    Selection selection;
    for (const PlaylistEntry& entry : parse_m3u(file.whole_lines(), kOneTooMany)) {
        if (is_web_address(entry.location)) {
            selection.items.push_back({entry.location, entry.title, {}});
            continue;
        }
        const std::string full =
            entry.location.starts_with('/')
                ? entry.location
                : m_folders.path(place.folder) + "/" + parent_of(place.below) + entry.location;
        for (const MusicFolders::Place& at : m_folders.places_of(full)) {
            auto found = playables(m_view.tracks_at(m_folders.path(at.folder), at.below));
            if (!found.empty()) {
                std::ranges::move(found, std::back_inserter(selection.items));
                break;
            }
        }
    }
    return selection;
}

}  // namespace nuvio::controller
