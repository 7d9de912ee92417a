// The way to a distant place in an MP3 whose bytes are far away.
//
// A decoder knows where it is by the frames that it has seen, and reads all up to the place. The
// frames before it are made up here, empty ones that fill as many bytes, and none of them is
// fetched. The last ones are real, so that the sound at the place is as if all were. Where all have
// one bit rate, the byte that the place is at can be told. Else the table that an encoder leaves
// tells it roughly: the sound there is later than said, by a hundredth of the whole at most, and
// not earlier, so that none is missing at the end.
//
// One thread; every call may block on the input.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "reader/inside/input.h"
#include "reader/inside/sound/mpeg_sync.h"

namespace nuvio::reader {

class MpegShortcut : public Input {
  public:
    // Of `input`, which must outlive it and stands anywhere afterwards, what begins with the first
    // MPEG frame: that is byte 0 here, and where whoever decodes it begins.
    explicit MpegShortcut(Input& input);
    // False where no place can be told, as far as is known: a decoder goes anywhere by itself.
    bool is_open() const { return mpeg_frame(m_header).bytes > 0; }
    // What is at a place is not to the frame what would be there if all were read.
    bool is_rough() const { return m_table.frames > 0; }

    // Frames to be made up.
    struct Jump {
        uint64_t count = 0;
        uint64_t end = 0;        // where the first real one behind them begins, in the input
        uint64_t real_from = 0;  // from this sample on the sound is real
        // All but the last ones are of a lower bit rate, and the first ones are padded: so they
        // fill the bytes.
        uint64_t low_count = 0, padded_count = 0;
        uint32_t low_header = 0, high_header = 0;
    };
    // On the way to the sound's frame `sample`; none where all from a place of the input on are
    // better read. The place in the input stays.
    std::optional<Jump> find(uint64_t sample, uint64_t from);

    // A decoder is about to begin. Until take() nothing is fetched: zeros stand behind the first
    // frames, also where a decoder looks for a tag.
    void restart();
    // The decoder, which was nowhere since it began, is about to go behind these frames, and before
    // them nowhere afterwards. None: all frames are real.
    void take(const std::optional<Jump>& jump);

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
    // Of the whole sound, as its first frame says; of no frames: there is none.
    struct Table {
        uint64_t frames = 0, bytes = 0;
        std::array<uint8_t, 100> places{};  // of each hundredth, in parts of 256 of the bytes
    };

    static Table table_in(std::string_view first_frame, uint64_t bytes);
    std::optional<Jump> find_by_rate(uint64_t sample);
    std::optional<Jump> find_by_table(uint64_t sample);
    std::optional<uint64_t> frames_at(uint64_t place, size_t within, uint32_t mask);
    bool divide(Jump* jump) const;
    uint64_t place_of(uint64_t frame) const;
    uint64_t frame_at(uint64_t place) const;
    void make_up(uint64_t place, char* to, size_t size) const;

    Input& m_input;
    std::string m_head;  // the real frames up to m_begin, at least
    Table m_table;
    // Bytes of the input: its first frame, and where frames are made up from on.
    uint64_t m_first = 0, m_begin = 0;
    uint32_t m_header = 0;  // of a frame behind the first ones, not padded
    Jump m_jump;            // of no frames: zeros up to its end
};

}  // namespace nuvio::reader
