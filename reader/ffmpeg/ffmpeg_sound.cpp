// The module: AAC and ALAC in M4A and CAF, AAC streams (also in MPEG-TS), WavPack, DSD and FLAC in
// Ogg through FFmpeg's libraries.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "common/music/section.h"
#include "reader/ffmpeg/adts_index.h"
#include "reader/ffmpeg/container.h"
#include "reader/ffmpeg/frames.h"
#include "reader/ffmpeg/handles.h"
#include "reader/ffmpeg/lengths.h"
#include "reader/ffmpeg/samples.h"
#include "reader/inside/sound/foreign_sound.h"

namespace nuvio::reader {

namespace {

using namespace libav;

constexpr uint32_t kMaxRate = 384000;
constexpr int kMaxChannels = 32;
constexpr int kShallowBits = 16;
// A decoder of overlapping frames is right from the second one on.
constexpr int64_t kRunUpFrames = 8192;
constexpr int64_t kOverlapFrames = 2048;

class FfmpegSound : public ForeignSound {
  public:
    explicit FfmpegSound(Input& input) : m_input(input), m_frames(input) {}

    // False with *error set.
    bool open(std::string* error) {
        const uint64_t of_dsd = m_input.length() ? dsd_bytes(m_input) : 0;
        const uint64_t edits_a_second = m_input.length() ? edit_rate(m_input) : 0;
        m_adts = m_input.length() ? AdtsIndex::open(m_input) : nullptr;
        m_frame.reset(av_frame_alloc());
        m_ahead.reset(av_frame_alloc());
        int result = m_frame && m_ahead ? 0 : AVERROR(ENOMEM);
        if (result == 0 && edits_a_second > 0) {
            result = m_frames.look_at_media(&m_media_duration, &m_edit_begin);
        }
        result = result < 0 ? result : m_frames.open();
        if (result < 0) {
            *error = text_of(result);
            return false;
        }
        if (m_frames.kind() != "aac") {
            m_adts.reset();
        }
        look_ahead();
        const AVCodecContext& decoder = m_frames.decoder();
        const AVStream& stream = m_frames.stream();
        const bool is_shallow =
            decoder.codec_id == AV_CODEC_ID_AAC || decoder.sample_fmt == AV_SAMPLE_FMT_S16 ||
            decoder.sample_fmt == AV_SAMPLE_FMT_S16P || decoder.sample_fmt == AV_SAMPLE_FMT_U8 ||
            decoder.sample_fmt == AV_SAMPLE_FMT_U8P ||
            (decoder.bits_per_raw_sample > 0 && decoder.bits_per_raw_sample <= kShallowBits);
        if (decoder.sample_rate <= 0 || static_cast<uint32_t>(decoder.sample_rate) > kMaxRate ||
            decoder.ch_layout.nb_channels <= 0 || decoder.ch_layout.nb_channels > kMaxChannels) {
            *error = "no rate or channels that can be played";
            return false;
        }
        m_info.sample_rate = static_cast<uint32_t>(decoder.sample_rate);
        m_info.channels = static_cast<uint32_t>(decoder.ch_layout.nb_channels);
        m_info.is_deep = !is_shallow;
        m_info.seekable = m_input.length().has_value();
        const bool is_guess =
            m_frames.container().duration_estimation_method == AVFMT_DURATION_FROM_BITRATE;
        if (const auto duration_us = m_input.duration_us()) {
            m_info.frames =
                nearest_frame(std::min(*duration_us, Section::kLongest), m_info.sample_rate);
            m_info.is_guess = m_info.seekable = true;
            m_first_us = time_told_us();
        } else if (m_adts) {
            count_packets();
        } else if (m_info.seekable && stream.duration > 0 && !is_guess) {
            m_info.frames = static_cast<uint64_t>(frames_of(stream, edits_a_second));
        } else if (of_dsd > 0) {
            m_info.frames = of_dsd / m_info.channels;  // eight bits a frame
        }
        m_info.title = tag(m_frames.container(), stream, "title");
        m_info.artist = tag(m_frames.container(), stream, "artist");
        m_info.album = tag(m_frames.container(), stream, "album");
        if (const auto texts = take_new_texts()) {
            m_info.title = texts->title;
            m_info.artist = texts->artist;
        }
        return true;
    }

