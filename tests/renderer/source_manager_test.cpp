#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "fakes/fake_sdk.h"
#include "media/source/audio_source_manager.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr nuv_audio_format cd{44100, 2, NUV_AUDIO_SAMPLE_FORMAT_16_BIT};

class SourceManager : public testing::Test {
  protected:
    void SetUp() override {
        fake_sdk::reset();
        manager = audio_source_manager_new({this, on_new_source, on_moved_up});
        audio_source_manager_set_core(manager, core);
        delegate = audio_source_manager_get_audio_stream_delegate(manager);
    }
    void TearDown() override { audio_source_manager_free(manager); }

    static void on_new_source(audio_source_manager* manager, audio_source* source, void* test) {
        auto* self = static_cast<SourceManager*>(test);
        EXPECT_EQ(
            audio_source_manager_get_source_by_stream_id(manager, audio_source_get_id(source)),
            source);
        if (!self->listens) {
            return;
        }
        audio_source_set_event_listener(
            source, self,
            [](audio_source*, const void*, size_t size, void* listener) {
                auto* to = static_cast<SourceManager*>(listener);
                to->events.push_back("data " + std::to_string(size));
                return std::min(size, to->room);
            },
            [](audio_source*, audio_source_state to_state, audio_source_state from,
               void* listener) {
                static_cast<SourceManager*>(listener)->events.push_back(
                    "state " + std::to_string(from) + " to " + std::to_string(to_state));
            },
            [](audio_source* seeked, void* listener) {
                static_cast<SourceManager*>(listener)->events.push_back(
                    "seek complete in state " + std::to_string(audio_source_get_state(seeked)));
            },
            [](audio_source* gone, void* listener) {
                static_cast<SourceManager*>(listener)->events.push_back(
                    audio_source_is_active(gone) ? "dispose active"
                    : audio_source_is_next(gone) ? "dispose next"
                                                 : "dispose other");
            });
    }
    static void on_moved_up(audio_source_manager*, bool active_changed, void* test) {
        static_cast<SourceManager*>(test)->events.emplace_back(active_changed ? "active moved"
                                                                              : "next moved");
    }

    audio_source* start(uint64_t id, nuv_audio_format format = cd, uint64_t position_ms = 0) {
        delegate.started(core, id, {format, 1000}, position_ms, delegate.context);
        return audio_source_manager_get_source_by_stream_id(manager, id);
    }
    size_t offer(uint64_t id, size_t size) {
        const std::vector<char> pcm(size + 1);
        return delegate.data(core, id, pcm.data(), size, delegate.context);
    }
    void dispose(uint64_t id) { delegate.dispose(core, id, delegate.context); }
    // Ids of the active and the next source, 0 for none.
    std::vector<uint64_t> designations() {
        const auto id = [](const audio_source* source) {
            return source == nullptr ? 0 : audio_source_get_id(source);
        };
        return {id(audio_source_manager_get_active_source(manager)),
                id(audio_source_manager_get_next_source(manager))};
    }

    nuv_connect* core = fake_sdk::core();
    audio_source_manager* manager = nullptr;
    nuv_audio_stream_delegate delegate{};
    bool listens = true;
    size_t room = SIZE_MAX;
    std::vector<std::string> events;
};

TEST_F(SourceManager, TheFirstTwoStreamsAreActiveAndNextAndTheRestMoveUp) {
    for (const uint64_t id : {1, 2, 3, 4}) {
        start(id);
    }
    EXPECT_THAT(designations(), ElementsAre(1, 2));
    dispose(4);
    EXPECT_THAT(designations(), ElementsAre(1, 2));
    dispose(2);
    EXPECT_THAT(designations(), ElementsAre(1, 3));
    dispose(1);
    EXPECT_THAT(designations(), ElementsAre(3, 0));
    dispose(3);
    EXPECT_THAT(designations(), ElementsAre(0, 0));
    EXPECT_THAT(events, ElementsAre("dispose other", "dispose next", "next moved", "dispose active",
                                    "active moved", "dispose active", "active moved"));
}

