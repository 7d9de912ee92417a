// Sound as libsndfile reads it. A radio that is joined anew, or begins another Ogg stream, ends for
// libsndfile, which knows of neither: it is opened once more then.
//
// Of MPEG audio without a count of its frames in its head libsndfile guesses the length by the
// first ones, and reads no further. It is told of an input of far more bytes, reads to the real
// end, and the length is measured, or guessed, here. So is that of a FLAC file without one.
#pragma once

#include <sndfile.h>

#include <cstdint>
#include <memory>
#include <optional>

#include "common/released_by.h"
#include "reader/inside/input.h"
#include "reader/inside/sound/ogg_end.h"

namespace nuvio::reader {

// Some bytes of an input.
struct ByteRange {
    uint64_t begin = 0;
    std::optional<uint64_t> end;  // none: the input's
};

// What libsndfile is told of: the input from a first byte on, or a part of it.
class SndfileSound {
  public:
    // Null when `input` is nothing that libsndfile knows, or when it failed; sf_strerror(nullptr)
    // says why. `input` must outlive the result, which is read by one thread at a time and blocks
    // as Input::read() does. A sound that ends early because its input failed looks like its end to
    // libsndfile: ask input.has_failed() then. A radio is opened where its input stands, which need
    // not be the beginning; of any other input these bytes are.
    static std::unique_ptr<SndfileSound> open(Input& input, SF_INFO* info,
                                              const ByteRange& bytes = {});

    SNDFILE* file() const { return m_file.get(); }
    // Goes to a frame, from which on comes what decoding all before it would give; returns the one
    // reached, negative when none was.
    sf_count_t go_to(sf_count_t frame);
    // A radio, or of a length that nobody knows yet: `frames` of SF_INFO is none, and it does not
    // seek.
    bool is_endless() const { return m_is_endless; }
    // `frames` of SF_INFO is a guess: the sound may end before, and go on behind.
    bool is_guess() const { return m_is_guess; }

  private:
    SndfileSound(Input& input, const ByteRange& bytes) : m_input(input), m_bytes(bytes) {}

    static SndfileSound& self(void* data) { return *static_cast<SndfileSound*>(data); }
    bool open_file(SF_INFO* info);
    bool reopen();
    bool has(sf_count_t frame) const;
    sf_count_t measure(sf_count_t end) const;
    bool skip(sf_count_t frames) const;
    sf_count_t approach(sf_count_t frame);
    void find_length(SF_INFO* info);
    void count_blocks(SF_INFO* info);
    void show_format(uint64_t place, char* bytes, size_t count) const;

    std::optional<uint64_t> real_length() const;
    static sf_count_t length(void* data);
    static sf_count_t seek(sf_count_t offset, int whence, void* data);
    static sf_count_t read(void* to, sf_count_t size, void* data);
    static sf_count_t position(void* data);

    Input& m_input;
    ByteRange m_bytes;            // of the input; the first is libsndfile's byte 0
    std::optional<OggEnd> m_ogg;  // of an Ogg radio
    bool m_is_over = false;       // another Ogg stream begins where the input is
    bool m_is_broken = false;     // its input has failed, and nothing more of it comes
    SF_INFO m_info{};
    bool m_is_endless = false;
    bool m_is_stretched = false;  // libsndfile is told of kStretchedLength
    bool m_is_guess = false;
    std::optional<uint64_t> m_hidden_format;  // libsndfile reads kFloatFormat there
    std::unique_ptr<SNDFILE, ReleasedBy<sf_close>> m_file;
};

}  // namespace nuvio::reader
