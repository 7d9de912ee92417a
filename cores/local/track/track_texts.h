// The display texts of one track: its tags, or what stands in for them.
#pragma once

#include <string>

#include "local/track/content.h"
#include "local/track/track_decoder.h"

namespace local_core {

struct TrackTexts {
    std::string title;
    std::string artist;
    std::string album;
    std::string album_art_url;

    // Points into this record.
    nuv_stream_metadata view() const {
        return {title.c_str(), artist.c_str(), album.c_str(), album_art_url.c_str()};
    }
};

// Of a file of this machine the title is the tag's, the playlist's or the file name without its
// ending, the art a cover or folder picture beside it, as a file:// URL (the folder is looked
// into); of a part of a file what its sheet says goes before the tags. Of a remote track what its
// playlist says goes before the tags, and the art is the playlist's. A radio has its own title,
// else its name, and its name as the album. All fit for display.
TrackTexts describe_track(const Track& track, const TrackInfo& info);

}  // namespace local_core
