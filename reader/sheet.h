// What a CUE sheet says of its tracks, on its way from a reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/music/section.h"
#include "reader/records.h"

namespace nuvio::reader {

constexpr size_t kMaxSheetTracks = 99;

struct SheetTrack {
    std::string file;  // as written, possibly with a path; empty: the one that the sheet is inside
    std::string title, artist, album, album_artist;  // possibly empty
    uint32_t disc = 0, number = 0, year = 0;         // 0: not said
    Section section;  // of the file; the tracks of one file are the whole of it
};

// What it is called where the sheet does not say.
inline std::string title_of(const SheetTrack& track) {
    return track.title.empty() ? "Track " + std::to_string(track.number) : track.title;
}

inline constexpr std::string SheetTrack::*kSheetTexts[] = {&SheetTrack::file, &SheetTrack::title,
                                                           &SheetTrack::artist, &SheetTrack::album,
                                                           &SheetTrack::album_artist};
inline constexpr uint32_t SheetTrack::*kSheetNumbers[] = {&SheetTrack::disc, &SheetTrack::number,
                                                          &SheetTrack::year};

inline std::string record_of(const SheetTrack& track) {
    std::string record;
    put_number(&record, track.section.begin_us);
    put_number(&record, track.section.end_us);
    for (const auto number : kSheetNumbers) {
        put_number(&record, track.*number);
    }
    for (const auto text : kSheetTexts) {
        put_text(&record, track.*text);
    }
    return record;
}

inline std::optional<SheetTrack> take_sheet_track(std::string_view* records) {
    SheetTrack track;
    const auto begin = take_number<uint64_t>(records);
    const auto end = take_number<uint64_t>(records);
    if (!begin || !end) {
        return std::nullopt;
    }
    track.section = {*begin, *end};
    for (const auto number : kSheetNumbers) {
        track.*number = take_number<uint32_t>(records).value_or(0);
    }
    for (const auto text : kSheetTexts) {
        auto taken = take_text(records);
        if (!taken) {
            return std::nullopt;
        }
        track.*text = std::move(*taken);
    }
    return track;
}

}  // namespace nuvio::reader
