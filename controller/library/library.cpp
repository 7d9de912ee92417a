#include "controller/library/library.h"

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "common/files/files.h"
#include "common/m3u.h"
#include "common/music/names.h"
#include "common/number.h"
#include "common/text.h"
#include "common/url/url.h"
#include "controller/base/log.h"
#include "controller/library/words.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxPlaylistFile = size_t{4} << 20U;
constexpr size_t kMostHeard = 200;
constexpr char kFavourites[] = "favourites:tracks";
constexpr char kByFile[] = "-of";
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

template <typename Item>
void keep_page(std::vector<Item>* items, LibraryView::Page page) {
    const auto first = std::min<std::ptrdiff_t>(page.first, std::ssize(*items));
    items->erase(items->begin(), items->begin() + first);
    items->resize(std::min(items->size(), static_cast<size_t>(page.count)));
}

}  // namespace

Library::Library(const std::vector<std::string>& folders, const std::string& state_folder,
                 std::function<void()> on_change)
    : m_folders(folders),
      m_database(made_database(state_folder)),
      m_view(m_database, [this](const DatabaseError& error) { m_scanner.make_anew(error); }),
      m_covers(m_folders, state_folder + "/covers"),
      m_own_lists(state_folder),
      m_heard(state_folder + "/heard.m3u8", KeptList::Of::albums, kMostHeard),
      m_favourite_tracks(state_folder + "/favourites.m3u8", KeptList::Of::tracks, kMostFavourites),
      m_favourite_albums(state_folder + "/favourite-albums.m3u8", KeptList::Of::albums,
                         kMostFavourites),
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
    if (what == kFavourites) {
        Selection all = select_entries(m_favourite_tracks.entries(), "/");
        all.failure = all.items.empty() ? "no track is a favourite" : "";
        return all;
    }
    const size_t colon = what.find(':');
    const std::string kind = what.substr(0, colon);
    const std::string rest = colon == std::string::npos ? "" : what.substr(colon + 1);
    if (std::optional<Selection> own = select_own(kind, rest)) {
        return std::move(*own);
    }
    Selection selection;
    if (kind == "search") {
        selection.items = playables(best_match(rest));
    } else if (kind == "genre" || kind == "composer") {
        selection.items = playables(m_view.tracks_on(
            kind == "genre" ? LibraryView::ShelfKind::genre : LibraryView::ShelfKind::composer,
            rest, kOneTooMany));
    } else if (kind.ends_with(kByFile)) {
        selection.items = playables(tracks_by_file(kind, rest));
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

std::vector<Track> Library::tracks_by_file(const std::string& kind, const std::string& path) {
    std::vector<Track> tracks = tracks_named(path);
    if (tracks.empty() || kind == "track-of") {
        return tracks;
    }
    return kind == "album-of" ? m_view.tracks_of_album(tracks.front().album_id, kOneTooMany)
                              : m_view.tracks_of_artist(tracks.front().artist_id, kOneTooMany);
}

Library::Lasting Library::lasting(const std::string& what) {
    const Selection selection = select(what);
    const size_t colon = what.find(':');
    const std::string kind = what.substr(0, colon);
    const std::string rest = colon == std::string::npos ? what : what.substr(colon + 1);
    const std::optional<int64_t> id = to_number<int64_t>(rest);
    if (!selection.failure.empty() || is_web_address(what) || what.starts_with('/')) {
        return {what, what, selection.failure};
    }
    if (kind == "folder" && id) {
        const FolderPlace place = m_view.place_of(*id).value_or(FolderPlace{});
        const std::string path = place.root + (place.below.empty() ? "" : "/") + place.below;
        return {path, std::filesystem::path(path).filename(), {}};
    }
    const bool is_by_file = kind.ends_with(kByFile);
    const std::string of = is_by_file ? kind.substr(0, kind.rfind(kByFile)) : kind;
    // Who plays on an artist's albums may be another one.
    const auto is_meant = [&](const Track& track) {
        return of != "artist" ||
               (is_by_file ? entry_of(track).location == rest : track.artist_id == id);
    };
    const Track* meant = nullptr;
    for (const Playable& item : selection.items) {
        if (meant == nullptr && item.track && is_meant(*item.track)) {
            meant = &*item.track;
        }
    }
    if ((of != "album" && of != "artist" && of != "track") || meant == nullptr) {
        return {what, rest, {}};
    }
    return {of + kByFile + ":" + (is_by_file ? rest : entry_of(*meant).location),
            of == "album"    ? meant->album
            : of == "artist" ? meant->artist
                             : meant->title,
            {}};
}

std::vector<PlaylistFile> Library::playlists_in(int64_t folder) {
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

Selection Library::select_playlist(const MusicFolders::Place& place) {
    const FileText file =
        read_file(m_folders.open_file(place.folder, place.below), kMaxPlaylistFile);
    return select_entries(parse_m3u(file.whole_lines(), kOneTooMany),
                          m_folders.path(place.folder) + "/" + parent_of(place.below));
}

// None: no list of its own is meant.
std::optional<Selection> Library::select_own(const std::string& kind, const std::string& name) {
    const auto is_so = [&](const std::string& own) {
        return equals_ignoring_case(own, clean_name(name));
    };
    const bool is_any = kind == "search";
    if (is_any || kind == "playlist") {
        const std::vector<std::string> all = m_own_lists.playlists();
        const auto found = std::ranges::find_if(all, is_so);
        const auto entries =
            found != all.end() ? m_own_lists.entries(*found, kOneTooMany) : std::nullopt;
        if (entries) {
            Selection selection = select_entries(*entries, "/");
            selection.failure = selection.items.empty() ? "nothing of it is there: " + *found : "";
            return selection;
        }
    }
    if (is_any || kind == "station") {
        const std::vector<PlaylistEntry> all = m_own_lists.stations();
        const auto found = std::ranges::find_if(all, is_so, &PlaylistEntry::title);
        if (found != all.end()) {
            return Selection{{{found->location, found->title, {}}}, {}};
        }
    }
    return kind == "playlist" || kind == "station"
               ? std::optional(Selection{{}, "there is no " + kind + " '" + name + "'"})
               : std::nullopt;
}

// Entries that are no music of the library are passed over. `folder`: with '/' at its end, what
// relative ones begin at.
Selection Library::select_entries(const std::vector<PlaylistEntry>& entries,
                                  const std::string& folder) {
    Selection selection;
    for (const PlaylistEntry& entry : entries) {
        if (is_web_address(entry.location)) {
            selection.items.push_back({entry.location, entry.title, {}});
            continue;
        }
        auto found = playables(tracks_named(
            entry.location.starts_with('/') ? entry.location : folder + entry.location));
        std::ranges::move(found, std::back_inserter(selection.items));
    }
    return selection;
}

// Of a file, or of a part of it that its name ends with.
std::vector<Track> Library::tracks_named(const std::string& path) {
    for (const MusicFolders::Place& at : m_folders.places_of(path)) {
        std::vector<Track> found = m_view.tracks_at(m_folders.path(at.folder), at.below);
        if (!found.empty()) {
            return found;
        }
    }
    const Section section = section_of(path);
    if (section.is_whole()) {
        return {};
    }
    std::vector<Track> found = tracks_named(std::string(without_section(path)));
    std::erase_if(found, [&](const Track& track) { return track.section != section; });
    return found;
}

Found Library::search(const std::string& text, LibraryView::Page page, LibraryView::Kind kind) {
    std::vector<PlaylistFile> own;
    for (const std::string& name : m_own_lists.playlists()) {
        own.push_back({name, "playlist:" + name});
    }
    for (const PlaylistEntry& station : m_own_lists.stations()) {
        own.push_back({station.title, "station:" + station.title});
    }
    std::erase_if(own, [&](const PlaylistFile& list) { return !has_words(list.name, text); });
    const bool is_alone = kind == LibraryView::Kind::playlists;
    const int64_t first = page.first;
    page.first = is_alone ? std::max<int64_t>(0, first - std::ssize(own)) : first;
    Found found = m_view.search(text, page, kind);
    found.playlist_count += std::ssize(own);
    if (is_alone || kind == LibraryView::Kind::all) {
        own.erase(own.begin(), own.begin() + std::min<std::ptrdiff_t>(first, std::ssize(own)));
        std::ranges::move(found.playlists, std::back_inserter(own));
        own.resize(std::min<size_t>(own.size(), static_cast<size_t>(page.count)));
        found.playlists = std::move(own);
    }
    return found;
}

// ---- What was heard, and favourites -------------------------------------------------------------

void Library::note_heard(const Track& track) {
    const std::string failure = m_heard.put_first(track);
    if (!failure.empty() && !m_is_heard_failing.exchange(true)) {
        log_line(LogLevel::error, "What is heard can't be kept: " + failure);
    }
}

std::vector<Album> Library::albums_on(const KeptList& list, LibraryView::Page page) {
    std::vector<Album> albums;
    for (const PlaylistEntry& entry : list.entries()) {
        const std::vector<Track> tracks = tracks_named(entry.location);
        const std::optional<Album> album =
            tracks.empty() ? std::nullopt : m_view.album(tracks.front().album_id);
        if (album && std::ranges::find(albums, album->id, &Album::id) == albums.end()) {
            albums.push_back(*album);
        }
    }
    keep_page(&albums, page);
    return albums;
}

std::string Library::set_favourite(const std::string& what, bool is_one) {
    const size_t colon = what.find(':');
    const std::string kind = what.substr(0, colon);
    const int64_t id =
        colon == std::string::npos ? 0 : to_number<int64_t>(what.substr(colon + 1)).value_or(0);
    const std::vector<Track> tracks = kind == "album"   ? m_view.tracks_of_album(id, kOneTooMany)
                                      : kind == "track" ? m_view.tracks_of({id})
                                                        : std::vector<Track>{};
    if (tracks.empty()) {
        return "not in the library any longer: " + what;
    }
    KeptList& list = kind == "album" ? m_favourite_albums : m_favourite_tracks;
    if (!is_one) {
        return list.remove(tracks);
    }
    return kind == "album" && is_favourite_album(tracks) ? "" : list.add(tracks.front());
}

bool Library::is_favourite_album(const std::vector<Track>& its_tracks) const {
    return std::ranges::any_of(its_tracks,
                               [&](const Track& track) { return m_favourite_albums.has(track); });
}

std::vector<Track> Library::favourite_tracks(LibraryView::Page page) {
    std::vector<Track> tracks;
    for (Playable& item : select_entries(m_favourite_tracks.entries(), "/").items) {
        if (item.track) {
            tracks.push_back(std::move(*item.track));
        }
    }
    keep_page(&tracks, page);
    return tracks;
}

int64_t Library::lists_revision() const {
    return m_own_lists.revision() + m_heard.revision() + m_favourite_tracks.revision() +
           m_favourite_albums.revision();
}

std::vector<PlaylistEntry> Library::entries_of(const std::vector<Queued>& items) {
    std::vector<int64_t> ids;
    for (const Queued& item : items) {
        if (item.track != 0) {
            ids.push_back(item.track);
        }
    }
    const std::vector<Track> tracks = m_view.tracks_of(ids);
    std::vector<PlaylistEntry> entries;
    auto track = tracks.begin();
    for (const Queued& item : items) {
        if (item.track == 0) {
            entries.push_back({item.url, item.title});
        } else if (track != tracks.end() && track->id == item.track) {
            entries.push_back(entry_of(*track));
            ++track;
        }
    }
    return entries;
}

}  // namespace nuvio::controller
