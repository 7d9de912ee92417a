// What a program and its reader say to each other over a socket of packets: a request with the file
// to be read, then one answer. Both are of one build and one machine, so the records go as they lie
// in memory. The reader may be anyone's by then: whoever reads an answer believes no number and no
// text in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace nuvio::reader {

// The reader's descriptors: the socket is its only one.
constexpr int kSocket = 0;

enum class Job : uint32_t { tags, picture, scaled_picture };

struct Request {
    Job job;
    uint32_t number = 0;  // the answer's too
    uint32_t edge = 0;    // of a scaled picture: no side is longer, in pixels
    // With it come descriptors: the file; for pictures a shared memory of kMaxPictureBytes.
};

enum class Status : uint32_t {
    done,
    too_big,  // it would have taken more memory than a reader has
};

constexpr size_t kMaxText = 300;  // bytes of UTF-8

// A text of kMaxText bytes has no 0 at its end.
struct TagsAnswer {
    char title[kMaxText], artist[kMaxText], album[kMaxText], album_artist[kMaxText];
    uint32_t disc, number, year;
    uint32_t rate_hz, channels, bits;
    int64_t duration_ms;
};

struct PictureAnswer {
    uint64_t size;  // of what stands in the shared memory; 0: none
};

struct Answer {
    uint32_t number;
    Status status;
    union {
        TagsAnswer tags;
        PictureAnswer picture;
    };
};
static_assert(std::is_trivially_copyable_v<Answer>);

}  // namespace nuvio::reader