    const ForeignInfo& info() const override { return m_info; }

    size_t read(void* to, size_t frames) override {
        if (m_info.frames && !m_info.is_guess) {
            frames = static_cast<size_t>(std::min<uint64_t>(frames, *m_info.frames - m_position));
        }
        size_t done = 0;
        while (done < frames && (m_used < m_frame->nb_samples || decode())) {
            const int count = static_cast<int>(
                std::min(frames - done, static_cast<size_t>(m_frame->nb_samples - m_used)));
            const size_t at = done * m_info.channels;
            m_info.is_deep ? convert(static_cast<int32_t*>(to) + at, count)
                           : convert(static_cast<int16_t*>(to) + at, count);
            m_used += count;
            done += static_cast<size_t>(count);
        }
        m_position += done;
        return done;
    }

    bool seek(uint64_t frame) override {
        m_error.clear();
        if (m_input.duration_us()) {
            return go_to_time_of(frame);
        }
        if (!m_info.seekable || !m_frames.is_open()) {
            return false;
        }
        if (m_adts) {
            return go_to_packet_of(frame);
        }
        // Below 0 lies what a decoder runs in with; not every format has such places.
        const auto target = static_cast<int64_t>(frame);
        const int64_t from = target - kRunUpFrames;
        return go_to(from, target) || go_to(std::max<int64_t>(from, 0), target) || go_to(0, target);
    }

    std::optional<Texts> take_new_texts() override { return m_frames.take_new_texts(); }

    std::string last_error() const override {
        return m_error.empty() ? m_frames.last_error() : m_error;
    }

  private:
    // Goes to a frame, and decodes on from there to the target; false when it begins behind that.
    bool go_to(int64_t from, int64_t target) {
        AVStream& stream = m_frames.stream();
        const AVRational per_frame{1, static_cast<int>(m_info.sample_rate)};
        // Before the first packet that it knows of libavformat goes nowhere.
        const AVIndexEntry* const first_packet = avformat_index_get_entry(&stream, 0);
        const int64_t place =
            std::max(av_rescale_q(from + m_delay, per_frame, stream.time_base),
                     first_packet != nullptr ? first_packet->timestamp : INT64_MIN);
        const bool is_first = first_packet != nullptr && place == first_packet->timestamp;
        return m_frames.seek(place, AVSEEK_FLAG_BACKWARD) && decode_up_to(target, is_first);
    }

    // Of a stream in segments, in microseconds; none where its container does not tell times that
    // go on from one to the next.
    std::optional<int64_t> time_told_us() const {
        if (!m_frames.is_open()) {
            return std::nullopt;  // what came behind it can't be read
        }
        const AVRational unit = m_frames.stream().time_base;
        return m_frame->pts == AV_NOPTS_VALUE || m_frames.kind() == "aac"
                   ? std::nullopt
                   : std::optional(av_rescale_q(m_frame->pts, unit, {1, 1'000'000}));
    }

    // Of the frame that was decoded last, in a segment that begins there by the playlist: lengths
    // in that are rounded. Behind a cut a container may tell any time.
    uint64_t time_at(uint64_t begin_us) const {
        constexpr uint64_t kAlwaysOff = 2'000'000, kOffBy = 16;
        const uint64_t most = kAlwaysOff + begin_us / kOffBy;
        const auto told_us = time_told_us();
        const int64_t since_us = told_us && m_first_us ? *told_us - *m_first_us : -1;
        const auto now_us = static_cast<uint64_t>(std::max<int64_t>(since_us, 0));
        const uint64_t off = now_us > begin_us ? now_us - begin_us : begin_us - now_us;
        return since_us < 0 || off > most ? begin_us : now_us;
    }

