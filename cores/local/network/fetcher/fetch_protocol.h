// What the core and its fetcher say to each other, over sockets of packets. Both are of one build
// and one machine, so records go as they lie in memory. The fetcher may be anyone's by then:
// whoever reads what it sends believes nothing in it.
//
// A request is one packet over the fetcher's own socket, with one end of a new socket: over that
// comes what comes of it. Whichever side closes it has ended the request.
#pragma once

#include <cstddef>
#include <cstdint>

namespace local_core {

constexpr char kFetcher[] = "nuvio-connect-fetcher";
constexpr int kFetcherSocket = 0;  // the fetcher's only descriptor, beside standard error

// Before its texts: the URL, the file of authorities, and the lines of the head, a '\n' behind
// each.
struct FetchRequest {
    uint64_t from;
    uint32_t stalled_after_s;
    uint32_t url_bytes, authorities_bytes, lines_bytes;
};
constexpr size_t kMaxFetchBytes = size_t{64} << 10U;  // of a packet with a request

// A packet's first byte, before its bytes.
enum class FetchPacket : char {
    lines = 'l',  // of the head, a '\n' behind each; may be cut anywhere
    body = 'b',
    end = 'e',  // a FetchEnd, and why it is not complete; the last one
};
struct FetchEnd {
    bool is_complete, is_final;  // see HttpTransfer::Outcome
};
constexpr size_t kFetchPieceBytes = size_t{16} << 10U;  // at most, behind the first byte

}  // namespace local_core
