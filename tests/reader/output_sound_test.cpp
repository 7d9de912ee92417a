// What an output does not take, converted to what it does.
#include "reader/inside/sound/output_sound.h"

#include <fcntl.h>
#include <flacfile.h>
#include <gtest/gtest.h>
#include <mpegfile.h>
#include <opusfile.h>
#include <sndfile.h>
#include <tpropertymap.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <numbers>

#include "reader/inside/sound/loudness.h"
#include "reader/inside/sound/sound_section.h"
#include "temp_dir.h"

namespace {

using nuvio::Section;
using namespace nuvio::reader;

// At a time in seconds, of a channel.
using Wave = std::function<double(double, int)>;

double sine(double hz, double time) {
    return std::sin(2 * std::numbers::pi * hz * time);
}

class Output : public testing::Test {
  protected:
    static OutputFormats takes(std::initializer_list<uint32_t> rates, bool is_deep) {
        OutputFormats formats{{}, 0, is_deep, Loudness::own};
        for (const uint32_t rate : rates) {
            formats.rates_hz[formats.rate_count++] = rate;
        }
        return formats;
    }
    std::unique_ptr<OutputSound> open(int rate, int channels, int subformat, size_t frames,
                                      const OutputFormats& output, const Wave& wave,
                                      float gain_db = 0) {
        const std::string path = m_folder / "sound.wav";
        const bool is_ogg = subformat == SF_FORMAT_VORBIS;
        SF_INFO info{0, rate, channels, (is_ogg ? SF_FORMAT_OGG : SF_FORMAT_WAV) | subformat, 0, 0};
        SNDFILE* const file = sf_open(path.c_str(), SFM_WRITE, &info);
        std::vector<double> samples;
        for (size_t frame = 0; frame < frames; ++frame) {
            for (int channel = 0; channel < channels; ++channel) {
                samples.push_back(wave(static_cast<double>(frame) / rate, channel));
            }
        }
        sf_writef_double(file, samples.data(), static_cast<sf_count_t>(frames));
        sf_close(file);
        m_input.emplace(nuvio::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)));
        std::string error;
        return OutputSound::open(Decoder::open(*m_input, &error), output, gain_db, &error);
    }
    // All that follows, in parts of many sizes; full scale is 1.
    template <typename Sound>
    static std::vector<double> rest_of(Sound& sound) {
        std::vector<double> heard;
        std::vector<int32_t> block(5000);
        const bool is_deep = sound.info().is_deep;
        for (size_t capacity = 4 * block.size(); capacity > 0;) {
            const size_t bytes = sound.read(block.data(), capacity);
            for (size_t at = 0; at < bytes;) {
                int32_t deep = 0;
                int16_t narrow = 0;
                const char* const from = reinterpret_cast<char*>(block.data()) + at;
                std::memcpy(is_deep ? static_cast<void*>(&deep) : &narrow, from, is_deep ? 4 : 2);
                heard.push_back(is_deep ? deep / 8388608.0 : narrow / 32768.0);
                at += is_deep ? 4 : 2;
            }
            capacity = bytes == 0 ? 0 : std::max<size_t>(24, capacity * 7 / 11);
        }
        return heard;
    }
    // Of the left channel, in dB below what it should be; its first and last 10 ms left out.
    static double error_db(const std::vector<double>& heard, uint32_t rate, const Wave& wave) {
        double signal = 0, error = 0;
        for (size_t i = rate / 100; i < heard.size() / 2 - rate / 100; ++i) {
            const double wanted = wave(static_cast<double>(i) / rate, 0);
            signal += wanted * wanted;
            error += (heard[2 * i] - wanted) * (heard[2 * i] - wanted);
        }
        return 10 * std::log10(signal / error);
    }

    TempDir m_folder;
    std::optional<FileInput> m_input;
};

TEST_F(Output, TheRateIsOfItsFamilyWhereThatIsThere) {
    const OutputFormats usual = takes({44100, 48000, 96000}, true);
    const std::pair<uint32_t, uint32_t> rows[] = {
        {44100, 44100}, {88200, 44100},  {176400, 44100}, {192000, 96000}, {96000, 96000},
        {8000, 48000},  {11025, 44100},  {32000, 48000},  {44056, 44100},  {2822400, 44100},
        {50000, 96000}, {384000, 96000}, {1, 44100}};
    for (const auto& [rate, wanted] : rows) {
        EXPECT_EQ(output_rate(rate, usual), wanted) << rate;
    }
    EXPECT_EQ(output_rate(44100, takes({48000}, true)), 48000U);
    EXPECT_EQ(output_rate(96000, takes({48000, 192000}, true)), 192000U);
    EXPECT_EQ(output_rate(96000, {}), 0U);
}

