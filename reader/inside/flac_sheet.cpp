#include "reader/inside/flac_sheet.h"

#include <FLAC/metadata.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string_view>

#include "common/released_by.h"
#include "common/text.h"
#include "reader/inside/sheet.h"

namespace nuvio::reader {

namespace {

// libFLAC's way to the bytes of a descriptor.
constexpr int descriptor(FLAC__IOHandle handle) {
    return *static_cast<const int*>(handle);
}

size_t read_bytes(void* to, size_t size, size_t count, FLAC__IOHandle handle) {
    const ssize_t got = size == 0 ? 0 : read(descriptor(handle), to, size * count);
    return got <= 0 ? 0 : static_cast<size_t>(got) / size;
}

int seek_bytes(FLAC__IOHandle handle, FLAC__int64 offset, int whence) {
    return lseek(descriptor(handle), static_cast<off_t>(offset), whence) < 0 ? -1 : 0;
}

FLAC__int64 tell_bytes(FLAC__IOHandle handle) {
    return lseek(descriptor(handle), 0, SEEK_CUR);
}

int is_at_end(FLAC__IOHandle handle) {
    const int file = descriptor(handle);
    const off_t place = lseek(file, 0, SEEK_CUR);
    const off_t end = lseek(file, 0, SEEK_END);
    lseek(file, place, SEEK_SET);
    return place >= end ? 1 : 0;
}

using Chain = std::unique_ptr<FLAC__Metadata_Chain, ReleasedBy<FLAC__metadata_chain_delete>>;
using Iterator =
    std::unique_ptr<FLAC__Metadata_Iterator, ReleasedBy<FLAC__metadata_iterator_delete>>;

// The blocks of one file; the pointers lead into its chain.
struct Blocks {
    Chain chain;
    const FLAC__StreamMetadata* info = nullptr;
    const FLAC__StreamMetadata* comments = nullptr;
    const FLAC__StreamMetadata* sheet = nullptr;
};

Blocks blocks_of(const UniqueFd& file) {
    int handle = file.get();
    lseek(handle, 0, SEEK_SET);
    Blocks blocks{Chain(FLAC__metadata_chain_new())};
    const Iterator iterator(FLAC__metadata_iterator_new());
    const FLAC__IOCallbacks callbacks{read_bytes, nullptr,   seek_bytes,
                                      tell_bytes, is_at_end, nullptr};
    if (!blocks.chain || !iterator ||
        FLAC__metadata_chain_read_with_callbacks(blocks.chain.get(), &handle, callbacks) == 0) {
        return blocks;
    }
    FLAC__metadata_iterator_init(iterator.get(), blocks.chain.get());
    do {
        const FLAC__StreamMetadata* const block = FLAC__metadata_iterator_get_block(iterator.get());
        switch (block->type) {
            case FLAC__METADATA_TYPE_STREAMINFO:
                blocks.info = block;
                break;
            case FLAC__METADATA_TYPE_VORBIS_COMMENT:
                blocks.comments = block;
                break;
            case FLAC__METADATA_TYPE_CUESHEET:
                blocks.sheet = block;
                break;
            default:
                break;
        }
    } while (FLAC__metadata_iterator_next(iterator.get()) != 0);
    return blocks;
}

// Empty: there is none.
std::string_view text_in(const FLAC__StreamMetadata* comments) {
    constexpr std::string_view kName = "CUESHEET=";
    for (FLAC__uint32 i = 0; comments != nullptr && i < comments->data.vorbis_comment.num_comments;
         ++i) {
        const auto& entry = comments->data.vorbis_comment.comments[i];
        const std::string_view text(reinterpret_cast<const char*>(entry.entry), entry.length);
        if (starts_with_ignoring_case(text, kName)) {
            return text.substr(kName.size(), kMaxSheetBytes);
        }
    }
    return {};
}

// Where the track's sound begins, in frames: at its index 1.
uint64_t begin_of(const FLAC__StreamMetadata_CueSheet_Track& track) {
    for (size_t i = 0; i < track.num_indices; ++i) {
        if (track.indices[i].number == 1) {
            return track.offset + track.indices[i].offset;
        }
    }
    return track.offset;
}

// The last one is the lead-out: where all ends.
std::vector<SheetTrack> tracks_in(const FLAC__StreamMetadata_CueSheet& sheet, uint32_t rate_hz,
                                  std::string* fault) {
    const size_t count = sheet.num_tracks > 0 ? sheet.num_tracks - 1 : 0;
    std::vector<SheetPlace> places;
    places.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        places.push_back({time_us_of(begin_of(sheet.tracks[i]), rate_hz), 0});
    }
    const bool is_in_order =
        std::ranges::adjacent_find(places, [](const SheetPlace& one, const SheetPlace& next) {
            return one.begin_us >= next.begin_us;
        }) == places.end();
    if (count > kMaxSheetTracks || !is_in_order) {
        *fault = "its sheet's tracks are not one behind the other";
        return {};
    }
    const std::vector<Section> parts = parts_of(places);
    std::vector<SheetTrack> tracks;
    for (size_t i = 0; i < count; ++i) {
        if (sheet.tracks[i].type == 0) {  // audio
            SheetTrack& track = tracks.emplace_back();
            track.number = sheet.tracks[i].number;
            track.section = parts[i];
        }
    }
    return tracks;
}

}  // namespace

std::vector<SheetTrack> flac_sheet(const UniqueFd& file, std::string* fault) {
    const Blocks blocks = blocks_of(file);
    const uint32_t rate_hz = blocks.info != nullptr ? blocks.info->data.stream_info.sample_rate : 0;
    const std::string_view text = text_in(blocks.comments);
    if (text.empty()) {
        return blocks.sheet != nullptr && rate_hz > 0
                   ? tracks_in(blocks.sheet->data.cue_sheet, rate_hz, fault)
                   : std::vector<SheetTrack>();
    }
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

}  // namespace nuvio::reader
