// What a session's endpoint names: one audio file, a folder of them, or an M3U playlist.
//
// Any thread but the loop's, unless said otherwise: disks may be slow or hang.
#pragma once

#include <string>
#include <vector>

#include "local/logger.h"

namespace local_core {

struct Track {
    std::string path;
    std::string title;  // from the playlist, fit for display; possibly empty
};

// True for a path or file:// URL. Looks at nothing but the text; any thread.
bool is_on_this_machine(const std::string& endpoint);

// Finds the tracks that `endpoint`, a file:// URL or a path, names, in playing order:
//   - a folder: the audio files in it and below it (by the endings that the decoder knows), in the
//     order of their paths, hidden ones and linked folders left out; at most 20,000 tracks, 16
//     levels and 50,000 directory entries;
//   - a playlist (.m3u, .m3u8): its entries, relative ones against the playlist's folder; at most
//     20,000 of them and 4 MiB; remote addresses are skipped;
//   - anything else: itself.
// Paths and titles are at most 8 MiB. What lies outside of the music folders (files.h) is left out.
// Logs what it leaves out. Empty when nothing is found. Blocks for the reading of the directories.
std::vector<Track> find_tracks(const std::string& endpoint, const Logger& logger);

}  // namespace local_core
