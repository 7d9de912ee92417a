// What a program and its reader say to each other over a socket of packets: a request with the file
// to be read, then one answer. On the way to it a reader of sound may ask for bytes of a remote
// one, and tell that there is some sound. Both are of one build and one machine, so the records go
// as they lie in memory. The reader may be anyone's by then: whoever reads an answer believes no
// number and no text in it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "common/music/section.h"

namespace nuvio::reader {

// The reader's descriptors: the socket is its only one, beside standard error.
constexpr int kSocket = 0;

enum class Job : uint32_t {
    tags,
    picture,
    scaled_picture,
    playlist,
    sheet,
    open_sound,
    read_sound,
    seek_sound,
    bytes,  // no job: the answer to Status::wants_bytes
};

// ---- Sound: what both see in memory
//
// A page of counters, room for bytes of a remote sound, then the blocks. Nobody can change its
// size.

constexpr size_t kMaxBlocks = 26;
constexpr size_t kBlockBytes = size_t{64} << 10U;
constexpr size_t kWindowBytes = size_t{512} << 10U;
constexpr size_t kWindowPlace = 4096;
constexpr size_t kBlocksPlace = kWindowPlace + kWindowBytes;
constexpr size_t kSoundBytes = kBlocksPlace + kMaxBlocks * kBlockBytes;

struct SoundPage {
    // Of the present read, both from 0: blocks that may be filled, and that are. Who waits for more
    // of the first waits on its address.
    std::atomic<uint32_t> given, done;
    // Set by the parent: Status::progress is wanted when the next block is decoded; the read is to
    // end after the present block.
    std::atomic<uint32_t> is_awaited, is_stopped;
    // The n-th block of a read is described at n % kMaxBlocks: which it is, by the parent; its
    // bytes, and up to which of a remote sound's bytes it took to decode them, by the reader.
    struct Block {
        std::atomic<uint32_t> number, bytes;
        std::atomic<uint64_t> place;
    } blocks[kMaxBlocks];
};
// At the beginning of the shared memory, which begins with a page of the machine's.
inline SoundPage& sound_page(void* shared) {
    return *static_cast<SoundPage*>(shared);
}
static_assert(sizeof(SoundPage) <= kWindowPlace && std::atomic<uint64_t>::is_always_lock_free);

// Bytes of a remote sound that stand in the shared memory.
struct Bytes {
    static constexpr uint64_t kUnknown = UINT64_MAX;

    uint64_t place;
    uint64_t length;       // of the whole sound
    uint32_t size;         // 0: the end, or nothing to be had
    bool is_reached;       // false: it can't be gone to the place
    bool has_failed;       // nothing more will come
    bool begins_run;       // something else begins at the place, and is to be opened anew
    uint64_t time_us = 0;  // of that, where a time was asked for
};

// Whether a sound is made as loud as its tags say: by those of the track or of the album, or, where
// there are none, of the other.
enum class Loudness : uint32_t { own, track, album };

// What the output takes, and how loud. Sound of another kind is converted; without rates all is
// left as it is.
struct OutputFormats {
    static constexpr size_t kMaxRates = 16;

