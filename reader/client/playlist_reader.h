// Playlists from the network, taken apart by a process that can do nothing else.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "reader/client/questions.h"
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
    // See Questions.
    void interrupt() { m_questions.interrupt(); }

  private:
    Questions m_questions{"nuvio-connect-reader"};
};

}  // namespace nuvio::reader
