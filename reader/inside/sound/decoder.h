// One open sound, decoded to the two sample formats that are delivered.
//
// Sound of 16 bits or fewer and lossy sound comes out as 16 bits; deeper sound as 24 bits
// sign-extended in 4 bytes, of a 32-bit integer sample the upper 24. Integer samples are exact,
// floating-point ones are scaled by 2^23 (lossy: 2^15), rounded and clipped. Rate and channel count
// are the file's, the order of channels is a WAV file's.
//
// One thread; every call may block on the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "reader/inside/input.h"
#include "reader/inside/sound/foreign_sound.h"

// libsndfile's; its header stays inside the implementation.
struct sf_private_tag;

namespace nuvio::reader {

class MpegShortcut;
class SndfileSound;
struct ByteRange;

struct SoundInfo {
    uint32_t rate_hz = 0;
    uint32_t channels = 0;
    bool is_deep = false;
    bool is_endless = false;
    uint64_t frames = 0;    // 0 of an endless one
    bool is_guess = false;  // of `frames`: there may be fewer, or more
    bool is_seekable = false;
    // Tags as the file has them, their first kilobyte; empty where it has none.
    std::string title;
    std::string artist;
    std::string album;
    SampleSum sum{};  // none of an Ogg file of several pieces

    size_t frame_bytes() const { return (is_deep ? sizeof(int32_t) : sizeof(int16_t)) * channels; }
};

class Decoder {
  public:
    // Null, with *error set, when it can't be read: by the module in a process that was told to
    // load it, by libsndfile or libFLAC in every other one. The input must outlive the decoder.
    static std::unique_ptr<Decoder> open(Input& input, std::string* error);
    ~Decoder();
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    const SoundInfo& info() const { return m_info; }

    // Decodes as many whole frames as fit; returns the bytes written, 0 at the end or at a place
    // that can't be decoded. `block` must be aligned for a 4-byte sample.
    size_t read(void* block, size_t capacity_bytes);
    // Goes to a frame; returns the one reached, none when the sound can't be positioned. Of a
    // remote MP3 what lies before is not fetched. Where its frames have more than one bit rate and
    // some MiB lie before, what is there is further on, by a hundredth of the whole at most.
    std::optional<uint64_t> seek(uint64_t frame);

    // Of a radio's second and further Ogg streams, or of what a stream says on the way, once each.
    using Texts = ForeignSound::Texts;
    std::optional<Texts> take_new_texts();

    // What the library says of the last read or seek, or why the sound does not go on behind a
    // piece; empty when nothing failed.
    std::string last_error() const;

  private:
    // How samples are read and turned into the delivered format.
    enum class Conversion { none_16, unpack_24, upper_24, float_to_24, float_to_16 };

    // Of an Ogg file.
    struct Piece {
        uint64_t begin, end;   // in bytes
        uint64_t first_frame;  // of the whole
    };

    explicit Decoder(Input& input);
    bool open(std::string* error);
    static bool is_deep(Conversion conversion);
    static Conversion conversion_of(sf_private_tag* file, int sndfile_format);
    size_t read_frames(void* block, size_t capacity_bytes);
    bool has_shortcut() const;
    MpegShortcut& shortcut();
    bool take_shortcut(uint64_t frame);
    void count_frames();
    ByteRange present_bytes() const;
    bool join();
    bool go_on();
    bool go_to_piece_of(uint64_t frame);

    Input& m_input;
    std::unique_ptr<MpegShortcut> m_shortcut;  // of a remote MP3
    // Frames that it has seen as they are: there a decoder finds any by itself.
    uint64_t m_seen_from = 0, m_seen_to = 0;
    uint64_t m_place = 0;                   // of the next frame to be read
    std::unique_ptr<SndfileSound> m_sound;  // one of the two
    std::unique_ptr<ForeignSound> m_foreign;
    SoundInfo m_info;
    std::vector<Piece> m_pieces;  // none of any other sound
    size_t m_piece = 0;           // that m_sound is
    std::string m_join_error;
    Conversion m_conversion = Conversion::none_16;
    const uint8_t* m_order = nullptr;  // of the channels, where it is not a WAV file's
    std::optional<Texts> m_new_texts;
};

}  // namespace nuvio::reader