// What is above and what is beside the output: clean, of the right length, and from any place on
// the same as from the beginning.
TEST_F(Output, AnotherRateIsCleanAndExactInTime) {
    const Wave wave = [](double time, int channel) {
        return (channel == 0 ? 0.5 : -0.5) * sine(1000, time) + 0.2 * sine(331, time);
    };
    struct Row {
        int from;
        uint32_t to;
    };
    for (const Row row : {Row{96000, 48000}, Row{192000, 48000}, Row{176400, 44100},
                          Row{44100, 48000}, Row{48000, 44100}, Row{22050, 44100}}) {
        SCOPED_TRACE(row.from);
        const size_t frames = 20'001;
        auto sound = open(row.from, 2, SF_FORMAT_FLOAT, frames, takes({row.to}, true), wave);
        ASSERT_NE(sound, nullptr);
        const auto length =
            static_cast<size_t>(std::floor(static_cast<double>(frames) * row.to / row.from + 0.5));
        EXPECT_EQ(sound->info().frames, length);
        EXPECT_TRUE(sound->info().rate_hz == row.to && sound->info().is_deep);
        EXPECT_EQ(sound->info_inside().rate_hz, static_cast<uint32_t>(row.from));
        const std::vector<double> whole = rest_of(*sound);
        ASSERT_EQ(whole.size(), 2 * length);
        EXPECT_GT(error_db(whole, row.to, wave), 115);
        for (const size_t place : {length / 2 + 77, size_t{13}, length - 1, size_t{0}, length}) {
            SCOPED_TRACE(place);
            EXPECT_EQ(sound->seek(place), place);
            const std::vector<double> rest = rest_of(*sound);
            ASSERT_EQ(rest.size(), 2 * (length - place));
            for (size_t i = 0; i < rest.size(); ++i) {
                ASSERT_NEAR(rest[i], whole[2 * place + i], 1e-6) << i;
            }
        }
    }
}