    // Goes to the segment before it, and decodes on from there. Where a segment begins later than
    // its playlist says, begins with one that is earlier by that.
    bool go_to_time_of(uint64_t frame) {
        constexpr int kTries = 3;
        const auto target = static_cast<int64_t>(frame);
        int64_t from = std::max<int64_t>(target - kRunUpFrames, 0);
        bool is_there = false;
        for (int n = 0; n < kTries && !is_there; ++n) {
            const auto begin_us =
                m_input.go_to_time(time_us_of(static_cast<uint64_t>(from), m_info.sample_rate));
            if (!begin_us || m_frames.open() < 0 || !forget_decoded(begin_us == 0U) || !decode()) {
                return false;
            }
            const uint64_t now_us = time_at(*begin_us);
            const auto first = static_cast<int64_t>(
                nearest_frame(std::min(now_us, Section::kLongest), m_info.sample_rate));
            is_there = first + kOverlapFrames <= target || from == 0;
            from = std::max<int64_t>(from - (first - target) - kRunUpFrames, 0);
            if (is_there && !skip(std::max<int64_t>(target - first, 0))) {
                return false;
            }
        }
        m_position = frame;
        return is_there;
    }

    // From the frame on that was decoded last.
    bool skip(int64_t frames) {
        while (frames >= m_frame->nb_samples) {
            frames -= m_frame->nb_samples;
            if (!decode()) {
                return false;
            }
        }
        m_used = static_cast<int>(frames);
        return true;
    }

    // An overlap stays in a decoder that is flushed, and before the first packet there is none.
    bool forget_decoded(bool is_at_begin) {
        av_frame_unref(m_ahead.get());
        m_used = m_frame->nb_samples = 0;
        return is_at_begin && m_left_out == 0 ? m_frames.begin_anew() : m_frames.flush();
    }

    bool go_to_packet_of(uint64_t frame) {
        constexpr uint64_t kRunUp = kRunUpFrames / AdtsIndex::kPacketFrames;
        const uint64_t packet = frame / m_packet_frames + m_left_out;
        const bool is_there = m_adts->place_of(packet).has_value();
        const auto place =
            is_there ? m_adts->place_of(packet - std::min(packet, kRunUp)) : std::nullopt;
        if (!place || !m_frames.seek(static_cast<int64_t>(place->byte), AVSEEK_FLAG_BYTE)) {
            return false;
        }
        m_frames.set_next_packet(place->packet);
        return decode_up_to(static_cast<int64_t>(frame), place->packet == 0);
    }

    bool decode_up_to(int64_t target, bool is_first) {
        if (!forget_decoded(is_first)) {
            return false;
        }
        const AVRational unit = m_frames.stream().time_base;
        const AVRational per_frame{1, static_cast<int>(m_info.sample_rate)};
        while (decode()) {
            const int64_t told =
                av_rescale_q(m_frame->pts == AV_NOPTS_VALUE ? 0 : m_frame->pts, unit, per_frame);
            const int64_t first = place_by_packet().value_or(told - m_delay);
            if (first > target) {
                return false;
            }
            if (target < first + m_frame->nb_samples) {
                m_used = static_cast<int>(target - first);
                m_position = static_cast<uint64_t>(target);
                return true;
            }
        }
        return false;
    }

    // Of the frame that was decoded last, where libavformat does not know it.
    std::optional<int64_t> place_by_packet() const {
        return m_adts ? static_cast<int64_t>((m_frames.packet() - m_left_out) * m_packet_frames)
                      : m_frames.flac_place();
    }

    void count_packets() {
        m_packet_frames =
            uint64_t{AdtsIndex::kPacketFrames} * m_info.sample_rate / m_adts->rate_hz();
        const AdtsIndex::Count count = m_adts->count();
        m_info.frames = (count.packets - std::min(count.packets, m_left_out)) * m_packet_frames;
        m_info.is_guess = count.is_guess;
    }

