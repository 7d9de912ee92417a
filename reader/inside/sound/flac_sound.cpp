#include "reader/inside/sound/flac_sound.h"

#include <FLAC/metadata.h>
#include <FLAC/stream_decoder.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "common/released_by.h"
#include "reader/inside/sound/heads.h"

namespace nuvio::reader {

namespace {

using Block = FLAC__StreamMetadata;
using StreamDecoder = std::unique_ptr<FLAC__StreamDecoder, ReleasedBy<FLAC__stream_decoder_delete>>;

constexpr unsigned kDeepBits = 24;

std::string comment(const Block& comments, const char* name) {
    const int at = FLAC__metadata_object_vorbiscomment_find_entry_from(&comments, 0, name);
    if (at < 0) {
        return "";
    }
    const auto& entry = comments.data.vorbis_comment.comments[at];
    const std::string_view text(reinterpret_cast<const char*>(entry.entry), entry.length);
    return std::string(text.substr(text.find('=') + 1, kMaxSoundText));
}

class FlacSound : public ForeignSound {
  public:
    explicit FlacSound(Input& input) : m_input(input) {}

    // False with *error set.
    bool open(std::string* error) {
        const std::optional<uint64_t> counted =
            m_input.length() ? flac_frames(m_input) : std::nullopt;
        if (!begin() || FLAC__stream_decoder_process_until_end_of_metadata(decoder()) == 0 ||
            m_info.channels == 0 || m_info.sample_rate == 0) {
            *error = "its head can't be read";
            return false;
        }
        m_info.is_guess = !m_info.frames && counted;
        m_info.frames = m_info.is_guess ? counted : m_info.frames;
        m_info.seekable = m_input.length().has_value();
        m_samples.resize(size_t{FLAC__MAX_BLOCK_SIZE} * m_info.channels);
        return true;
    }

    const ForeignInfo& info() const override { return m_info; }

    size_t read(void* to, size_t frames) override {
        if (m_info.frames && !m_info.is_guess) {
            frames = static_cast<size_t>(std::min<uint64_t>(frames, *m_info.frames - m_position));
        }
        size_t done = 0;
        while (done < frames && (m_used < m_count || decode())) {
            const size_t count = std::min(frames - done, m_count - m_used);
            std::copy_n(m_samples.begin() + static_cast<std::ptrdiff_t>(m_used * m_info.channels),
                        count * m_info.channels,
                        static_cast<int32_t*>(to) + done * m_info.channels);
            m_used += count;
            done += count;
        }
        m_position += done;
        return done;
    }

    // What stands behind the sound keeps libFLAC from places near its end.
    bool seek(uint64_t frame) override {
        uint64_t from = frame;
        bool is_there = m_info.seekable && go_to(from);
        for (uint64_t distance = FLAC__MAX_BLOCK_SIZE; !is_there && from > 0; distance *= 2) {
            from = frame - std::min(frame, distance);
            is_there = m_info.seekable && go_to(from);
        }
        is_there = is_there && skip(frame - from);
        m_position = is_there ? frame : m_position;
        return is_there;
    }

    std::optional<Texts> take_new_texts() override { return std::nullopt; }
    std::string last_error() const override { return m_error; }

  private:
    static FlacSound& self(void* data) { return *static_cast<FlacSound*>(data); }
    FLAC__StreamDecoder* decoder() const { return m_decoder.get(); }

    bool begin() {
        constexpr std::string_view kOgg = "OggS";
        const bool is_in_ogg = bytes_at(m_input, 0, kOgg.size()) == kOgg;
        m_decoder.reset(FLAC__stream_decoder_new());
        if (!m_decoder || !m_input.seek(0)) {
            return false;
        }
        FLAC__stream_decoder_set_metadata_respond(decoder(), FLAC__METADATA_TYPE_VORBIS_COMMENT);
        const auto init =
            is_in_ogg ? FLAC__stream_decoder_init_ogg_stream : FLAC__stream_decoder_init_stream;
        return init(decoder(), read_bytes, seek_bytes, tell_bytes, length_of, is_at_end, take_block,
                    take_head, take_error, this) == FLAC__STREAM_DECODER_INIT_STATUS_OK;
    }

    bool decode() {
        m_count = m_used = 0;
        while (m_count == 0 && !m_is_broken) {
            m_is_broken =
                FLAC__stream_decoder_process_single(decoder()) == 0 ||
                FLAC__stream_decoder_get_state(decoder()) == FLAC__STREAM_DECODER_END_OF_STREAM;
        }
        return m_count > 0;
    }

