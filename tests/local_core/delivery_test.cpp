// What the files hold is what the device gets, and in which order it is told.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstring>
#include <filesystem>
#include <random>

#include "local_core/audio_files.h"
#include "local_core/scripted_device.h"

namespace {

using testing::ElementsAre;

// A device that now and then has little room, or none.
std::function<size_t(size_t)> changing_room(unsigned seed, size_t most) {
    return [random = std::minstd_rand(seed), most](size_t offered) mutable {
        const size_t room = random() % most;
        return random() % 4 == 0 ? offered : room;
    };
}

TEST(Delivery, IsBitExactInEveryFormatWithShortCountsInBetween) {
    struct Case {
        AudioSpec audio;
        const char* told;
    };
    constexpr int kWav = SF_FORMAT_WAV;
    constexpr int kFlac = SF_FORMAT_FLAC;
    for (const Case& wanted : {
             Case{{kWav | SF_FORMAT_PCM_16, 44100, 2, 44100}, "44100 Hz 2 ch 16 bit 1000 ms"},
             Case{{kWav | SF_FORMAT_PCM_24, 96000, 2, 96000}, "96000 Hz 2 ch 24 bit 1000 ms"},
             Case{{kWav | SF_FORMAT_PCM_32, 384000, 1, 96000}, "384000 Hz 1 ch 24 bit 250 ms"},
             Case{{kWav | SF_FORMAT_PCM_U8, 8000, 1, 24000}, "8000 Hz 1 ch 16 bit 3000 ms"},
             Case{{kFlac | SF_FORMAT_PCM_16, 48000, 3, 48000}, "48000 Hz 3 ch 16 bit 1000 ms"},
             Case{{kFlac | SF_FORMAT_PCM_24, 192000, 2, 96000}, "192000 Hz 2 ch 24 bit 500 ms"},
             Case{{SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 22050, 8, 22050},
                  "22050 Hz 8 ch 16 bit 1000 ms"},
         }) {
        SCOPED_TRACE(wanted.told);
        const TempDir folder;
        const AudioFile file = write_audio(folder, "track", wanted.audio);
        ScriptedDevice device;
        device.take = changing_room(1, 6000);
        ASSERT_EQ(device.play(file.path), NUV_ERROR_OK);
        device.run_until_line("state STOPPED");
        EXPECT_TRUE(device.has_line(std::string("started 1 ") + wanted.told + " 0"));
        EXPECT_TRUE(device.heard == file.pcm);
    }
}

TEST(Delivery, FloatSamplesAreScaledTo24BitsAndClipped) {
    const TempDir folder;
    const std::string path = folder / "float.wav";
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    const float samples[] = {0.0F, 0.5F, -0.5F, 1.5F, -1.5F, std::nanf("")};
    sf_writef_float(file, samples, std::size(samples));
    sf_close(file);

    ScriptedDevice device;
    ASSERT_EQ(device.play(path), NUV_ERROR_OK);
    device.run_until_line("state STOPPED");
    std::vector<int32_t> delivered(device.heard.size() / 4);
    std::memcpy(delivered.data(), device.heard.data(), device.heard.size());
    EXPECT_THAT(delivered, ElementsAre(0, 1 << 22, -(1 << 22), (1 << 23) - 1, -(1 << 23), 0));
}

TEST(Delivery, LossyFilesComeInFullLengthWithTheirTags) {
    const TempDir folder;
    const AudioFile file = write_audio(
        folder, "lossy.ogg", {SF_FORMAT_OGG | SF_FORMAT_VORBIS, 44100, 2, 30000, "A Title"});
    ScriptedDevice device;
    ASSERT_EQ(device.play(file.path), NUV_ERROR_OK);
    device.run_until_line("state STOPPED");
    EXPECT_EQ(device.heard.size(), 30000U * 4);
    EXPECT_TRUE(device.has_line("metadata 1 A Title|An Artist|An Album|"));
}

TEST(Delivery, NothingIsOfferedBeforeTheRendererOpensTheStream) {
    const TempDir folder;
    const AudioFile file = write_wav(folder, "a.wav", 44100);
    ScriptedDevice device;
    size_t offers = 0;
    device.take = [&](size_t) { return 0 * ++offers; };
    ASSERT_EQ(device.play(file.path), NUV_ERROR_OK);
    device.run_until([&] { return offers == 1; });
    // Paused before the room came back: the delivery stays closed.
    EXPECT_EQ(nuv_connect_pause_playback(device.core()), NUV_ERROR_OK);
    device.run_until_line("pause");
    offers = 0;
    device.run_for_ms(20);
    EXPECT_EQ(offers, 0U);
    device.take = nullptr;
    EXPECT_EQ(nuv_connect_resume_playback(device.core()), NUV_ERROR_OK);
    device.run_until_line("state STOPPED");
    EXPECT_TRUE(device.heard == file.pcm);
}

TEST(Delivery, UnplayableTracksArePassedOverAndCutOnesPlayedAsFarAsTheyGo) {
    const TempDir folder;
    folder.write("1.wav", "not audio");
    const AudioFile good = write_wav(folder, "2.wav", 1000);
    folder.write("3.flac", "");
    const AudioFile cut =
        write_audio(folder, "4.flac", {SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 44100, 2, 44100});
    std::filesystem::resize_file(cut.path, std::filesystem::file_size(cut.path) / 2);
    const AudioFile last = write_wav(folder, "5.wav", 1000);
    folder.write("list.m3u", "1.wav\n2.wav\nmissing.wav\n3.flac\n4.flac\n5.wav\n1.wav\n");
    ScriptedDevice device;
    const auto descriptors = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = descriptors();
    EXPECT_EQ(device.play(folder / "1.wav"), NUV_ERROR_EMPTY_SESSION);
    EXPECT_EQ(descriptors(), before);
    ASSERT_EQ(device.play(folder / "list.m3u"), NUV_ERROR_OK);
    device.run_until_line("state STOPPED");
    ASSERT_EQ(device.pcm_of_stream.size(), 4U);
    EXPECT_TRUE(device.pcm_of_stream[1] == good.pcm);
    EXPECT_LT(device.pcm_of_stream[2].size(), cut.pcm.size());
    EXPECT_TRUE(device.pcm_of_stream[3] == last.pcm);
}

}  // namespace
