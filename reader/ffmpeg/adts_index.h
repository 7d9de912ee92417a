// Where the packets of a file of AAC in ADTS are, which has no word of that or of its length: its
// packets' heads are counted, as far as is asked for.
//
// One thread; reading blocks on the input, and leaves it where it was. Any bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "reader/inside/input.h"

namespace nuvio::reader {

class AdtsIndex {
  public:
    static constexpr uint32_t kPacketFrames = 1024;  // at the heads' rate

    // Null when the input, of known length, is no such file. `input` must outlive it.
    static std::unique_ptr<AdtsIndex> open(Input& input);

    // That the packets' heads say; extensions double it.
    uint32_t rate_hz() const { return m_rate_hz; }

    // How many whole packets there are: all of them are counted where that is soon done, else
    // guessed by the first ones.
    struct Count {
        uint64_t packets;
        bool is_guess;
    };
    Count count();

    // The packet itself, or one that is at most a few before it; none beyond the end, or where
    // there are too many.
    struct Place {
        uint64_t packet;
        uint64_t byte;
    };
    std::optional<Place> place_of(uint64_t packet);

  private:
    struct Head {
        size_t bytes = 0;  // of the packet; 0: this is no head
        uint32_t rate_hz = 0;
    };

    explicit AdtsIndex(Input& input) : m_input(input) {}
    static Head head_in(const char* bytes);
    std::optional<Head> head_at(uint64_t place);
    size_t find_next(uint64_t end);
    void count_up_to(uint64_t packets, uint64_t end);

    Input& m_input;
    std::string m_read;              // bytes of it
    uint64_t m_read_at = 0;          // from there on
    uint32_t m_rate_hz = 0;          // 0: no packet was found
    uint64_t m_begin = 0;            // of the first packet
    uint64_t m_next = 0;             // behind the last packet that was counted
    uint64_t m_packets = 0;          // so far
    std::vector<uint64_t> m_places;  // of each kStride-th of them
};

}  // namespace nuvio::reader
