// The streams' designations and counts, with the renderer as their listener.
#include "renderer/renderer_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SourceManager : public RendererTest {
  protected:
    // Ids of the active and the next source, 0 for none.
    std::vector<uint64_t> designations() {
        const auto id = [](const audio_source* source) {
            return source == nullptr ? 0 : audio_source_get_id(source);
        };
        audio_source_manager* manager = renderer->source_manager.get();
        return {id(audio_source_manager_get_active_source(manager)),
                id(audio_source_manager_get_next_source(manager))};
    }
    uint64_t bytes_consumed(uint64_t id) {
        return audio_source_get_bytes_consumed(
            audio_source_manager_get_source_by_stream_id(renderer->source_manager.get(), id));
    }
};

TEST_F(SourceManager, TheFirstTwoStreamsAreActiveAndNextAndTheRestMoveUp) {
    for (const uint64_t id : {1, 2, 3, 4, 5}) {
        start(id);
    }
    EXPECT_THAT(designations(), ElementsAre(1, 2));
    dispose(4);
    EXPECT_THAT(designations(), ElementsAre(1, 2));
    dispose(2);
    EXPECT_THAT(designations(), ElementsAre(1, 3));
    dispose(1);
    EXPECT_THAT(designations(), ElementsAre(3, 5));
    dispose(3);
    EXPECT_THAT(designations(), ElementsAre(5, 0));
    dispose(5);
    EXPECT_THAT(designations(), ElementsAre(0, 0));
}

TEST_F(SourceManager, ConsumedBytesStartFromThePositionAndGrowByWhatWasTaken) {
    start(1);
    EXPECT_EQ(bytes_consumed(1), 0U);
    start(2, cd, 90000);
    EXPECT_EQ(bytes_consumed(2), 44100U * 90 * 2 * 2);
    seeked(2, 1);
    EXPECT_EQ(bytes_consumed(2), 44U * 2 * 2) << "whole frames";
    start(3, {192000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT}, 7200000);
    EXPECT_EQ(bytes_consumed(3), uint64_t{192000} * 7200 * 2 * 4) << "beyond 4 GiB";

    initiate();
    fake_sink::state().room = 1024;
    offer(1, 4096);
    EXPECT_EQ(bytes_consumed(1), 1024U);
}

TEST_F(SourceManager, ReportsOnUnknownStreamsAreIgnored) {
    const nuv_stream_metadata metadata{"t", "a", "b", "u"};
    EXPECT_EQ(offer(9, 4), 0U);
    streams.metadata(core, 9, &metadata, streams.context);
    finish(9);
    seeked(9, 5);
    dispose(9);
    EXPECT_THAT(journal::take(), IsEmpty());
}

TEST_F(SourceManager, MetadataIsLogged) {
    const uint64_t id = UINT64_C(0x100000001);
    start(id);
    const nuv_stream_metadata metadata{"A title", "An artist", "An album", "http://art"};
    testing::internal::CaptureStdout();
    streams.metadata(core, id, &metadata, streams.context);
    const std::string log = testing::internal::GetCapturedStdout();
    for (const char* text :
         {"INFO SampleApp: [Stream 4294967297]: Stream metadata became available:\n",
          ":       Title: A title\n", ":       Artist: An artist\n", ":       Album: An album\n",
          ":       Album art URL: http://art\n"}) {
        EXPECT_THAT(log, testing::HasSubstr(text));
    }
}

}  // namespace
