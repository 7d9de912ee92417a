#include "reader/media_playlist.h"

#include <optional>
#include <utility>

#include "reader/records.h"

namespace nuvio::reader {

namespace {

void put_part(std::string* record, const MediaPart& part) {
    put_text(record, part.location);
    put_number(record, part.first);
    put_number(record, part.size);
}

std::optional<MediaPart> take_part(std::string_view* record) {
    auto location = take_text(record);
    const auto first = take_number<uint64_t>(record);
    const auto size = take_number<uint64_t>(record);
    if (!location || !first || !size) {
        return std::nullopt;
    }
    return MediaPart{std::move(*location), *first, *size};
}

std::optional<MediaSegment> take_segment(std::string_view* record) {
    auto part = take_part(record);
    auto title = take_text(record);
    const auto duration_us = take_number<uint64_t>(record);
    const auto init = take_number<uint32_t>(record);
    const auto is_cut = take_number<uint8_t>(record);
    if (!part || !title || !duration_us || !init || !is_cut) {
        return std::nullopt;
    }
    return MediaSegment{std::move(*part), std::move(*title), *duration_us, *init, *is_cut != 0};
}

}  // namespace

std::string record_of(const MediaPlaylist& playlist) {
    std::string record;
    put_text(&record, playlist.variant);
    put_number(&record, playlist.first_number);
    put_number(&record, playlist.target_s);
    put_number(&record, static_cast<uint8_t>(playlist.has_end));
    put_number(&record, static_cast<uint8_t>(playlist.is_encrypted));
    put_number(&record, static_cast<uint32_t>(playlist.inits.size()));
    for (const MediaPart& init : playlist.inits) {
        put_part(&record, init);
    }
    for (const MediaSegment& segment : playlist.segments) {
        put_part(&record, segment.part);
        put_text(&record, segment.title);
        put_number(&record, segment.duration_us);
        put_number(&record, segment.init);
        put_number(&record, static_cast<uint8_t>(segment.is_cut));
    }
    return record;
}

MediaPlaylist media_playlist_in(std::string_view record, size_t max_segments) {
    MediaPlaylist playlist;
    playlist.variant = take_text(&record).value_or("");
    playlist.first_number = take_number<uint64_t>(&record).value_or(0);
    playlist.target_s = take_number<uint64_t>(&record).value_or(0);
    playlist.has_end = take_number<uint8_t>(&record).value_or(0) != 0;
    playlist.is_encrypted = take_number<uint8_t>(&record).value_or(0) != 0;
    for (uint32_t left = take_number<uint32_t>(&record).value_or(0); left > 0; --left) {
        auto init = take_part(&record);
        if (!init || playlist.inits.size() == max_segments) {
            return playlist;
        }
        playlist.inits.push_back(std::move(*init));
    }
    while (playlist.segments.size() < max_segments) {
        auto segment = take_segment(&record);
        if (!segment) {
            break;
        }
        playlist.segments.push_back(std::move(*segment));
    }
    return playlist;
}

}  // namespace nuvio::reader