// Cut anywhere, of an exact, a lossy and a converted sound.
TEST_F(Output, PartsThatFollowOnEachOtherAreTheWhole) {
    const Wave wave = [](double time, int) { return 0.5 * sine(700 + 100 * time, time); };
    std::string error;
    for (const auto& [format, output] : {std::pair{SF_FORMAT_PCM_16, OutputFormats{}},
                                         {SF_FORMAT_VORBIS, OutputFormats{}},
                                         {SF_FORMAT_PCM_24, takes({48000}, true)}}) {
        const auto part = [&, kind = format, &to = output](const Section& section) {
            return SoundSection::open(open(44100, 2, kind, 88'200, to, wave), section, &error);
        };
        const std::vector<double> whole = rest_of(*part({}));
        std::vector<double> joined;
        uint64_t begin = 0;
        for (const uint64_t end : {uint64_t{22}, uint64_t{333'333}, uint64_t{340'000},
                                   uint64_t{1'999'970}, Section::kToTheEnd}) {
            const auto sound = part({begin, end});
            ASSERT_NE(sound, nullptr) << error;
            const std::vector<double> heard = rest_of(*sound);
            EXPECT_EQ(heard.size(), 2 * sound->info().frames);
            EXPECT_EQ(sound->seek(sound->info().frames + 1), std::nullopt);
            EXPECT_EQ(sound->seek(sound->info().frames / 3), sound->info().frames / 3);
            const std::vector<double> rest = rest_of(*sound);
            ASSERT_EQ(rest.size(), 2 * (sound->info().frames - sound->info().frames / 3));
            EXPECT_NEAR(rest.front(), heard[heard.size() - rest.size()], 1e-6);
            joined.insert(joined.end(), heard.begin(), heard.end());
            begin = end;
        }
        ASSERT_EQ(joined.size(), whole.size());
        for (size_t i = 0; i < whole.size(); ++i) {
            ASSERT_NEAR(joined[i], whole[i], 1e-6) << i;
        }
        EXPECT_EQ(part({2'000'000, Section::kToTheEnd}), nullptr);
        EXPECT_EQ(error, "it ends before this part of it begins");
        EXPECT_EQ(rest_of(*part({1'000'000, 9'000'000})).size(), whole.size() / 2) << "cut off";
    }
}

// A sound far below the last bit is still there: what is rounded off is noise, and no distortion.
TEST_F(Output, FewerBitsAreRoundedWithNoise) {
    const Wave quiet = [](double time, int) { return 0.3 / 32768 * sine(1000, time); };
    auto sound = open(48000, 2, SF_FORMAT_PCM_24, 96'000, takes({44100, 48000}, false), quiet);
    EXPECT_FALSE(sound->info().is_deep);
    const std::vector<double> heard = rest_of(*sound);
    ASSERT_EQ(heard.size(), 2 * 96'000U);
    double found = 0, power = 0, mean = 0;
    for (size_t i = 0; i < heard.size() / 2; ++i) {
        found += heard[2 * i] * sine(1000, static_cast<double>(i) / 48000) * 2 / 96'000;
        power += heard[2 * i] * heard[2 * i] / 96'000 * 32768 * 32768;
        mean += heard[2 * i] * heard[2 * i + 1] / 96'000 * 32768 * 32768;
    }
    EXPECT_NEAR(found * 32768, 0.3, 0.02);
    EXPECT_NEAR(power, 0.25 + 0.045, 0.03);  // of the noise and its rounding, and of the sound
    EXPECT_NEAR(mean, 0.045, 0.03);          // left and right have not the same noise
}

TEST_F(Output, ChannelsBecomeTwo) {
    const OutputFormats output = takes({48000}, true);
    const auto channels = [](double, int channel) { return 0.01 * (1 << channel); };
    // One goes to both as it is, of the bits that it has.
    auto mono = open(48000, 1, SF_FORMAT_PCM_16, 10, output, [](double, int) { return 0.25; });
    EXPECT_TRUE(mono->info().channels == 2 && !mono->info().is_deep);
    EXPECT_EQ(rest_of(*mono), std::vector<double>(20, 0.25));
    // Left, right, center, low, the two at the back: 0.01, 0.02 ... 0.32.
    auto six = open(48000, 6, SF_FORMAT_PCM_24, 10, output, channels);
    const std::vector<double> heard = rest_of(*six);
    ASSERT_EQ(heard.size(), 20U);
    const double part = std::sqrt(0.5), all = 1 + 2 * part;
    EXPECT_NEAR(heard[10], (0.01 + part * 0.04 + part * 0.16) / all, 1e-6);
    EXPECT_NEAR(heard[11], (0.02 + part * 0.04 + part * 0.32) / all, 1e-6);
    // In Vorbis the second is the center's.
    auto vorbis = open(48000, 6, SF_FORMAT_VORBIS, 48000, output, [](double time, int channel) {
        return channel == 1 ? 0.5 * sine(440, time) : 0;
    });
    const std::vector<double> center = rest_of(*vorbis);
    for (size_t i = 0; i < center.size(); i += 2) {
        ASSERT_NEAR(center[i], center[i + 1], 1e-6);
    }
    EXPECT_GT(error_db(center, 48000,
                       [&](double time, int) { return 0.5 * part / all * sine(440, time); }),
              20);
    // Never above full scale.
    auto loud = open(48000, 8, SF_FORMAT_PCM_24, 10, output, [](double, int) { return 0.999; });
    for (const double sample : rest_of(*loud)) {
        EXPECT_NEAR(sample, 0.999, 1e-5);
    }
}

TEST_F(Output, WhatItTakesIsLeftAsItIs) {
    const Wave wave = [](double time, int) { return 0.5 * sine(440, time); };
    auto same = open(96000, 2, SF_FORMAT_PCM_24, 1000, takes({96000}, true), wave);
    auto any = open(11025, 6, SF_FORMAT_PCM_16, 1000, {}, wave);
    EXPECT_TRUE(same->info().is_deep && same->info().rate_hz == 96000);
    EXPECT_TRUE(any->info().channels == 6 && any->info().rate_hz == 11025);
    EXPECT_EQ(rest_of(*any).size(), 6000U);
    // Too slow for anybody's converter.
    EXPECT_EQ(open(100, 2, SF_FORMAT_PCM_16, 1000, takes({44100}, true), wave), nullptr);
}

// By what its tags say a sound is so much louder; 0: nothing that can be meant.
TEST_F(Output, TagsSayHowLoud) {
    struct Row {
        int format;
        std::initializer_list<std::pair<const char*, const char*>> tags;
        float track_db, album_db;
    };
    constexpr int kFlac = SF_FORMAT_FLAC | SF_FORMAT_PCM_16, kOpus = SF_FORMAT_OGG | SF_FORMAT_OPUS;
    constexpr int kMp3 = SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III;
    constexpr auto kTrack = "REPLAYGAIN_TRACK_GAIN", kTrackPeak = "REPLAYGAIN_TRACK_PEAK";
    constexpr auto kAlbum = "REPLAYGAIN_ALBUM_GAIN", kAlbumPeak = "REPLAYGAIN_ALBUM_PEAK";
    const Row rows[] = {
        {kFlac, {}, 0, 0},
        {kFlac, {{kTrack, "-7.35 dB"}, {kAlbum, "+2.5 dB"}}, -7.35F, 2.5F},
        {kMp3, {{kTrack, "-7.35 dB"}}, -7.35F, -7.35F},
        {kFlac, {{kAlbum, "-4"}, {kAlbumPeak, "0.5"}}, -4, -4},
        {kFlac, {{kTrack, "9 dB"}, {kTrackPeak, "0.5"}, {kAlbum, "3 dB"}}, 6.0206F, 3},
        {kFlac, {{kTrack, "1 dB"}, {kTrackPeak, "1.25"}}, -1.9382F, -1.9382F},
        {kOpus, {{"R128_TRACK_GAIN", "-1280"}, {"R128_ALBUM_GAIN", "256"}}, 0, 6},
        {kFlac, {{kTrack, "nan dB"}, {kAlbum, "loud"}}, 0, 0},
        {kFlac, {{kTrack, "1e30"}, {kAlbum, "-1e30"}, {kTrackPeak, "-1"}}, 15, -60},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        const std::string path = m_folder.write("tagged", "");
        SF_INFO info{0, 48000, 2, row.format, 0, 0};
        SNDFILE* const sound = sf_open(path.c_str(), SFM_WRITE, &info);
        const std::vector<float> silence(2 * 4800);
        sf_write_float(sound, silence.data(), 2 * 4800);
        sf_close(sound);
        std::unique_ptr<TagLib::File> file;
        if (row.format == kFlac) {
            file = std::make_unique<TagLib::FLAC::File>(path.c_str());
        } else if (row.format == kOpus) {
            file = std::make_unique<TagLib::Ogg::Opus::File>(path.c_str());
        } else {
            file = std::make_unique<TagLib::MPEG::File>(path.c_str());
        }
        TagLib::PropertyMap tags;
        for (const auto& [key, text] : row.tags) {
            tags.insert(key, TagLib::String(text));
        }
        file->setProperties(tags);
        file->save();
        file.reset();
        FileInput input(nuvio::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)));
        EXPECT_NEAR(gain_db(input, Loudness::track), row.track_db, 0.001);
        EXPECT_NEAR(gain_db(input, Loudness::album), row.album_db, 0.001);
        EXPECT_EQ(gain_db(input, Loudness::own), 0);
        EXPECT_EQ(input.position(), 0U);
    }
}

// Of the level that was asked for to a tenth of a dB, and where that would be too loud as loud as
// can be, from a little before to a little after.
TEST_F(Output, LoudnessIsExactAndNeverAboveFullScale) {
    const OutputFormats takes_both[] = {takes({48000}, true), takes({48000}, false)};
    const Wave wave = [](double time, int) {
        return (time < 1 || time > 1.1 ? 0.1 : 0.9) * sine(997, time);
    };
    const auto level_db = [](const std::vector<double>& heard, double from, double to) {
        double power = 1e-30;
        for (auto i = static_cast<size_t>(from * 96000); i < static_cast<size_t>(to * 96000); ++i) {
            power += heard[i] * heard[i] / ((to - from) * 96000);
        }
        return 10 * std::log10(2 * power);
    };
    for (const OutputFormats& output : takes_both) {
        for (const int rate : {48000, 96000}) {
            for (const float gain : {-6.5F, 11.0F}) {
                SCOPED_TRACE(testing::Message() << rate << " " << gain);
                auto sound = open(rate, 2, SF_FORMAT_PCM_16, static_cast<size_t>(rate) * 3, output,
                                  wave, gain);
                ASSERT_NE(sound, nullptr);
                EXPECT_EQ(sound->gain_db(), gain);
                EXPECT_EQ(sound->info().is_deep, output.is_deep);
                const std::vector<double> heard = rest_of(*sound);
                ASSERT_EQ(heard.size(), 2 * 3 * 48000U);
                EXPECT_NEAR(level_db(heard, 0.1, 0.98), -20 + gain, 0.1);
                EXPECT_NEAR(level_db(heard, 2.5, 2.9), -20 + gain, 0.1);
                EXPECT_LT(level_db(heard, 1.11, 1.13), -20 + std::min(gain + 0.1F, 2.0F));
                EXPECT_NEAR(level_db(heard, 1.01, 1.09), std::min(gain - 0.915F, -0.0F), 0.1);
                for (const double sample : heard) {
                    ASSERT_LE(std::fabs(sample), 1 - 1.0 / 32768);
                }
                EXPECT_EQ(sound->seek(48000 * 2 + 7), 48000U * 2 + 7);
                const std::vector<double> rest = rest_of(*sound);
                ASSERT_EQ(rest.size(), 2 * 48000U - 14);
                EXPECT_NEAR(level_db(rest, 0.1, 0.9), -20 + gain, 0.1);
            }
        }
    }
}

}  // namespace
