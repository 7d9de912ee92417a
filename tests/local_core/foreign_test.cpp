// What libsndfile can't read comes out of the module as it went in, from any frame on, from the
// disk and over HTTP.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}
#include <civetweb.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>
#include <span>

#include "common/released_by.h"
#include "local/content.h"
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
                const bool is_planar = frame->format != AV_SAMPLE_FMT_S16;
                put(*frame, is_planar ? i % kChannels : 0, is_planar ? i / kChannels : i,
                    samples[first * kChannels + i]);
            }
            write(frame);
            av_frame_free(&frame);
        }
    }

  private:
    static void put(AVFrame& frame, int channel, int index, int32_t sample) {
        uint8_t* const plane = frame.extended_data[channel];
        if (frame.format == AV_SAMPLE_FMT_S16P || frame.format == AV_SAMPLE_FMT_S16) {
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

// The files of a folder over HTTP, and /radio: one of them from the middle of a frame on, once.
class WebServer {
  public:
    WebServer(const TempDir& folder, const std::string& on_air = "") : m_on_air(on_air) {
        const char* options[] = {"listening_ports", "127.0.0.1:0", "document_root",
                                 folder.path().c_str(), nullptr};
        m_server.reset(mg_start(nullptr, nullptr, options));
        mg_set_request_handler(m_server.get(), "/radio", send_radio, this);
        mg_server_port port{};
        mg_get_server_ports(m_server.get(), 1, &port);
        m_url = "http://127.0.0.1:" + std::to_string(port.port) + "/";
    }
    std::string operator/(const std::string& name) const { return m_url + name; }

  private:
    static int send_radio(mg_connection* peer, void* self) {
        const std::string content = static_cast<WebServer*>(self)->m_on_air.substr(777);
        mg_printf(peer, "HTTP/1.1 200 OK\r\nicy-name: Station\r\nContent-Type: audio/aac\r\n\r\n");
        mg_write(peer, content.data(), content.size());
        return 200;
    }

    std::string m_on_air;
    std::string m_url;
    std::unique_ptr<mg_context, nuvio::ReleasedBy<mg_stop>> m_server;
};

std::unique_ptr<TrackDecoder> decoder_of(const std::string& place, OpenFailure* failure) {
    static Interruption none;
    const Logger logger;
    const std::vector<Track> tracks = find_tracks(place, "", none, logger);
    return tracks.empty() ? nullptr
                          : TrackDecoder::open(tracks.front(), NUV_AUDIO_QUALITY_HI_RES_LEVEL_3,
                                               none, failure);
}

std::vector<std::byte> all_of(TrackDecoder& decoder, size_t at_most = SIZE_MAX) {
    std::vector<std::byte> all;
    std::vector<std::byte> block(40000);
    while (const size_t got =
               decoder.read(block.data(), std::min(block.size(), at_most - all.size()))) {
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

// How much of the power of what was wanted is missing or too much.
template <typename Sample>
double error_of(std::span<const Sample> heard, std::span<const double> wanted) {
    double error = 0;
    double power = 0;
    for (size_t i = 0; i < wanted.size(); ++i) {
        error += std::pow(heard[i] - wanted[i], 2);
        power += std::pow(wanted[i], 2);
    }
    return error / power;
}

std::vector<double> signal_of_16_bits() {
    std::vector<double> samples;
    for (const int32_t sample : signal(16)) {
        samples.push_back(sample / 65536.0);
    }
    return samples;
}

TEST(ForeignSound, LosslessFilesAreBitExactFromAnyFrameOn) {
    const TempDir folder;
    const WebServer server(folder);
    struct Case {
        const char* file;
        const char* codec;
        AVSampleFormat format;
        int bits;
    };
    for (const Case& wanted : {Case{"16.m4a", "alac", AV_SAMPLE_FMT_S16P, 16},
                               Case{"24.m4a", "alac", AV_SAMPLE_FMT_S32P, 24},
                               Case{"16.wv", "wavpack", AV_SAMPLE_FMT_S16P, 16},
                               Case{"24.wv", "wavpack", AV_SAMPLE_FMT_S32P, 24},
                               Case{"16.oga", "flac", AV_SAMPLE_FMT_S16, 16}}) {
        const std::vector<int32_t> source = signal(wanted.bits);
        Encoder(folder / wanted.file, wanted.codec, wanted.format, wanted.bits).encode(source);
        for (const std::string& place : {folder / wanted.file, server / wanted.file}) {
            SCOPED_TRACE(place);
            OpenFailure failure;
            const auto decoder = decoder_of(place, &failure);
            ASSERT_NE(decoder, nullptr) << failure.reason;
            EXPECT_EQ(decoder->info().frame_count, kFrames);
            EXPECT_EQ(decoder->info().title, "Song");
            for (const size_t from :
                 {size_t{0}, kFrames - 10, size_t{60000}, size_t{1}, kFrames / 2}) {
                ASSERT_EQ(decoder->seek(from), from);
                const std::vector<std::byte> heard = all_of(*decoder);
                const std::vector<int32_t> rest(
                    source.begin() + static_cast<std::ptrdiff_t>(2 * from), source.end());
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
}

TEST(ForeignSound, AacIsTheSignalWithoutItsRunIn) {
    const TempDir folder;
    const WebServer server(folder);
    const std::vector<double> source = signal_of_16_bits();
    Encoder(folder / "a.m4a", "aac", AV_SAMPLE_FMT_FLTP, 0).encode(signal(16));
    for (const std::string& place : {folder / "a.m4a", server / "a.m4a"}) {
        SCOPED_TRACE(place);
        OpenFailure failure;
        const auto decoder = decoder_of(place, &failure);
        ASSERT_NE(decoder, nullptr) << failure.reason;
        for (const size_t from : {size_t{0}, size_t{70001}}) {
            ASSERT_EQ(decoder->seek(from), from);
            const auto heard = samples_of<int16_t>(all_of(*decoder));
            EXPECT_EQ(heard.size(), 2 * (decoder->info().frame_count - from));
            EXPECT_LE(heard.size(), 2 * (kFrames - from + 1024));
            EXPECT_GE(heard.size(), 2 * (kFrames - from));
            constexpr size_t kRunIn = 8192;  // the encoder too has one
            const auto wanted = std::span(source).subspan(2 * from + kRunIn, kRate);
            EXPECT_LT(error_of<int16_t>(std::span(heard).subspan(kRunIn), wanted), 0.001)
                << "a shift by one frame would be more";
        }
    }
}

TEST(ForeignSound, AnAacRadioIsJoinedInTheMiddleOfAFrame) {
    const TempDir folder;
    Encoder(folder / "a.aac", "aac", AV_SAMPLE_FMT_FLTP, 0).encode(signal(16));
    const WebServer server(folder, folder.read("a.aac"));
    OpenFailure failure;
    const auto decoder = decoder_of(server / "radio", &failure);
    ASSERT_NE(decoder, nullptr) << failure.reason;
    EXPECT_TRUE(decoder->info().is_endless && !decoder->info().seekable);
    EXPECT_EQ(decoder->info().station, "Station");
    const auto heard = samples_of<int16_t>(all_of(*decoder, size_t{4} * 2 * kRate));
    ASSERT_EQ(heard.size(), size_t{2} * 2 * kRate);
    const std::vector<double> source = signal_of_16_bits();
    constexpr size_t kFrameSamples = size_t{2} * 1024;
    double error = 1;
    for (size_t frame = 4; frame < 12; ++frame) {  // where it was joined
        const auto wanted = std::span(source).subspan(frame * kFrameSamples, kRate);
        error =
            std::min(error, error_of<int16_t>(std::span(heard).subspan(4 * kFrameSamples), wanted));
    }
    EXPECT_LT(error, 0.001);
}

double tone(double seconds) {
    return 0.4 * std::sin(2 * std::numbers::pi * 441 * seconds);
}

// A second-order modulator's bits of the tone on both channels, and something behind the sound, as
// files have it.
constexpr size_t kDsdBlock = 4096;
constexpr size_t kDsdFrames = 80 * kDsdBlock;

void write_dsd(const std::string& dsf, const std::string& dff) {
    constexpr uint32_t kDsdRate = 64 * kRate;
    const auto number = [](uint64_t value, size_t size, std::endian order) {
        std::string bytes(reinterpret_cast<const char*>(&value), size);
        if (order == std::endian::big) {
            std::ranges::reverse(bytes);
        }
        return bytes;
    };
    const auto chunk = [&](const std::string& id, const std::string& body, std::endian order) {
        return id + number(body.size() + (order == std::endian::little ? 12 : 0), 8, order) + body;
    };
    double first = 0;
    double second = 0;
    std::string blocks;
    std::string pairs;
    for (size_t at = 0; at < kDsdFrames; at += kDsdBlock) {
        std::string block;
        for (size_t i = 0; i < kDsdBlock; ++i) {
            unsigned lowest_first = 0;
            unsigned highest_first = 0;
            for (unsigned bit = 0; bit < 8; ++bit) {
                const double out = second >= 0 ? 1 : -1;
                first += tone(static_cast<double>(8 * (at + i) + bit) / kDsdRate) - out;
                second += first - 2 * out;
                lowest_first |= (out > 0 ? 1U : 0U) << bit;
                highest_first |= (out > 0 ? 0x80U : 0U) >> bit;
            }
            block += static_cast<char>(lowest_first);
            pairs.append(2, static_cast<char>(highest_first));
        }
        blocks += block + block;
    }
    std::string format;
    for (const uint32_t field : {1U, 0U, 2U, 2U, kDsdRate, 1U}) {
        format += number(field, 4, std::endian::little);
    }
    format += number(8 * kDsdFrames, 8, std::endian::little) +
              number(kDsdBlock, 4, std::endian::little) + std::string(4, '\0');
    std::string file = chunk("DSD ", std::string(16, '\0'), std::endian::little) +
                       chunk("fmt ", format, std::endian::little) +
                       chunk("data", blocks, std::endian::little) + std::string(30000, 'x');
    std::ofstream(dsf, std::ios::binary) << file;
    constexpr auto kBig = std::endian::big;
    const std::string about = "SND " + chunk("FS  ", number(kDsdRate, 4, kBig), kBig) +
                              chunk("CHNL", number(2, 2, kBig) + "SLFTSRGT", kBig) +
                              chunk("CMPR", "DSD \x0fnot compressed.", kBig);
    file = "DSD " + chunk("FVER", number(0x01050000, 4, kBig), kBig) + chunk("PROP", about, kBig) +
           chunk("DSD ", pairs, kBig) + chunk("ID3 ", std::string(30000, 'x'), kBig);
    std::ofstream(dff, std::ios::binary) << chunk("FRM8", file, kBig);
}

TEST(ForeignSound, DsdIsTheSignalAtAnEighthOfItsRate) {
    const TempDir folder;
    const WebServer server(folder);
    constexpr int kPcmRate = 8 * kRate;
    write_dsd(folder / "a.dsf", folder / "a.dff");
    for (const std::string& place :
         {folder / "a.dsf", server / "a.dsf", folder / "a.dff", server / "a.dff"}) {
        SCOPED_TRACE(place);
        OpenFailure failure;
        const auto decoder = decoder_of(place, &failure);
        ASSERT_NE(decoder, nullptr) << failure.reason;
        EXPECT_EQ(decoder->info().format.sample_rate, unsigned{kPcmRate});
        EXPECT_EQ(decoder->info().frame_count, kDsdFrames);
        for (const size_t from : {size_t{0}, size_t{100001}}) {
            ASSERT_EQ(decoder->seek(from), from);
            const auto heard = samples_of<int32_t>(all_of(*decoder));
            EXPECT_EQ(heard.size(), kChannels * (kDsdFrames - from));
            constexpr size_t kRunIn = 100;
            constexpr double kDelay = 5.5;  // of the filter, in frames
            std::vector<double> wanted;
            for (size_t i = 0; i < kPcmRate / 2; ++i) {
                const double frame = static_cast<double>(from + kRunIn + i) - kDelay;
                wanted.insert(wanted.end(), kChannels, 0x800000 * tone(frame / kPcmRate));
            }
            EXPECT_LT(error_of<int32_t>(std::span(heard).subspan(kChannels * kRunIn), wanted),
                      0.002);
        }
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
