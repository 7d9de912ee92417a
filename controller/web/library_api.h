// The part of the API that is about music: the library, own playlists and stations.
//
// - GET /api/library/albums, ?first= &count= &sort= &from= &genre= &composer= or ?artist=ID
// - GET /api/library/albums/ID
// - GET /api/library/artists, ?first= &count= &from=
// - GET /api/library/genres, /api/library/composers, ?first= &count=
// - GET /api/library/folders/ID; 0: the music folders
// - GET /api/library/playlists, ?first= &count=: M3U files of the music folders
// - GET /api/library/search, ?q=
// - GET /api/library/unreadable
// - POST /api/library/scan
// - GET /api/library/favourites, ?kind= &first= &count=; POST: {"what": ..., "favourite": ...}
// - GET, POST /api/playlists: {"name": ..., "device": whose queue}
// - POST /api/playlists/NAME/rename, {"name": ...}; /delete; /restore
// - GET, POST /api/stations: {"name": ..., "url": ...}
// - POST /api/stations/NAME/rename, {"name": ...}; /delete
//
// Threads  any; waits for the disk.
#pragma once

#include <string>

#include "controller/library/library.h"
#include "controller/session/house.h"
#include "controller/web/exchange.h"

namespace nuvio::controller {

class LibraryApi {
  public:
    // Borrows all.
    LibraryApi(Library& library, House& house, Changes& changes)
        : m_library(library), m_house(house), m_changes(changes) {}

    // Each answers; the status comes back. `id`: what stands for '*' in its path.
    int get_albums(Exchange& exchange, const std::string& id);
    int get_album(Exchange& exchange, const std::string& id);
    int get_artists(Exchange& exchange, const std::string& id);
    int get_genres(Exchange& exchange, const std::string& id);
    int get_composers(Exchange& exchange, const std::string& id);
    int get_folder(Exchange& exchange, const std::string& id);
    int get_search(Exchange& exchange, const std::string& id);
    int get_unreadable(Exchange& exchange, const std::string& id);
    int get_playlist_files(Exchange& exchange, const std::string& id);
    int post_scan(Exchange& exchange, const std::string& id);
    int get_favourites(Exchange& exchange, const std::string& id);
    int post_favourite(Exchange& exchange, const std::string& id);

    int get_playlists(Exchange& exchange, const std::string& id);
    int get_stations(Exchange& exchange, const std::string& id);
    int post_playlist(Exchange& exchange, const std::string& id);
    int post_station(Exchange& exchange, const std::string& id);
    template <OwnLists::Change change_list>
    int change(Exchange& exchange, const std::string& name);
    template <OwnLists::Rename rename_list>
    int rename(Exchange& exchange, const std::string& name);

  private:
    JsonPtr describe_tracks(const std::vector<Track>& tracks) const;
    int answer(Exchange& exchange, const std::string& failure);

    Library& m_library;
    House& m_house;
    Changes& m_changes;
};

}  // namespace nuvio::controller
