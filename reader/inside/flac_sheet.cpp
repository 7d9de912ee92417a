#include "reader/inside/flac_sheet.h"

#include <algorithm>
#include <string_view>

#include "common/text.h"
#include "reader/inside/flac_blocks.h"
#include "reader/inside/sheet.h"

namespace nuvio::reader {

namespace {

// The text of a comment; empty: there is none.
std::string text_in(Input& input, const FlacBlock& comments) {
    constexpr std::string_view kName = "CUESHEET=";
    constexpr uint64_t kMaxComments = 10'000;
    const auto length_at = [&](uint64_t place) {
        return number_at(input, place, 4, std::endian::little);
    };
    const uint64_t end = comments.place + comments.size;
    uint64_t at = comments.place + 4 + length_at(comments.place);  // behind the encoder's name
    uint64_t left = std::min(length_at(at), kMaxComments);
    for (at += 4; left > 0 && at < end; --left) {
        const uint64_t size = length_at(at);
        at += 4;
        if (size >= kName.size() &&
            starts_with_ignoring_case(bytes_at(input, at, kName.size()), kName)) {
            return bytes_at(
                input, at + kName.size(),
                static_cast<size_t>(std::min<uint64_t>(size - kName.size(), kMaxSheetBytes)));
        }
        at += size;
    }
    return "";
}

struct Entry {
    uint64_t begin = 0;  // in frames: at its index 1, where it has one
    uint32_t number = 0;
    bool is_audio = false;
};

// Takes a number from the block's bytes; 0 behind their end.
uint64_t take_number(std::string_view* bytes, size_t size) {
    uint64_t number = 0;
    for (const char byte : bytes->substr(0, size)) {
        number = number << 8U | static_cast<uint8_t>(byte);
    }
    bytes->remove_prefix(std::min(size, bytes->size()));
    return number;
}

void skip(std::string_view* bytes, size_t size) {
    bytes->remove_prefix(std::min(size, bytes->size()));
}

Entry take_entry(std::string_view* bytes) {
    constexpr size_t kRecordingCode = 12, kReserved = 13, kIndexReserved = 3;
    constexpr uint64_t kIsData = 0x80;
    Entry entry;
    const uint64_t offset = entry.begin = take_number(bytes, 8);
    entry.number = static_cast<uint32_t>(take_number(bytes, 1));
    skip(bytes, kRecordingCode);
    entry.is_audio = (take_number(bytes, 1) & kIsData) == 0;
    skip(bytes, kReserved);
    for (uint64_t left = take_number(bytes, 1); left > 0; --left) {
        const uint64_t place = take_number(bytes, 8);
        entry.begin = take_number(bytes, 1) == 1 ? offset + place : entry.begin;
        skip(bytes, kIndexReserved);
    }
    return entry;
}

// The last one is the lead-out: where all ends.
std::vector<SheetTrack> tracks_in(Input& input, const FlacBlock& sheet, uint32_t rate_hz,
                                  std::string* fault) {
    constexpr size_t kHead = 395;  // up to the number of tracks
    const std::string block = bytes_at(input, sheet.place, std::min(sheet.size, kMaxSheetBytes));
    std::string_view bytes = block;
    skip(&bytes, kHead);
    const uint64_t count = take_number(&bytes, 1);
    std::vector<Entry> entries;
    std::vector<SheetPlace> places;
    for (uint64_t n = 0; n + 1 < count; ++n) {
        entries.push_back(take_entry(&bytes));
        places.push_back({time_us_of(entries.back().begin, rate_hz), 0});
    }
    const bool is_in_order =
        std::ranges::adjacent_find(places, [](const SheetPlace& one, const SheetPlace& next) {
            return one.begin_us >= next.begin_us;
        }) == places.end();
    if (entries.size() > kMaxSheetTracks || !is_in_order) {
        *fault = "its sheet's tracks are not one behind the other";
        return {};
    }
    const std::vector<Section> parts = parts_of(places);
    std::vector<SheetTrack> tracks;
    for (size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].is_audio) {
            SheetTrack& track = tracks.emplace_back();
            track.number = entries[i].number;
            track.section = parts[i];
        }
    }
    return tracks;
}

std::vector<SheetTrack> tracks_of_text(std::string_view text, std::string* fault) {
    std::vector<SheetTrack> tracks = parse_sheet(text, fault);
    const bool is_of_one_file = std::ranges::all_of(
        tracks, [&](const SheetTrack& track) { return track.file == tracks.front().file; });
    if (!is_of_one_file) {
        *fault = "the sheet in it names several files";
        return {};
    }
    for (SheetTrack& track : tracks) {
        track.file.clear();
    }
    return tracks;
}

}  // namespace

std::vector<SheetTrack> flac_sheet(Input& input, std::string* fault) {
    const FlacHead head = flac_head(input);
    const std::vector<FlacBlock> blocks = flac_blocks(input);
    std::string text;
    std::vector<SheetTrack> tracks;
    for (const FlacBlock& block : blocks) {
        text = text.empty() && block.type == FlacBlockType::comments ? text_in(input, block) : text;
    }
    const auto sheet = std::ranges::find(blocks, FlacBlockType::sheet, &FlacBlock::type);
    if (!text.empty()) {
        tracks = tracks_of_text(text, fault);
    } else if (sheet != blocks.end() && head.rate_hz > 0) {
        tracks = tracks_in(input, *sheet, head.rate_hz, fault);
    }
    const bool is_beyond = tracks.size() > 1 && head.frames > 0 && head.rate_hz > 0 &&
                           tracks.back().section.begin_us >= time_us_of(head.frames, head.rate_hz);
    if (is_beyond) {
        *fault = "its sheet's last track begins behind its end";
        tracks.clear();
    }
    return tracks;
}

}  // namespace nuvio::reader
