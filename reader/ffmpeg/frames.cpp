#include "reader/ffmpeg/frames.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "reader/ffmpeg/container.h"
#include "reader/ffmpeg/id3.h"

namespace nuvio::reader::libav {

int Frames::look_at_media(int64_t* duration, int64_t* edit_begin) {
    AVDictionary* options = nullptr;
    av_dict_set(&options, "advanced_editlist", "0", 0);
    const int opened = open_container(m_input, &options, &m_io, &m_container);
    av_dict_free(&options);
    const int number =
        opened < 0 ? opened
                   : av_find_best_stream(m_container.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (number >= 0) {
        AVStream* const stream = m_container->streams[number];
        const AVIndexEntry* const first = avformat_index_get_entry(stream, 0);
        *duration = stream->duration;
        *edit_begin = first != nullptr ? -first->timestamp : 0;
    }
    m_container.reset();
    return number < 0 ? number : m_input.seek(0) ? 0 : AVERROR(EIO);
}

int Frames::open() {
    m_container.reset();
    if (!m_packet) {
        m_packet.reset(av_packet_alloc());
    }
    if (!m_packet) {
        return AVERROR(ENOMEM);
    }
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
bool Frames::decodes_on() const {
    if (!m_decoder) {
        return false;
    }
    const AVCodecParameters& next = *m_container->streams[m_stream]->codecpar;
    return next.codec_id == m_decoder->codec_id &&
           next.extradata_size == m_decoder->extradata_size &&
           std::equal(next.extradata, next.extradata + next.extradata_size, m_decoder->extradata);
}

int Frames::open_decoder(const AVCodec* codec) {
    const AVStream& stream = *m_container->streams[m_stream];
    m_decoder.reset(avcodec_alloc_context3(codec));
    if (!m_decoder) {
        return AVERROR(ENOMEM);
    }
    const int taken = avcodec_parameters_to_context(m_decoder.get(), stream.codecpar);
    m_decoder->thread_count = 1;
    m_decoder->pkt_timebase = stream.time_base;
    m_decoder->codec_whitelist = av_strdup(kDecoders);
    const int opened = taken < 0 ? taken : avcodec_open2(m_decoder.get(), codec, nullptr);
    if (opened < 0) {
        m_decoder.reset();
    }
    return opened;
}

bool Frames::receive(AVFrame& frame) {
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

// Of an Ogg packet libavformat guesses the place; a frame of FLAC has it in its head.
std::optional<int64_t> Frames::flac_place_of(const AVPacket& packet) const {
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

bool Frames::is_timed_id3(unsigned stream) const {
    return m_container->streams[stream]->codecpar->codec_id == AV_CODEC_ID_TIMED_ID3;
}

// A tag before frames of AAC is the container's, one among packets of MPEG-TS a packet.
void Frames::note_texts(bool has_packet) {
    if ((m_container->event_flags & AVFMT_EVENT_FLAG_METADATA_UPDATED) != 0) {
        m_container->event_flags &= ~AVFMT_EVENT_FLAG_METADATA_UPDATED;
        const AVStream& stream = *m_container->streams[m_stream];
        const std::string title = tag(*m_container, stream, "title");
        if (!title.empty()) {
            m_new_texts = {title, tag(*m_container, stream, "artist")};
        }
    }
    if (has_packet && is_timed_id3(static_cast<unsigned>(m_packet->stream_index))) {
        auto texts = texts_in_id3(
            {reinterpret_cast<const char*>(m_packet->data), static_cast<size_t>(m_packet->size)});
        m_new_texts = texts ? std::move(texts) : std::move(m_new_texts);
    }
}

// Where the container's bytes end others may begin.
int Frames::read_packet() {
    int got = m_container ? av_read_frame(m_container.get(), m_packet.get()) : AVERROR_EOF;
    while (got == AVERROR_EOF && m_input.next_run()) {
        got = open();
        got = got < 0 ? got : av_read_frame(m_container.get(), m_packet.get());
    }
    return got;
}

// A packet that can't be decoded costs its own sound alone.
bool Frames::feed() {
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
        m_flac_place = is_ours ? flac_place_of(*m_packet) : std::nullopt;
        m_next_packet += is_ours ? 1 : 0;
        av_packet_unref(m_packet.get());
        if (sent == 0 || got < 0) {
            return sent == 0;
        }
    }
}

bool Frames::begin_anew() {
    return is_open() && open_decoder(m_decoder->codec) >= 0;
}

bool Frames::flush() {
    if (is_open()) {
        avcodec_flush_buffers(m_decoder.get());
    }
    return is_open();
}

std::optional<ForeignSound::Texts> Frames::take_new_texts() {
    return std::exchange(m_new_texts, std::nullopt);
}

}  // namespace nuvio::reader::libav