    uint32_t rates_hz[kMaxRates];  // in any order
    uint32_t rate_count;
    bool is_deep;  // 24 bits, else 16
    Loudness loudness;
};
// It has two channels then.
constexpr uint32_t kOutputChannels = 2;

// ---- Playlists: their text in the shared memory, and behind that what they say (playlist.h; of
// HLS media_playlist.h)

enum class PlaylistFormat : uint32_t { none, m3u, pls, xspf, jspf, cue, hls };

constexpr size_t kMaxPlaylistBytes = size_t{4} << 20U;
// What is in a text and the lengths, of a thousand tracks.
constexpr size_t kMaxRecordBytes = kMaxPlaylistBytes + (size_t{256} << 10U);
constexpr size_t kPlaylistMemoryBytes = kMaxPlaylistBytes + kMaxRecordBytes;

// ---- CUE sheets: in the shared memory what one says (sheet.h), and behind that the bytes of a
// remote file

constexpr size_t kMaxSheetBytes = size_t{256} << 10U;
constexpr size_t kSheetRecordBytes = size_t{256} << 10U;  // more than 99 tracks take
constexpr size_t kSheetMemoryBytes = kSheetRecordBytes + kWindowBytes;

// ---- The two records

struct Request {
    Job job;
    uint32_t number = 0;  // the answer's too
    uint32_t edge = 0;    // of a scaled picture: no side is longer, in pixels
    // Of a playlist.
    PlaylistFormat format = PlaylistFormat::none;
    uint32_t text_bytes = 0, max_tracks = 0;  // or segments
    bool is_inside = false;                   // of a sheet: the file is a FLAC one that may have it
    // Of a sound that is opened, or a FLAC file with a sheet.
    bool is_remote = false;
    // Of a sound that is opened.
    bool is_radio = false;
    uint64_t duration_us = 0;  // of a radio that has an end; else 0
    OutputFormats output{};
    Section section{};
    uint32_t block_bytes = 0;  // to be read into each block
    uint64_t frame = 0;        // to be gone to
    Bytes bytes{};
    // With it come descriptors: the file, unless it is remote; for pictures a shared memory of
    // kMaxPictureBytes, for a sheet one of kSheetMemoryBytes, for a sound that is opened one of
    // kSoundBytes; for a playlist one of kPlaylistMemoryBytes and no file.
};

enum class Status : uint32_t {
    done,
    too_big,      // it would have taken more memory than a reader has
    progress,     // no answer yet: some sound is there
    wants_bytes,  // no answer yet: these first
};

constexpr size_t kMaxText = 300;  // bytes of UTF-8
constexpr size_t kMaxSoundText = 1024;

// Whether something is so: 0 or not, whatever stands there.
using Truth = uint8_t;

// A text that fills its room has no 0 at its end.
struct TagsAnswer {
    char title[kMaxText], artist[kMaxText], album[kMaxText], album_artist[kMaxText],
        genre[kMaxText], composer[kMaxText];
    uint32_t disc, number, year;
    uint32_t rate_hz, channels, bits;
    int64_t duration_ms;
};

struct PictureAnswer {
    uint64_t size;  // of what stands in the shared memory; 0: none
};

struct PlaylistAnswer {
    uint32_t bytes;        // of the records
    char error[kMaxText];  // why there are none, where that is a fault
};

struct SheetAnswer {
    uint32_t bytes;        // of the records
    char error[kMaxText];  // why there are none, where that is a fault
};

// Of a FLAC file: the MD5 of its samples, each of so many bits in whole bytes.
struct SampleSum {
    static constexpr size_t kBytes = 16;

    uint8_t md5[kBytes];
    uint32_t bits;    // 0: the file has no sum
    uint64_t frames;  // 0: not said
};

struct SoundAnswer {
    Truth is_readable;  // else `error` says why not
    Truth is_deep;      // 24 bits sign-extended in 4 bytes, else 16 bits
    Truth is_endless, is_seekable;
    Truth is_guess;  // `frames`: there may be fewer, or more
    uint32_t rate_hz, channels;
    uint64_t frames;
    // As it is in the file, where it is converted; else as above.
    Truth is_deep_inside;
    uint32_t rate_inside_hz, channels_inside;
    SampleSum sum;
    float gain_db;  // by which it was made louder
    char title[kMaxSoundText], artist[kMaxSoundText], album[kMaxSoundText];
    char error[kMaxText];
};

struct ReadAnswer {
    Truth is_at_end;
    // A radio plays something else from the last block on.
    Truth has_new_texts;
    char title[kMaxSoundText], artist[kMaxSoundText];
    char error[kMaxText];
};

struct SeekAnswer {
    Truth is_reached;
    uint64_t frame;
    char error[kMaxText];
};

struct WantedBytes {
    uint64_t place;
    uint32_t size;  // at least, unless the sound ends before
    Truth is_time;  // no bytes: `place` is a time in microseconds, to be gone to
};

struct Answer {
    uint32_t number;
    Status status;
    union {
        TagsAnswer tags;
        PictureAnswer picture;
        PlaylistAnswer playlist;
        SheetAnswer sheet;
        SoundAnswer sound;
        ReadAnswer read;
        SeekAnswer seek;
        WantedBytes wanted;
    };
};
static_assert(std::is_trivially_copyable_v<Answer> && std::is_trivially_copyable_v<Request>);

}  // namespace nuvio::reader
