// What libsndfile can't read comes out of the module as it went in, from any frame on.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>

#include "local/track_decoder.h"
#include "temp_dir.h"

namespace {

using namespace local_core;

constexpr int kRate = 44100;
constexpr int kChannels = 2;
constexpr size_t kFrames = 3 * kRate + 123;

// Stereo in 32 bits, the upper 16 or 24 of which are used; never twice the same.
std::vector<int32_t> signal(int bits) {
    std::vector<int32_t> samples(kFrames * kChannels);
    for (size_t i = 0; i < samples.size(); ++i) {
        const size_t frame = i / kChannels;
        const double t = static_cast<double>(frame) / kRate;
        const double lowest = i % 2 == 0 ? 200 : 250;
        const double tone = std::sin(2 * std::numbers::pi * (lowest + 300 * t) * t);
        samples[i] = static_cast<int32_t>(tone * 0x60000000) & -(int32_t{1} << (32 - bits));
    }
    return samples;
}

// Writes what ends with its life.
class Encoder {
  public:
    Encoder(const std::string& path, const char* codec_name, AVSampleFormat format, int bits) {
        const AVCodec* const codec = avcodec_find_encoder_by_name(codec_name);
        m_context = avcodec_alloc_context3(codec);
        m_context->sample_fmt = format;
        m_context->sample_rate = kRate;
        m_context->bits_per_raw_sample = bits;
        m_context->bit_rate = 256000;
        av_channel_layout_default(&m_context->ch_layout, kChannels);
        avformat_alloc_output_context2(&m_container, nullptr, nullptr, path.c_str());
        m_context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        EXPECT_EQ(avcodec_open2(m_context, codec, nullptr), 0) << codec_name;
        AVStream* const stream = avformat_new_stream(m_container, nullptr);
        stream->time_base = {1, kRate};
        avcodec_parameters_from_context(stream->codecpar, m_context);
        av_dict_set(&m_container->metadata, "title", "Song", 0);
        EXPECT_GE(avio_open(&m_container->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
        EXPECT_GE(avformat_write_header(m_container, nullptr), 0);
    }
    ~Encoder() {
        write(nullptr);
        av_write_trailer(m_container);
        avio_closep(&m_container->pb);
        avformat_free_context(m_container);
        avcodec_free_context(&m_context);
        av_packet_free(&m_packet);
    }
    Encoder& operator=(Encoder&&) = delete;

    void encode(const std::vector<int32_t>& samples) {
        const size_t at_once = m_context->frame_size > 0 ? m_context->frame_size : 4096;
        for (size_t first = 0; first < kFrames; first += at_once) {
            AVFrame* frame = av_frame_alloc();
            frame->nb_samples = static_cast<int>(std::min(at_once, kFrames - first));
            frame->format = m_context->sample_fmt;
            frame->pts = static_cast<int64_t>(first);
            av_channel_layout_copy(&frame->ch_layout, &m_context->ch_layout);
            av_frame_get_buffer(frame, 0);
            for (int i = 0; i < frame->nb_samples * kChannels; ++i) {
                put(*frame, i % kChannels, i / kChannels, samples[first * kChannels + i]);
            }
            write(frame);
            av_frame_free(&frame);
        }
    }

  private:
    static void put(AVFrame& frame, int channel, int index, int32_t sample) {
        uint8_t* const plane = frame.extended_data[channel];
        if (frame.format == AV_SAMPLE_FMT_S16P) {
            reinterpret_cast<int16_t*>(plane)[index] = static_cast<int16_t>(sample >> 16);
        } else if (frame.format == AV_SAMPLE_FMT_S32P) {
            reinterpret_cast<int32_t*>(plane)[index] = sample;
        } else {
            const float value = static_cast<float>(sample) / 0x1p31F;
            std::memcpy(plane + index * sizeof value, &value, sizeof value);
        }
    }

    void write(AVFrame* frame) {
        EXPECT_EQ(avcodec_send_frame(m_context, frame), 0);
        while (avcodec_receive_packet(m_context, m_packet) == 0) {
            av_packet_rescale_ts(m_packet, {1, kRate}, m_container->streams[0]->time_base);
            EXPECT_EQ(av_interleaved_write_frame(m_container, m_packet), 0);
        }
    }

    AVCodecContext* m_context = nullptr;
    AVFormatContext* m_container = nullptr;
    AVPacket* m_packet = av_packet_alloc();
};

std::unique_ptr<TrackDecoder> decoder_of(const std::string& path, OpenFailure* failure) {
    static Interruption none;
    return TrackDecoder::open({path}, NUV_AUDIO_QUALITY_HI_RES_LEVEL_3, none, failure);
}

std::vector<std::byte> all_of(TrackDecoder& decoder) {
    std::vector<std::byte> all;
    std::vector<std::byte> block(40000);
    while (const size_t got = decoder.read(block.data(), block.size())) {
        all.insert(all.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(got));
    }
    return all;
}

template <typename Sample>
std::vector<Sample> samples_of(const std::vector<std::byte>& bytes) {
    std::vector<Sample> samples(bytes.size() / sizeof(Sample));
    std::memcpy(samples.data(), bytes.data(), bytes.size());
    return samples;
}

// Before the first file is looked at.
const int kEverywhere = setenv("NUVIO_MUSIC_FOLDERS", "/", 1);

TEST(ForeignSound, LosslessFilesAreBitExactFromAnyFrameOn) {
    const TempDir folder;
    struct Case {
        const char* file;
        const char* codec;
        AVSampleFormat format;
        int bits;
    };
    for (const Case& wanted : {Case{"16.m4a", "alac", AV_SAMPLE_FMT_S16P, 16},
                               Case{"24.m4a", "alac", AV_SAMPLE_FMT_S32P, 24},
                               Case{"16.wv", "wavpack", AV_SAMPLE_FMT_S16P, 16},
                               Case{"24.wv", "wavpack", AV_SAMPLE_FMT_S32P, 24}}) {
        SCOPED_TRACE(wanted.file);
        const std::vector<int32_t> source = signal(wanted.bits);
        Encoder(folder / wanted.file, wanted.codec, wanted.format, wanted.bits).encode(source);
        OpenFailure failure;
        const auto decoder = decoder_of(folder / wanted.file, &failure);
        ASSERT_NE(decoder, nullptr) << failure.reason;
        EXPECT_EQ(decoder->info().frame_count, kFrames);
        EXPECT_EQ(decoder->info().title, "Song");
        for (const size_t from : {size_t{0}, kFrames - 10, size_t{60000}, size_t{1}, kFrames / 2}) {
            ASSERT_EQ(decoder->seek(from), from);
            const std::vector<std::byte> heard = all_of(*decoder);
            const std::vector<int32_t> rest(source.begin() + static_cast<std::ptrdiff_t>(2 * from),
                                            source.end());
            std::vector<int32_t> got;
            if (wanted.bits == 16) {
                for (const int16_t sample : samples_of<int16_t>(heard)) {
                    got.push_back(sample * (1 << 16));
                }
            } else {
                for (const int32_t sample : samples_of<int32_t>(heard)) {
                    got.push_back(sample * (1 << 8));
                }
            }
            EXPECT_TRUE(got == rest) << "from " << from << ": " << got.size();
        }
    }
}

TEST(ForeignSound, AacIsTheSignalWithoutItsRunIn) {
    const TempDir folder;
    const std::vector<int32_t> source = signal(16);
    Encoder(folder / "a.m4a", "aac", AV_SAMPLE_FMT_FLTP, 0).encode(source);
    OpenFailure failure;
    const auto decoder = decoder_of(folder / "a.m4a", &failure);
    ASSERT_NE(decoder, nullptr) << failure.reason;
    for (const size_t from : {size_t{0}, size_t{70001}}) {
        ASSERT_EQ(decoder->seek(from), from);
        const auto heard = samples_of<int16_t>(all_of(*decoder));
        EXPECT_EQ(heard.size(), 2 * (decoder->info().frame_count - from));
        EXPECT_LE(heard.size(), 2 * (kFrames - from + 1024));
        EXPECT_GE(heard.size(), 2 * (kFrames - from));
        double error = 0;
        double power = 0;
        for (size_t i = 8192; i < kRate; ++i) {  // the encoder too has a run-in
            const double wanted = source[2 * from + i] / 65536.0;
            error += std::pow(heard[i] - wanted, 2);
            power += std::pow(wanted, 2);
        }
        EXPECT_LT(error, power / 1000) << "a shift by one frame would be more";
    }
}

TEST(ForeignSound, NothingThatNamesOtherFilesIsOpened) {
    const TempDir folder;
    OpenFailure failure;
    for (const char* text : {"#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXTINF:5,\nfile:///etc/passwd\n",
                             "ffconcat version 1.0\nfile /etc/passwd\n"}) {
        EXPECT_EQ(decoder_of(folder.write("list.m4a", text), &failure), nullptr);
    }
}

}  // namespace