    // The edits' length is rounded: where the media's own or what an encoder tells is meant by it,
    // it is that. Without edits the delay that is told is left out.
    int64_t frames_of(const AVStream& stream, uint64_t edits_a_second) {
        const AVRational per_frame{1, m_frames.decoder().sample_rate};
        const auto in_frames = [&](int64_t duration) {
            return av_rescale_q(duration, stream.time_base, per_frame);
        };
        const int64_t frames = in_frames(stream.duration);
        const auto told = frames_told(m_frames.container());
        if (edits_a_second == 0) {
            return frames;
        }
        if (told && m_edit_begin == 0 && m_media_duration == stream.duration && *told < frames) {
            m_delay = in_frames(std::max<int64_t>(stream.start_time, 0));
            return *told;
        }
        const int64_t tick = per_frame.den / static_cast<int64_t>(edits_a_second) + 1;
        for (const int64_t meant : {told.value_or(0), in_frames(m_media_duration - m_edit_begin)}) {
            if (std::abs(meant - frames) < tick) {
                return meant;
            }
        }
        return frames;
    }

    // The first frame may lack a channel or half the rate that the second one shows there are (AAC
    // with extensions); the decoder then says what that has. One of another rate is left out.
    void look_ahead() {
        if (m_frames.receive(*m_frame) && m_frames.receive(*m_ahead) &&
            m_frame->sample_rate != m_ahead->sample_rate) {
            m_left_out = 1;
            take_ahead();
        }
    }

    void take_ahead() {
        av_frame_unref(m_frame.get());
        av_frame_move_ref(m_frame.get(), m_ahead.get());
    }

    // The next frame, of the file's rate; false at the end.
    bool decode() {
        m_used = 0;
        if (m_ahead->nb_samples > 0) {
            take_ahead();
            return true;
        }
        if (!m_frames.receive(*m_frame)) {
            return false;
        }
        if (m_frame->sample_rate != static_cast<int>(m_info.sample_rate)) {
            m_used = m_frame->nb_samples;  // nobody reads it
            m_error = "it goes on in another format";
            return false;
        }
        return true;
    }

    // A frame of one channel is heard on all; channels that another one lacks are silent.
    template <typename Out>
    void convert(Out* to, int count) const {
        const int channels = static_cast<int>(m_info.channels);
        const int own = m_frame->ch_layout.nb_channels;
        for (int i = 0; i < count; ++i) {
            for (int channel = 0; channel < channels; ++channel) {
                const int from = own == 1 ? 0 : channel;
                *to++ = from < own ? sample_of<Out>(*m_frame, from, m_used + i, own) : Out{0};
            }
        }
    }

    Input& m_input;
    ForeignInfo m_info;
    Frames m_frames;
    Frame m_frame;
    Frame m_ahead;                      // the one behind it, or none
    int64_t m_media_duration = 0;       // in the stream's time, without edits
    int64_t m_edit_begin = 0;           // in it
    std::unique_ptr<AdtsIndex> m_adts;  // of a file that is AAC in ADTS
    uint64_t m_packet_frames = 0;       // of each of its packets
    uint64_t m_left_out = 0;            // packets of them at the beginning
    std::optional<int64_t> m_first_us;  // of a stream in segments, as its container tells times
    int64_t m_delay = 0;                // of the first frame to be heard, which is not its time
    std::string m_error;
    int m_used = 0;           // of m_frame, read already
    uint64_t m_position = 0;  // of the next frame to be read
};

}  // namespace

}  // namespace nuvio::reader

extern "C" __attribute__((visibility("default"))) nuvio::reader::ForeignSound*
nuvio_open_foreign_sound(nuvio::reader::Input& input, std::string* error) {
    av_log_set_level(AV_LOG_QUIET);
    auto sound = std::make_unique<nuvio::reader::FfmpegSound>(input);
    return sound->open(error) ? sound.release() : nullptr;
}