    // libFLAC decodes the first block there.
    bool go_to(uint64_t frame) {
        m_is_broken = false;
        m_count = m_used = 0;
        const bool is_there =
            FLAC__stream_decoder_seek_absolute(decoder(), frame) != 0 && m_count > 0;
        if (!is_there) {
            FLAC__stream_decoder_flush(decoder());
        }
        return is_there;
    }

    bool skip(uint64_t frames) {
        while (m_count > 0 && frames >= m_count) {
            frames -= m_count;
            decode();
        }
        m_used = static_cast<size_t>(frames);
        return m_count > 0;
    }

    void take(const FLAC__Frame& block, const FLAC__int32* const channels[]) {
        const unsigned narrower = block.header.bits_per_sample - kDeepBits;
        m_count = block.header.blocksize;
        m_used = 0;
        int32_t* to = m_samples.data();
        for (size_t frame = 0; frame < m_count; ++frame) {
            for (size_t channel = 0; channel < m_info.channels; ++channel) {
                *to++ = channels[channel][frame] >> narrower;
            }
        }
    }

    // ---- What libFLAC calls is C: nothing may throw

    static FLAC__StreamDecoderReadStatus read_bytes(const FLAC__StreamDecoder*, FLAC__byte* to,
                                                    size_t* size, void* data) {
        *size = self(data).m_input.read(to, *size);
        return *size > 0 ? FLAC__STREAM_DECODER_READ_STATUS_CONTINUE
                         : FLAC__STREAM_DECODER_READ_STATUS_END_OF_STREAM;
    }

    static FLAC__StreamDecoderSeekStatus seek_bytes(const FLAC__StreamDecoder*, FLAC__uint64 place,
                                                    void* data) {
        return self(data).m_input.seek(place) ? FLAC__STREAM_DECODER_SEEK_STATUS_OK
                                              : FLAC__STREAM_DECODER_SEEK_STATUS_ERROR;
    }

    static FLAC__StreamDecoderTellStatus tell_bytes(const FLAC__StreamDecoder*, FLAC__uint64* place,
                                                    void* data) {
        *place = self(data).m_input.position();
        return FLAC__STREAM_DECODER_TELL_STATUS_OK;
    }

    static FLAC__StreamDecoderLengthStatus length_of(const FLAC__StreamDecoder*,
                                                     FLAC__uint64* length, void* data) {
        const auto known = self(data).m_input.length();
        *length = known.value_or(0);
        return known ? FLAC__STREAM_DECODER_LENGTH_STATUS_OK
                     : FLAC__STREAM_DECODER_LENGTH_STATUS_UNSUPPORTED;
    }

    static FLAC__bool is_at_end(const FLAC__StreamDecoder*, void* data) {
        Input& input = self(data).m_input;
        const auto length = input.length();
        return length && input.position() >= *length ? 1 : 0;
    }

    static FLAC__StreamDecoderWriteStatus take_block(const FLAC__StreamDecoder*,
                                                     const FLAC__Frame* block,
                                                     const FLAC__int32* const channels[],
                                                     void* data) {
        FlacSound& sound = self(data);
        const FLAC__FrameHeader& head = block->header;
        if (head.channels != sound.m_info.channels || head.bits_per_sample <= kDeepBits ||
            head.sample_rate != sound.m_info.sample_rate) {
            sound.m_error = "it goes on in another format";
            return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
        }
        sound.take(*block, channels);
        return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
    }

    static void take_head(const FLAC__StreamDecoder*, const Block* block, void* data) {
        ForeignInfo& info = self(data).m_info;
        if (block->type == FLAC__METADATA_TYPE_STREAMINFO) {
            const FLAC__StreamMetadata_StreamInfo& head = block->data.stream_info;
            info.sample_rate = head.sample_rate;
            info.channels = head.channels;
            info.is_deep = true;
            info.frames = head.total_samples > 0 ? std::optional(head.total_samples) : std::nullopt;
        } else if (block->type == FLAC__METADATA_TYPE_VORBIS_COMMENT) {
            info.title = comment(*block, "TITLE");
            info.artist = comment(*block, "ARTIST");
            info.album = comment(*block, "ALBUM");
        }
    }

    // A block that is damaged costs its own sound alone.
    static void take_error(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus, void*) {}

    Input& m_input;
    ForeignInfo m_info;
    StreamDecoder m_decoder;
    std::vector<int32_t> m_samples;  // of the block that was decoded last
    size_t m_count = 0, m_used = 0;  // its frames, and those that were read
    uint64_t m_position = 0;         // of the next frame to be read
    bool m_is_broken = false;        // nothing more comes before a seek
    std::string m_error;
};

}  // namespace

std::unique_ptr<ForeignSound> open_flac_sound(Input& input, std::string* error) {
    auto sound = std::make_unique<FlacSound>(input);
    return sound->open(error) ? std::move(sound) : nullptr;
}

}  // namespace nuvio::reader
