// The display texts of one track: its tags, or what stands in for them.
#pragma once

#include <string>

#include "local/content.h"
#include "local/track_decoder.h"

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

// The title is the tag's, the playlist's or the file name without its ending; the art is a cover or
// folder picture beside the file, as a file:// URL. All fit for display. Looks into the folder.
TrackTexts describe_track(const Track& track, const TrackInfo& info);

}  // namespace local_core
