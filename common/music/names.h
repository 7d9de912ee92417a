// What the name of a file says: music, or a list of it. By its ending, in whatever case; plain
// constants and pure functions, any thread.
#pragma once

#include <algorithm>
#include <iterator>
#include <string_view>

#include "common/text.h"

namespace nuvio {

struct AudioKind {
    std::string_view ending, type;  // the type as HTTP says it
};

inline constexpr AudioKind kAudioKinds[] = {{".flac", "audio/flac"},
                                            {".mp3", "audio/mpeg"},
                                            {".ogg", "audio/ogg"},
                                            {".oga", "audio/ogg"},
                                            {".opus", "audio/ogg"},
                                            {".wav", "audio/wav"},
                                            {".rf64", "audio/wav"},
                                            {".aif", "audio/aiff"},
                                            {".aiff", "audio/aiff"},
                                            {".aifc", "audio/aiff"},
                                            {".au", "audio/basic"},
                                            {".w64", "audio/x-w64"},
                                            {".caf", "audio/x-caf"},
                                            // The core plays these with its module alone.
                                            {".m4a", "audio/mp4"},
                                            {".aac", "audio/aac"},
                                            {".wv", "audio/x-wavpack"},
                                            {".dsf", "audio/x-dsf"},
                                            {".dff", "audio/x-dff"}};

// Null: no music.
inline const AudioKind* audio_kind_of(std::string_view name) {
    const auto* const found = std::ranges::find_if(kAudioKinds, [name](const AudioKind& kind) {
        return name.size() > kind.ending.size() && ends_with_ignoring_case(name, kind.ending);
    });
    return found == std::end(kAudioKinds) ? nullptr : found;
}

inline bool is_playlist_name(std::string_view name) {
    return ends_with_ignoring_case(name, ".m3u") || ends_with_ignoring_case(name, ".m3u8");
}

inline bool is_sheet_name(std::string_view name) {
    return ends_with_ignoring_case(name, ".cue");
}

}  // namespace nuvio
