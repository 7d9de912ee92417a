// Playlists from the network, taken apart by a process that can do nothing else.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "reader/client/questions.h"
#include "reader/media_playlist.h"
#include "reader/playlist.h"

namespace nuvio::reader {

// Threads  one at a time, but for interrupt(). A call waits for the reader.
// Errors   Failure: it costs this playlist alone.
class PlaylistReader {
  public:
    // The tracks that it names, in their order, as written; none where it is no playlist of this
    // format. `text`: kMaxPlaylistBytes at most.
    Outcome<std::vector<ListedTrack>> read(PlaylistFormat format, std::string_view text,
                                           size_t max_tracks);
    // What an HLS playlist says. The process stays for the next one.
    Outcome<MediaPlaylist> read_media(std::string_view text, size_t max_segments);
    // See Questions.
    void interrupt() { m_questions.interrupt(); }

  private:
    Outcome<std::string> records_of(PlaylistFormat format, std::string_view text,
                                    size_t max_tracks);

    Questions m_questions{"nuvio-connect-reader"};
};

}  // namespace nuvio::reader
