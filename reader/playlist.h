// What a playlist says of its tracks, on its way from a reader.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "reader/records.h"

namespace nuvio::reader {

// One track, as written: nothing is resolved, unescaped or fit for display.
struct ListedTrack {
    std::string location;
    std::string title;
    std::string creator;
    std::string album;
    std::string image;
    std::optional<uint64_t> duration_ms;
};

inline constexpr struct {
    std::string_view name;
    std::string ListedTrack::*text;
} kListedTexts[] = {
    {"location", &ListedTrack::location}, {"title", &ListedTrack::title},
    {"creator", &ListedTrack::creator},   {"album", &ListedTrack::album},
    {"image", &ListedTrack::image},
};

// Bytes of a track's record: its duration, then each text.
inline std::string record_of(const ListedTrack& track) {
    std::string record;
    put_number(&record, track.duration_ms.value_or(UINT64_MAX));
    for (const auto& field : kListedTexts) {
        put_text(&record, track.*field.text);
    }
    return record;
}

// The tracks of records in a row, as far as they are some; any bytes.
inline std::vector<ListedTrack> tracks_in(std::string_view records, size_t max_tracks) {
    std::vector<ListedTrack> tracks;
    while (tracks.size() < max_tracks) {
        const auto duration = take_number<uint64_t>(&records);
        if (!duration) {
            return tracks;
        }
        ListedTrack track;
        track.duration_ms = *duration != UINT64_MAX ? duration : std::nullopt;
        for (const auto& field : kListedTexts) {
            auto text = take_text(&records);
            if (!text) {
                return tracks;
            }
            track.*field.text = std::move(*text);
        }
        tracks.push_back(std::move(track));
    }
    return tracks;
}

}  // namespace nuvio::reader
