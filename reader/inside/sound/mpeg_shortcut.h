// The way to a distant place in an MP3 whose bytes are far away.
//
// A decoder knows where it is by the frames that it has seen, and reads all up to the place. Where
// all have one bit rate, the byte that the place is at can be told: the frames before it are made
// up here, empty ones of the same lengths, and none of them is fetched. The last ones are real, so
// that the sound at the place is as if all were.
//
// One thread; every call may block on the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "reader/inside/input.h"

namespace nuvio::reader {

class MpegShortcut : public Input {
  public:
    // Of `input`, which must outlive it and stands anywhere afterwards, what begins with the first
    // MPEG frame: that is byte 0 here, and where whoever decodes it begins.
    explicit MpegShortcut(Input& input);
    // False where not all frames have one bit rate, as far as is known, or there are none: all are
    // real then, and the decoder goes anywhere.
    bool is_open() const;
    // A decoder is about to begin. Until aim() nothing is fetched: zeros stand behind the first
    // frames, also where a decoder looks for a tag.
    void restart();
    // The decoder, which was nowhere since it began, is about to go to the sound's frame `sample`,
    // and nowhere else afterwards: it may note where frames stood that are made up. Where it can't
    // be told which byte that is, all frames are real. The place in the input stays.
    void aim(uint64_t sample);

    size_t read(void* to, size_t size) override;
    bool seek(uint64_t position) override { return m_input.seek(position + m_first); }
    uint64_t position() const override { return m_input.position() - m_first; }
    // The whole input's, by which a decoder may guess how many frames there are: it has to come to
    // the same number as before.
    std::optional<uint64_t> length() override { return m_input.length(); }
    bool has_failed() const override { return m_input.has_failed(); }
    bool is_radio() const override { return false; }
    bool is_at_hand() const override { return false; }

  private:
    void find_end(uint64_t sample);
    uint64_t place_of(uint64_t frame) const;
    void make_up(uint64_t place, char* to, size_t size) const;

    Input& m_input;
    std::string m_head;  // the real frames up to m_begin, at least
    // Bytes of the input: its first frame, and those between which all is made up.
    uint64_t m_first = 0, m_begin = 0, m_end = 0;
    uint64_t m_count = 0;   // of the frames between; 0: zeros
    uint32_t m_header = 0;  // of each of them
};

}  // namespace nuvio::reader
