// The module: AAC and ALAC in M4A and CAF, AAC streams (also in MPEG-TS), WavPack, DSD and FLAC in
// Ogg through FFmpeg's libraries.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "common/music/section.h"
#include "reader/ffmpeg/adts_index.h"
#include "reader/ffmpeg/container.h"
#include "reader/ffmpeg/handles.h"
#include "reader/ffmpeg/id3.h"
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
    explicit FfmpegSound(Input& input) : m_input(input) {}

    // False with *error set.
    bool open(std::string* error) {
        const uint64_t of_dsd = m_input.length() ? dsd_bytes(m_input) : 0;
        const uint64_t edits_a_second = m_input.length() ? edit_rate(m_input) : 0;
        m_adts = m_input.length() ? AdtsIndex::open(m_input) : std::nullopt;
        int result = edits_a_second > 0 ? note_media() : 0;
        result = result < 0 ? result : allocate();
        result = result < 0 ? result : open_stream();
        if (result < 0) {
            *error = text_of(result);
            return false;
        }
        if (std::string_view(m_container->iformat->name) != "aac") {
            m_adts.reset();
        }
        look_ahead();
        const AVCodecContext& decoder = *m_decoder;
        const AVStream& stream = *m_container->streams[m_stream];
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
            m_container->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE;
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
        m_info.title = tag(*m_container, stream, "title");
        m_info.artist = tag(*m_container, stream, "artist");
        m_info.album = tag(*m_container, stream, "album");
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
        if (m_adts) {
            return go_to_packet_of(frame);
        }
        if (m_input.duration_us()) {
            return go_to_time_of(frame);
        }
        // Below 0 lies what a decoder runs in with; not every format has such places.
        const auto target = static_cast<int64_t>(frame);
        const int64_t from = target - kRunUpFrames;
        return m_info.seekable && (go_to(from, target) ||
                                   go_to(std::max<int64_t>(from, 0), target) || go_to(0, target));
    }

    std::optional<Texts> take_new_texts() override {
        return std::exchange(m_new_texts, std::nullopt);
    }

    std::string last_error() const override { return m_error; }

  private:
    // Goes to a frame, and decodes on from there to the target; false when it begins behind that.
    bool go_to(int64_t from, int64_t target) {
        const AVStream& stream = *m_container->streams[m_stream];
        const AVRational per_frame{1, static_cast<int>(m_info.sample_rate)};
        // Before the first packet that it knows of libavformat goes nowhere.
        const AVIndexEntry* const first_packet =
            avformat_index_get_entry(m_container->streams[m_stream], 0);
        const int64_t place =
            std::max(av_rescale_q(from + m_delay, per_frame, stream.time_base),
                     first_packet != nullptr ? first_packet->timestamp : INT64_MIN);
        const bool is_first = first_packet != nullptr && place == first_packet->timestamp;
        return av_seek_frame(m_container.get(), m_stream, place, AVSEEK_FLAG_BACKWARD) >= 0 &&
               decode_up_to(target, is_first);
    }

    // Of a stream in segments, in microseconds; none where its container does not tell times that
    // go on from one to the next.
    std::optional<int64_t> time_told_us() const {
        const std::string_view kind = m_container->iformat->name;
        const AVStream& stream = *m_container->streams[m_stream];
        return m_frame->pts == AV_NOPTS_VALUE || kind == "aac"
                   ? std::nullopt
                   : std::optional(av_rescale_q(m_frame->pts, stream.time_base, {1, 1'000'000}));
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
            m_container.reset();
            if (begin_us == 0U && m_left_out == 0) {
                m_decoder.reset();
            }
            if (!begin_us || open_stream() < 0) {
                return false;
            }
            forget_decoded();
            if (!decode()) {
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

    void forget_decoded() {
        avcodec_flush_buffers(m_decoder.get());
        av_frame_unref(m_ahead.get());
        m_used = m_frame->nb_samples = 0;
    }

    bool go_to_packet_of(uint64_t frame) {
        constexpr uint64_t kRunUp = kRunUpFrames / AdtsIndex::kPacketFrames;
        const uint64_t packet = frame / m_packet_frames + m_left_out;
        const bool is_there = m_adts->place_of(packet).has_value();
        const auto place =
            is_there ? m_adts->place_of(packet - std::min(packet, kRunUp)) : std::nullopt;
        if (!place || av_seek_frame(m_container.get(), m_stream, static_cast<int64_t>(place->byte),
                                    AVSEEK_FLAG_BYTE) < 0) {
            return false;
        }
        m_next_packet = place->packet;
        return decode_up_to(static_cast<int64_t>(frame), place->packet == 0);
    }

    // An overlap stays in a decoder that is flushed, and before the first packet there is none.
    bool decode_up_to(int64_t target, bool is_first) {
        const AVStream& stream = *m_container->streams[m_stream];
        const AVRational per_frame{1, static_cast<int>(m_info.sample_rate)};
        if (is_first && m_left_out == 0) {
            if (open_decoder(m_decoder->codec) < 0) {
                return false;
            }
        }
        forget_decoded();
        while (decode()) {
            const int64_t told = av_rescale_q(m_frame->pts == AV_NOPTS_VALUE ? 0 : m_frame->pts,
                                              stream.time_base, per_frame);
            const int64_t first = m_told_place.value_or(told - m_delay);
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

    void count_packets() {
        m_packet_frames =
            uint64_t{AdtsIndex::kPacketFrames} * m_info.sample_rate / m_adts->rate_hz();
        const AdtsIndex::Count count = m_adts->count();
        m_info.frames = (count.packets - std::min(count.packets, m_left_out)) * m_packet_frames;
        m_info.is_guess = count.is_guess;
    }

    // Of an MPEG-4 file, whose edits hide it.
    int note_media() {
        AVDictionary* options = nullptr;
        av_dict_set(&options, "advanced_editlist", "0", 0);
        const int opened = open_container(m_input, &options, &m_io, &m_container);
        av_dict_free(&options);
        const int number = opened < 0 ? opened
                                      : av_find_best_stream(m_container.get(), AVMEDIA_TYPE_AUDIO,
                                                            -1, -1, nullptr, 0);
        if (number >= 0) {
            AVStream* const stream = m_container->streams[number];
            const AVIndexEntry* const first = avformat_index_get_entry(stream, 0);
            m_media_duration = stream->duration;
            m_edit_begin = first != nullptr ? -first->timestamp : 0;
        }
        m_container.reset();
        return number < 0 ? number : m_input.seek(0) ? 0 : AVERROR(EIO);
    }

    // The edits' length is rounded: where the media's own or what an encoder tells is meant by it,
    // it is that. Without edits the delay that is told is left out.
    int64_t frames_of(const AVStream& stream, uint64_t edits_a_second) {
        const AVRational per_frame{1, m_decoder->sample_rate};
        const auto in_frames = [&](int64_t duration) {
            return av_rescale_q(duration, stream.time_base, per_frame);
        };
        const int64_t frames = in_frames(stream.duration);
        const auto told = frames_told(*m_container);
        if (edits_a_second == 0) {
            return frames;
        }
        if (told && m_edit_begin == 0 && m_media_duration == stream.duration && *told < frames) {
            m_delay = in_frames(std::max<int64_t>(stream.start_time, 0));
            return *told;
        }
        const int64_t tick = m_decoder->sample_rate / static_cast<int64_t>(edits_a_second) + 1;
        for (const int64_t meant : {told.value_or(0), in_frames(m_media_duration - m_edit_begin)}) {
            if (std::abs(meant - frames) < tick) {
                return meant;
            }
        }
        return frames;
    }

    int open_stream() {
        const int opened = open_container(m_input, nullptr, &m_io, &m_container);
        if (opened < 0) {
            return opened;
        }
        AVFormatContext* const container = m_container.get();
        const int known = avformat_find_stream_info(container, nullptr);
        if (known < 0) {
            return known;
        }
        const AVCodec* codec = nullptr;
        m_stream = av_find_best_stream(container, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
        if (m_stream < 0) {
            return m_stream;
        }
        for (unsigned i = 0; i < container->nb_streams; ++i) {
            const bool is_wanted = static_cast<int>(i) == m_stream || is_timed_id3(i);
            container->streams[i]->discard = is_wanted ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        }
        return decodes_on() ? 0 : open_decoder(codec);
    }

    // What begins anew is of the same kind to the decoder, which has half a frame of sound in it.
    bool decodes_on() const {
        if (!m_decoder) {
            return false;
        }
        const AVCodecParameters& next = *m_container->streams[m_stream]->codecpar;
        return next.codec_id == m_decoder->codec_id &&
               next.extradata_size == m_decoder->extradata_size &&
               std::equal(next.extradata, next.extradata + next.extradata_size,
                          m_decoder->extradata);
    }

    int allocate() {
        m_packet.reset(av_packet_alloc());
        m_frame.reset(av_frame_alloc());
        m_ahead.reset(av_frame_alloc());
        return m_packet && m_frame && m_ahead ? 0 : AVERROR(ENOMEM);
    }

    int open_decoder(const AVCodec* codec) {
        const AVStream& stream = *m_container->streams[m_stream];
        m_decoder.reset(avcodec_alloc_context3(codec));
        if (!m_decoder) {
            return AVERROR(ENOMEM);
        }
        const int taken = avcodec_parameters_to_context(m_decoder.get(), stream.codecpar);
        m_decoder->thread_count = 1;
        m_decoder->pkt_timebase = stream.time_base;
        m_decoder->codec_whitelist = av_strdup(kDecoders);
        return taken < 0 ? taken : avcodec_open2(m_decoder.get(), codec, nullptr);
    }

    // The first frame may lack a channel or half the rate that the second one shows there are (AAC
    // with extensions); the decoder then says what that has. One of another rate is left out.
    void look_ahead() {
        if (receive(*m_frame) && receive(*m_ahead) &&
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
        if (!receive(*m_frame)) {
            return false;
        }
        if (m_frame->sample_rate != static_cast<int>(m_info.sample_rate)) {
            m_used = m_frame->nb_samples;  // nobody reads it
            m_error = "it goes on in another format";
            return false;
        }
        return true;
    }

    bool receive(AVFrame& frame) {
        while (m_decoder) {
            const int received = avcodec_receive_frame(m_decoder.get(), &frame);
            if (received == 0 && frame.nb_samples > 0) {
                return true;
            }
            if (received != 0 && received != AVERROR(EAGAIN)) {
                return false;
            }
            if (received == AVERROR(EAGAIN) && !feed()) {
                return false;
            }
        }
        return false;
    }

    // Where the sound of a packet, which is one frame, begins, if libavformat does not know.
    std::optional<int64_t> place_of(const AVPacket& packet) {
        if (!m_adts) {
            return flac_place_of(packet);
        }
        const auto number = static_cast<int64_t>(m_next_packet++ - m_left_out);
        return number * static_cast<int64_t>(m_packet_frames);
    }

    // Of an Ogg packet libavformat guesses the place; a frame of FLAC has it in its head.
    std::optional<int64_t> flac_place_of(const AVPacket& packet) const {
        constexpr int kNumber = 4;  // coded as UTF-8 codes a character
        constexpr int kMaxNumber = 7;
        if (m_decoder->codec_id != AV_CODEC_ID_FLAC || packet.size < kNumber + kMaxNumber ||
            m_decoder->extradata_size < 2) {
            return std::nullopt;
        }
        const int bytes = std::countl_one(packet.data[kNumber]);
        int64_t number = packet.data[kNumber] & (0xff >> (bytes + 1));
        for (int i = 1; i < bytes && i < kMaxNumber; ++i) {
            number = number << 6 | (packet.data[kNumber + i] & 0x3f);
        }
        const bool is_of_samples = (packet.data[1] & 1) != 0;
        const int block_frames = m_decoder->extradata[0] << 8 | m_decoder->extradata[1];
        return is_of_samples ? number : number * block_frames;
    }

    bool is_timed_id3(unsigned stream) const {
        return m_container->streams[stream]->codecpar->codec_id == AV_CODEC_ID_TIMED_ID3;
    }

    // A tag before frames of AAC is the container's, one among packets of MPEG-TS a packet.
    void note_texts(bool has_packet) {
        if ((m_container->event_flags & AVFMT_EVENT_FLAG_METADATA_UPDATED) != 0) {
            m_container->event_flags &= ~AVFMT_EVENT_FLAG_METADATA_UPDATED;
            const AVStream& stream = *m_container->streams[m_stream];
            const std::string title = tag(*m_container, stream, "title");
            if (!title.empty()) {
                m_new_texts = {title, tag(*m_container, stream, "artist")};
            }
        }
        if (has_packet && is_timed_id3(static_cast<unsigned>(m_packet->stream_index))) {
            auto texts = texts_in_id3({reinterpret_cast<const char*>(m_packet->data),
                                       static_cast<size_t>(m_packet->size)});
            m_new_texts = texts ? std::move(texts) : std::move(m_new_texts);
        }
    }

    // Where the container's bytes end others may begin.
    int read_packet() {
        int got = m_container ? av_read_frame(m_container.get(), m_packet.get()) : AVERROR_EOF;
        while (got == AVERROR_EOF && m_input.next_run()) {
            m_container.reset();
            got = open_stream();
            got = got < 0 ? got : av_read_frame(m_container.get(), m_packet.get());
        }
        return got;
    }

    // A packet that can't be decoded costs its own sound alone.
    bool feed() {
        for (;;) {
            const int got = read_packet();
            m_error = got < 0 && got != AVERROR_EOF ? text_of(got) : "";
            if (m_container) {
                note_texts(got >= 0);
            }
            const bool is_ours = got >= 0 && m_packet->stream_index == m_stream;
            const int sent = got < 0   ? avcodec_send_packet(m_decoder.get(), nullptr)
                             : is_ours ? avcodec_send_packet(m_decoder.get(), m_packet.get())
                                       : AVERROR_INVALIDDATA;
            m_told_place = is_ours ? place_of(*m_packet) : std::nullopt;
            av_packet_unref(m_packet.get());
            if (sent == 0 || got < 0) {
                return sent == 0;
            }
        }
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
    Io m_io;
    Container m_container;
    Decoder m_decoder;
    Packet m_packet;
    Frame m_frame;
    Frame m_ahead;  // the one behind it, or none
    int m_stream = -1;
    int64_t m_media_duration = 0;         // in the stream's time, without edits
    int64_t m_edit_begin = 0;             // in it
    std::optional<int64_t> m_told_place;  // of the packet that was decoded last
    std::optional<AdtsIndex> m_adts;      // of a file that is AAC in ADTS
    uint64_t m_packet_frames = 0;         // of each of its packets
    uint64_t m_next_packet = 0;           // of them, to be decoded
    uint64_t m_left_out = 0;              // packets of them at the beginning
    std::optional<int64_t> m_first_us;    // of a stream in segments, as its container tells times
    int64_t m_delay = 0;                  // of the first frame to be heard, which is not its time
    std::optional<Texts> m_new_texts;
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
