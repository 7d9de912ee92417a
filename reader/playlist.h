// What a playlist says of its tracks, on its way from a reader.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

// Bytes of a track's record: its duration, then each text behind its length.
inline std::string record_of(const ListedTrack& track) {
    const uint64_t duration = track.duration_ms.value_or(UINT64_MAX);
    std::string record(reinterpret_cast<const char*>(&duration), sizeof duration);
    for (const auto& field : kListedTexts) {
        const std::string& text = track.*field.text;
        const auto size = static_cast<uint32_t>(text.size());
        record.append(reinterpret_cast<const char*>(&size), sizeof size).append(text);
    }
    return record;
}

// Takes the number that `bytes` begin with; none where they are too short.
template <typename Number>
std::optional<Number> take_number(std::string_view* bytes) {
    Number number = 0;
    if (bytes->size() < sizeof number) {
        return std::nullopt;
    }
    bytes->copy(reinterpret_cast<char*>(&number), sizeof number);
    bytes->remove_prefix(sizeof number);
    return number;
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
            const auto size = take_number<uint32_t>(&records);
            if (!size || *size > records.size()) {
                return tracks;
            }
            track.*field.text = records.substr(0, *size);
            records.remove_prefix(*size);
        }
        tracks.push_back(std::move(track));
    }
    return tracks;
}

}  // namespace nuvio::reader
