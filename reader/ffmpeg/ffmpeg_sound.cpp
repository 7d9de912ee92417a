// The module: AAC and ALAC in M4A and CAF, AAC streams (also in MPEG-TS), WavPack, DSD and FLAC in
// Ogg through FFmpeg's libraries.
//
// Its demuxers and decoders are named: whatever the bytes say, nothing opens a further file or URL.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "reader/ffmpeg/handles.h"
#include "reader/ffmpeg/id3.h"
#include "reader/ffmpeg/lengths.h"
#include "reader/ffmpeg/samples.h"
#include "reader/inside/sound/foreign_sound.h"

namespace nuvio::reader {

namespace {

using namespace libav;

constexpr char kDemuxers[] = "mov,caf,aac,mpegts,wv,dsf,iff,ogg";
constexpr char kDecoders[] =
    "aac,alac,wavpack,flac,dsd_lsbf,dsd_msbf,dsd_lsbf_planar,dsd_msbf_planar";
constexpr int kBufferBytes = 32768;
// Of a radio: what is read is what its titles are shown by.
constexpr int kRadioBufferBytes = 4096;
constexpr uint32_t kMaxRate = 384000;
constexpr int kMaxChannels = 32;
constexpr int kShallowBits = 16;
// A decoder of overlapping frames is right from the second one on.
constexpr int64_t kRunUpFrames = 8192;

// After AVERROR_EOF libavformat does not read again before it has sought; 0 is not allowed. What it
// calls is C: neither of the two may throw.
int read_input(void* opaque, uint8_t* to, int size) {
    const size_t got = static_cast<Input*>(opaque)->read(to, static_cast<size_t>(size));
    return got > 0 ? static_cast<int>(got) : AVERROR_EOF;
}

// Asked for places from the beginning, for the length, and where there is none for the last byte
// (SEEK_END, -1). A failure leaves libavformat where it was, with what it had in its buffer.
int64_t seek_input(void* opaque, int64_t offset, int whence) {
    auto& input = *static_cast<Input*>(opaque);
    const auto length = input.length();
    whence &= ~AVSEEK_FORCE;
    if (whence == AVSEEK_SIZE) {
        return length ? static_cast<int64_t>(*length) : AVERROR(ENOSYS);
    }
    if (whence == SEEK_CUR) {
        offset += static_cast<int64_t>(input.position());
    } else if (whence == SEEK_END) {
        offset += static_cast<int64_t>(length.value_or(0));
    }
    return offset >= 0 && input.seek(static_cast<uint64_t>(offset)) ? offset : AVERROR(EIO);
}

// How many frames an encoder says that its delay and padding leave; none when it does not.
std::optional<int64_t> frames_told(const AVFormatContext& container) {
    constexpr int kFrames = 3;  // of its hexadecimal numbers
    const AVDictionaryEntry* const entry = av_dict_get(container.metadata, "iTunSMPB", nullptr, 0);
    char* rest = entry != nullptr ? entry->value : nullptr;
    unsigned long long frames = 0;
    for (int i = 0; rest != nullptr && i <= kFrames; ++i) {
        frames = std::strtoull(rest, &rest, 16);
    }
    return frames > 0 && frames < INT64_MAX ? std::optional(static_cast<int64_t>(frames))
                                            : std::nullopt;
}

std::string text_of(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE];
    return av_strerror(error, text, sizeof text) == 0 ? text : "unreadable";
}

std::string tag(const AVFormatContext& container, const AVStream& stream, const char* name) {
    const AVDictionaryEntry* entry = av_dict_get(container.metadata, name, nullptr, 0);
    if (entry == nullptr) {
        entry = av_dict_get(stream.metadata, name, nullptr, 0);
    }
    constexpr size_t kMaxTagBytes = 1024;
    return entry != nullptr ? std::string(entry->value).substr(0, kMaxTagBytes) : "";
}

class FfmpegSound : public ForeignSound {
  public:
    explicit FfmpegSound(Input& input) : m_input(input) {}

    // False with *error set.
    bool open(std::string* error) {
        const uint64_t of_dsd = m_input.length() ? dsd_bytes(m_input) : 0;
        const uint64_t edits_a_second = m_input.length() ? edit_rate(m_input) : 0;
        int result = edits_a_second > 0 ? note_media() : 0;
        result = result < 0 ? result : allocate();
        result = result < 0 ? result : open_container();
        if (result < 0) {
            *error = text_of(result);
            return false;
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
        if (m_info.seekable && stream.duration > 0 && !is_guess) {
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
        if (m_info.frames) {
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
        if (av_seek_frame(m_container.get(), m_stream, place, AVSEEK_FLAG_BACKWARD) < 0) {
            return false;
        }
        avcodec_flush_buffers(m_decoder.get());
        av_frame_unref(m_ahead.get());
        m_used = m_frame->nb_samples = 0;
        while (decode()) {
            const int64_t told = av_rescale_q(m_frame->pts == AV_NOPTS_VALUE ? 0 : m_frame->pts,
                                              stream.time_base, per_frame);
            const int64_t first = m_flac_place.value_or(told - m_delay);
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

    int open_input(AVDictionary** options) {
        const int bytes = m_input.is_radio() ? kRadioBufferBytes : kBufferBytes;
        auto* const buffer = static_cast<unsigned char*>(av_malloc(static_cast<size_t>(bytes)));
        m_io.reset(avio_alloc_context(buffer, bytes, 0, &m_input, read_input, nullptr, seek_input));
        AVFormatContext* container = avformat_alloc_context();
        if (!m_io || container == nullptr) {
            return AVERROR(ENOMEM);
        }
        m_io->seekable = m_input.length() ? AVIO_SEEKABLE_NORMAL : 0;
        container->pb = m_io.get();
        container->max_analyze_duration = AV_TIME_BASE;
        container->format_whitelist = av_strdup(kDemuxers);
        container->codec_whitelist = av_strdup(kDecoders);
        container->protocol_whitelist = av_strdup("none");
        const int opened = avformat_open_input(&container, "", nullptr, options);
        if (opened < 0) {
            return opened;  // it is freed
        }
        m_container.reset(container);
        return 0;
    }

    // Of an MPEG-4 file, whose edits hide it.
    int note_media() {
        AVDictionary* options = nullptr;
        av_dict_set(&options, "advanced_editlist", "0", 0);
        const int opened = open_input(&options);
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

    int open_container() {
        const int opened = open_input(nullptr);
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
        for (;;) {
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
    }

    // Of an Ogg packet libavformat guesses the place; a frame of FLAC has it in its head. A packet
    // is one frame.
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
        int got = av_read_frame(m_container.get(), m_packet.get());
        while (got == AVERROR_EOF && m_input.next_run()) {
            m_container.reset();
            got = open_container();
            got = got < 0 ? got : av_read_frame(m_container.get(), m_packet.get());
        }
        return got;
    }

    // A packet that can't be decoded costs its own sound alone.
    bool feed() {
        for (;;) {
            const int got = read_packet();
            m_error = got < 0 && got != AVERROR_EOF ? text_of(got) : "";
            note_texts(got >= 0);
            const bool is_ours = got >= 0 && m_packet->stream_index == m_stream;
            const int sent = got < 0   ? avcodec_send_packet(m_decoder.get(), nullptr)
                             : is_ours ? avcodec_send_packet(m_decoder.get(), m_packet.get())
                                       : AVERROR_INVALIDDATA;
            m_flac_place = is_ours ? flac_place_of(*m_packet) : std::nullopt;
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
    std::optional<int64_t> m_flac_place;  // of the packet that was decoded last
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