TEST_F(SourceManager, DisposingOfTheActiveSourceMovesBothDesignations) {
    for (const uint64_t id : {1, 2, 3}) {
        start(id);
    }
    dispose(1);
    EXPECT_THAT(designations(), ElementsAre(2, 3));
}

TEST_F(SourceManager, AShortCountClosesTheDeliveryUntilItIsResumed) {
    audio_source* source = start(7);
    EXPECT_EQ(offer(7, 4096), 0U) << "closed at the start";
    audio_source_resume(source);
    audio_source_resume(source);
    EXPECT_THAT(fake_sdk::take_calls(), ElementsAre("resume_audio_delivery 7"));

    EXPECT_EQ(offer(7, 4096), 4096U);
    room = 1024;
    EXPECT_EQ(offer(7, 4096), 1024U);
    EXPECT_EQ(offer(7, 3072), 0U);
    EXPECT_EQ(audio_source_get_bytes_consumed(source), 4096U + 1024U);
    EXPECT_THAT(events, ElementsAre("data 4096", "data 4096"));

    fake_sdk::set_result("resume_audio_delivery", NUV_ERROR_INTERNAL);
    audio_source_resume(source);
    audio_source_resume(source);
    EXPECT_THAT(fake_sdk::take_calls(), ElementsAre("resume_audio_delivery 7"))
        << "a failed resume is not repeated";
}

TEST_F(SourceManager, WithoutAListenerNothingIsTakenAndNothingBreaks) {
    listens = false;
    audio_source_resume(start(1));
    EXPECT_EQ(offer(1, 4), 0U);
    delegate.finished(core, 1, delegate.context);
    delegate.seeked(core, 1, 0, delegate.context);
    dispose(1);
    EXPECT_THAT(designations(), ElementsAre(0, 0));
}

TEST_F(SourceManager, ConsumedBytesStartFromThePosition) {
    EXPECT_EQ(audio_source_get_bytes_consumed(start(1, cd, 0)), 0U);
    audio_source* source = start(2, cd, 90000);
    EXPECT_EQ(audio_source_get_bytes_consumed(source), 44100U * 90 * 2 * 2);
    delegate.seeked(core, 2, 1, delegate.context);
    EXPECT_EQ(audio_source_get_bytes_consumed(source), 44U * 2 * 2) << "whole frames";

    const nuv_audio_format hi_res{192000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT};
    EXPECT_EQ(audio_source_get_bytes_consumed(start(3, hi_res, 7200000)),
              uint64_t{192000} * 7200 * 2 * 4)
        << "beyond 4 GiB";
}

TEST_F(SourceManager, ASeekMakesAFinishedStreamStreamAgain) {
    audio_source* source = start(1);
    delegate.finished(core, 1, delegate.context);
    delegate.finished(core, 1, delegate.context);
    delegate.seeked(core, 1, 0, delegate.context);
    EXPECT_EQ(audio_source_get_state(source), AUDIO_SOURCE_STATE_STREAMING);
    EXPECT_THAT(events, ElementsAre("state 0 to 1", "seek complete in state 1", "state 1 to 0"));
}

TEST_F(SourceManager, ReportsOnUnknownStreamsAreIgnored) {
    const nuv_stream_metadata metadata{"t", "a", "b", "u"};
    EXPECT_EQ(offer(9, 4), 0U);
    delegate.metadata(core, 9, &metadata, delegate.context);
    delegate.finished(core, 9, delegate.context);
    delegate.seeked(core, 9, 5, delegate.context);
    dispose(9);
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(SourceManager, MetadataIsLogged) {
    start(UINT64_C(0x100000001));
    const nuv_stream_metadata metadata{"A title", "An artist", "An album", "http://art"};
    testing::internal::CaptureStdout();
    delegate.metadata(core, UINT64_C(0x100000001), &metadata, delegate.context);
    const std::string log = testing::internal::GetCapturedStdout();
    for (const char* text :
         {"INFO SampleApp: [Stream 4294967297]: Stream metadata became available:\n",
          ":       Title: A title\n", ":       Artist: An artist\n", ":       Album: An album\n",
          ":       Album art URL: http://art\n"}) {
        EXPECT_THAT(log, testing::HasSubstr(text));
    }
}

}  // namespace
