// A seeded random driver of the SDK's delegates, the sink's signals and the timers, against the
// real renderer and source manager. After each event the renderer must be in one piece.
//
// Episodes of an orderly SDK keep to its contract, whatever fails meanwhile; they must never stall
// and must come to their end when the driver lets them. Episodes of a hostile one make any call at
// any time: unknown streams, data after a pause, disposals in every state.
//
// 400,000 events by default, five million with NUVIO_LONG=1. NUVIO_SEED repeats a run.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "faults/seed.h"
#include "media/source/audio_source_private.h"
#include "renderer/renderer_fixture.h"

namespace {

constexpr size_t kDefaultEvents = 400'000;
constexpr size_t kLongEvents = 5'000'000;
constexpr size_t kEventsAnEpisode = 400;
constexpr unsigned kMaxStreams = 4;
constexpr size_t kShownBytes = 8000;  // of the log, for a failure

constexpr std::array<nuv_audio_format, 5> kFormats{{
    kCd,
    kCd,
    {44100, 1, NUV_AUDIO_SAMPLE_FORMAT_16_BIT},
    {44100, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT},
    {96000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT},
}};

// The calls that may fail. A fault is over at the end of its episode at the latest.
constexpr std::array kFailingCalls{
    "notify_playback_initiated", "notify_playback_paused",
    "notify_playback_resumed",   "notify_playback_stopped",
    "notify_playback_error",     "notify_playback_finished",
    "resume_audio_delivery",     "get_playback_state",
    "get_stream_metadata",       "deactivate_and_disconnect_renderer"};

// As the SDK keeps it.
struct Stream {
    uint64_t id;
    bool open = false;       // delivery
    bool delivered = false;  // as a whole
};

class RandomDriver : public RendererTest {
  protected:
    struct Event {
        const char* name;
        unsigned weight;
        void (*run)(RandomDriver&);
        // Whether an orderly SDK could do it now; null: always.
        bool (*is_in_order)(const RandomDriver&);
        bool may_come(const RandomDriver& driver) const {
            return is_in_order == nullptr || is_in_order(driver);
        }
    };
    static const std::vector<Event>& events();

    // ---- Chance

    unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
    bool one_in(unsigned count) { return below(count) == 0; }
    template <typename Container>
    const auto& any_of(const Container& container) {
        return *(container.begin() + below(static_cast<unsigned>(container.size())));
    }

    // ---- The SDK's side

    Stream* find(uint64_t id) {
        const auto found = std::ranges::find(live_, id, &Stream::id);
        return found == live_.end() ? nullptr : &*found;
    }
    // Of an orderly SDK: one that lives; otherwise now and then one that doesn't.
    uint64_t some_id() {
        const bool lives = !live_.empty() && (is_orderly_ || !one_in(10));
        return lives ? any_of(live_).id : next_id_ + below(3);
    }
    bool has_stream() const { return !live_.empty(); }
    bool is(audio_renderer_state expected) const { return state() == expected; }
    bool is_seeking() const {
        return is(AUDIO_RENDERER_STATE_PLAYING_SEEKING) || is(AUDIO_RENDERER_STATE_PAUSED_SEEKING);
    }
    bool may_deliver() const {
        return !is_seeking() && std::ranges::any_of(live_, [](const Stream& stream) {
            return stream.open && !stream.delivered;
        });
    }
    // An orderly SDK disposes of what ended, of a track that is withdrawn, and of everything once
    // playback is over.
    bool may_dispose() const {
        return has_stream() &&
               (disposals_due_ > 0 || is(AUDIO_RENDERER_STATE_STOPPED) || live_.size() > 1);
    }
    void start_stream() {
        nuv_audio_format format = any_of(kFormats);
        if (!is_orderly_ && one_in(20)) {
            format = {0, below(3), static_cast<nuv_audio_sample_format>(below(2))};
        }
        const uint64_t id = next_id_++;
        live_.push_back({.id = id});
        start(id, format, one_in(4) ? below(200000) : 0);
    }
    void deliver() {
        std::vector<uint64_t> candidates;
        for (const Stream& stream : live_) {
            if (!is_orderly_ || (stream.open && !stream.delivered)) {
                candidates.push_back(stream.id);
            }
        }
        if (!is_orderly_ && one_in(10)) {
            candidates.push_back(next_id_ + 5);
        }
        if (candidates.empty()) {
            return;
        }
        const uint64_t id = any_of(candidates);
        const size_t size = 8 * (1 + size_t{below(one_in(4) ? 20000 : 500)});
        const bool was_paused = is(AUDIO_RENDERER_STATE_PAUSED);
        const size_t taken = offer(id, size);
        expect(taken <= size, "no more is taken than was offered");
        expect(!was_paused || taken == 0, "nothing is written while paused");
        if (Stream* stream = find(id); stream != nullptr && taken < size) {
            stream->open = false;
        }
    }
    void end_stream() {
        if (!is_orderly_) {
            finish(some_id());
            return;
        }
        const auto stream = std::ranges::find_if(
            live_, [](const Stream& each) { return each.open && !each.delivered; });
        stream->delivered = true;
        finish(stream->id);
    }
    void dispose_stream() {
        uint64_t id = some_id();
        if (is_orderly_) {
            if (disposals_due_ > 0 || ended_with_error_) {
                id = live_.front().id;
                disposals_due_ -= disposals_due_ > 0 ? 1 : 0;
            } else if (!is(AUDIO_RENDERER_STATE_STOPPED)) {
                id = live_.back().id;
            }
        }
        std::erase_if(live_, [id](const Stream& stream) { return stream.id == id; });
        ended_with_error_ = ended_with_error_ && has_stream();
        dispose(id);
    }
    void begin_playback() {
        if (!is_orderly_ && one_in(10)) {
            initiate(static_cast<nuv_playback_state>(below(4)));
        } else {
            initiate(one_in(4) ? NUV_PLAYBACK_STATE_PAUSED : NUV_PLAYBACK_STATE_PLAYING);
        }
    }
    void complete_seek() {
        const uint64_t ms = one_in(10) ? UINT64_MAX >> below(64) : below(180000);
        if (!is_orderly_) {
            seeked(some_id(), ms);
            return;
        }
        live_.front().delivered = false;
        seeked(live_.front().id, ms);
    }
    void ask_position() {
        const uint64_t answer = position();
        expect(!is(AUDIO_RENDERER_STATE_STOPPED) || answer == 0, "a stopped renderer is at 0");
        expect(!is_seeking() || answer == renderer->seek_position, "a seek reports where it began");
    }
    void change_controls() {
        const auto any_state = static_cast<nuv_playback_state>(below(4));
        const auto any_quality = static_cast<nuv_audio_quality>(below(4));
        const auto any_mode = static_cast<nuv_loop_mode>(below(4));
        media.volume_changed(core, below(200), media.context);
        media.mute_state_changed(core, one_in(2), media.context);
        media.playback_state_changed(core, any_state, media.context);
        media.maximum_audio_quality_changed(core, any_quality, media.context);
        media.playback_controls_changed(core, any_mode, one_in(2), media.context);
        delete callmetadata(core, renderer);
    }

    // ---- The device's side

    static bool room_is_due() { return fake_sink::state().waits_for_space; }
    // Every timer that runs is due.
    void let_time_pass() {
        for (const auto& owner :
             {&renderer->playback_nearly_finished_timer, &renderer->playback_finished_timer}) {
            uv_timer_t* timer = &(*owner)->timer;
            if (uv_timer_is_active(timer)) {
                uv_timer_start(timer, timer->timer_cb, 0, 0);
                if (one_in(2)) {
                    break;
                }
            }
        }
        run_due();
    }
    void change_sink() {
        fake_sink::State& sink = fake_sink::state();
        sink.room = one_in(2) ? SIZE_MAX : 8 * size_t{below(2000)};
        sink.buffered_frames = below(one_in(2) ? 100 : 40000);
        sink.buffered_is_known = !one_in(10);
        sink.can_open = !one_in(10);
        sink.can_write = !one_in(20);
    }
    void let_calls_fail() {
        const std::string name = any_of(kFailingCalls);
        fake_sdk::set_result(name, one_in(3) ? NUV_ERROR_OK : NUV_ERROR_INTERNAL);
        is_let_down_ = true;
    }

    // ---- The run

    void run_episode() {
        is_orderly_ = !one_in(3);
        has_faults_ = one_in(3);
        stream_limit_ = 1 + below(kMaxStreams);
        disposals_due_ = 0;
        ended_with_error_ = is_let_down_ = false;
        playback_paused = false;  // the process's
        live_.clear();
        // Each favours other events, so that rare orders of them come up in some.
        std::vector<unsigned> weights;
        for (const Event& event : events()) {
            weights.push_back(event.weight << 2 * below(3));
        }
        std::discrete_distribution<size_t> draw(weights.begin(), weights.end());
        for (size_t i = 0; i < kEventsAnEpisode && is_whole(); ++i) {
            const Event& event = events()[draw(random_)];
            if (!is_orderly_ || event.may_come(*this)) {
                run_event(event);
            }
        }
        // Every other one ends with the renderer's release in whatever state it is.
        if (is_whole() && is_orderly_ && !is_let_down_) {
            play_to_the_end();
        }
        TearDown();
        SetUp();
    }
    void run_event(const Event& event) {
        std::puts(event.name);
        event.run(*this);
        follow_journal();
        check();
        ++count_;
    }
    // What the renderer told the SDK, as the SDK takes it.
    void follow_journal() {
        const std::string resumed = "sdk resume_audio_delivery ";
        unsigned errors = 0;
        for (const std::string& line : journal::take()) {
            std::puts(line.c_str());
            if (line.starts_with(resumed)) {
                Stream* stream = find(std::stoull(line.substr(resumed.size())));
                expect(stream != nullptr, "only a live stream is resumed");
                if (stream != nullptr) {
                    stream->open = true;
                }
            } else if (line.starts_with("sdk notify_playback_finished")) {
                disposals_due_ = 1;
                finished_at_last_ = line.ends_with("true");
            } else if (line == "sdk notify_playback_error") {
                ++errors;
                ended_with_error_ = has_stream();
                disposals_due_ = 0;
            } else if (line.starts_with("sink write")) {
                expect(fake_sink::state().open || errors == 0, "only an open sink is written");
            }
        }
        expect(errors <= 1, "a failure is reported once");
        expect(errors == 0 || is(AUDIO_RENDERER_STATE_STOPPED), "a reported failure stops");
    }
    // What is open is delivered, what is due happens: the last stream must be heard to its end.
    void play_to_the_end() {
        fake_sink::state() = {.open = fake_sink::state().open,
                              .format = fake_sink::state().format,
                              .waits_for_space = fake_sink::state().waits_for_space};
        finished_at_last_ = is(AUDIO_RENDERER_STATE_STOPPED);
        for (int step = 0; step < 100 && !is(AUDIO_RENDERER_STATE_STOPPED) && is_whole(); ++step) {
            for (const std::string_view name :
                 {"seeked", "resume", "space", "data", "finished", "dispose", "time"}) {
                const Event& due = *std::ranges::find_if(
                    events(), [name](const Event& event) { return event.name == name; });
                const bool withdraws = name == "dispose" && disposals_due_ == 0;
                if (due.may_come(*this) && !withdraws) {
                    run_event(due);
                }
            }
        }
        expect(is(AUDIO_RENDERER_STATE_STOPPED) && finished_at_last_,
               "an orderly session comes to its end");
    }
    void check() {
        const bool stopped = is(AUDIO_RENDERER_STATE_STOPPED);
        const audio_source* playing = renderer->playing_source;
        audio_source_manager* manager = renderer->source_manager.get();
        const audio_source* active = audio_source_manager_get_active_source(manager);
        const audio_source* next = audio_source_manager_get_next_source(manager);

        expect(fake_sink::state().open == !stopped, "the sink is open unless stopped");
        expect((playing != nullptr) == !stopped, "a source plays unless stopped");
        expect(playing == nullptr || playing == active || playing == next,
               "the playing source is the active or the next one");
        expect(playing == nullptr || std::memcmp(&playing->format, &fake_sink::state().format,
                                                 sizeof playing->format) == 0,
               "the sink is open for what plays");
        const auto source_at = [&](size_t index) {
            return index < live_.size()
                       ? audio_source_manager_get_source_by_stream_id(manager, live_[index].id)
                       : nullptr;
        };
        expect(active == source_at(0) && next == source_at(1),
               "the first two streams are the active and the next one");
        for (const Stream& stream : live_) {
            expect(audio_source_manager_get_source_by_stream_id(manager, stream.id) != nullptr,
                   "every live stream has a source");
        }

        const bool paused =
            is(AUDIO_RENDERER_STATE_PAUSED) || is(AUDIO_RENDERER_STATE_PAUSED_SEEKING);
        expect(!playback_paused || paused, "data is refused only while paused");
        expect(!any_timer_armed() || is(AUDIO_RENDERER_STATE_PLAYING),
               "timers run only while playing");
        expect(!any_timer_paused() || is(AUDIO_RENDERER_STATE_PAUSED),
               "timers are paused only while paused");

        if (is_orderly_ && !is_let_down_ && is(AUDIO_RENDERER_STATE_PLAYING)) {
            const bool ended = renderer->next_source_is_track && disposals_due_ > 0;
            expect(playing->delivery_active || room_is_due() || any_timer_armed() || ended,
                   "playback goes on by itself");
        }
    }
    void expect(bool holds, const char* what) {
        if (!holds && is_whole()) {
            broken_ = what;
        }
    }
    bool is_whole() const { return broken_.empty(); }
    bool any_timer_paused() const {
        return uv_pausable_timer_is_paused(renderer->playback_nearly_finished_timer.get()) ||
               uv_pausable_timer_is_paused(renderer->playback_finished_timer.get());
    }

    std::mt19937_64 random_;
    bool is_orderly_ = true;
    size_t stream_limit_ = kMaxStreams;  // of this episode; with few, a next one comes late
    uint64_t next_id_ = 1;
    std::vector<Stream> live_;
    unsigned disposals_due_ = 0;     // of ended streams, from the front
    bool ended_with_error_ = false;  // all streams must go before the next playback
    bool has_faults_ = false;        // of SDK calls, in this episode
    bool is_let_down_ = false;       // a notification failed, what follows is open
    bool finished_at_last_ = false;
    size_t count_ = 0;
    std::string broken_;  // the first invariant that did not hold
};

const std::vector<RandomDriver::Event>& RandomDriver::events() {
    using D = RandomDriver;
    static const std::vector<Event> table = {
        {"start stream", 6, [](D& d) { d.start_stream(); },
         [](const D& d) { return d.live_.size() < d.stream_limit_; }},
        {"data", 40, [](D& d) { d.deliver(); }, [](const D& d) { return d.may_deliver(); }},
        {"finished", 12, [](D& d) { d.end_stream(); }, [](const D& d) { return d.may_deliver(); }},
        {"dispose", 6, [](D& d) { d.dispose_stream(); },
         [](const D& d) { return d.may_dispose(); }},
        {"metadata", 1,
         [](D& d) {
             const nuv_stream_metadata metadata{"Title", "Artist", "Album", ""};
             d.streams.metadata(d.core, d.some_id(), &metadata, d.streams.context);
         },
         [](const D& d) { return d.has_stream(); }},
        {"initiate", 10, [](D& d) { d.begin_playback(); },
         [](const D& d) {
             return d.has_stream() && d.is(AUDIO_RENDERER_STATE_STOPPED) && !d.ended_with_error_ &&
                    d.disposals_due_ == 0;
         }},
        {"pause", 4, [](D& d) { d.pause(); },
         [](const D& d) { return d.is(AUDIO_RENDERER_STATE_PLAYING) && d.disposals_due_ == 0; }},
        {"resume", 12, [](D& d) { d.resume(); },
         [](const D& d) { return d.is(AUDIO_RENDERER_STATE_PAUSED); }},
        {"stop", 1, [](D& d) { d.stop(); },
         [](const D& d) { return !d.is(AUDIO_RENDERER_STATE_STOPPED); }},
        {"seek in progress", 3, [](D& d) { d.announce_seek(); },
         [](const D& d) {
             return (d.is(AUDIO_RENDERER_STATE_PLAYING) || d.is(AUDIO_RENDERER_STATE_PAUSED)) &&
                    d.disposals_due_ == 0;
         }},
        {"seeked", 12, [](D& d) { d.complete_seek(); }, [](const D& d) { return d.is_seeking(); }},
        {"position", 4, [](D& d) { d.ask_position(); }, nullptr},
        {"controls", 3, [](D& d) { d.change_controls(); }, nullptr},
        {"space", 30,
         [](D&) {
             if (room_is_due()) {
                 fake_sink::signal_space();
             }
         },
         [](const D&) { return room_is_due(); }},
        {"time", 12, [](D& d) { d.let_time_pass(); }, nullptr},
        {"sink", 8, [](D& d) { d.change_sink(); }, nullptr},
        {"faults", 1, [](D& d) { d.let_calls_fail(); }, [](const D& d) { return d.has_faults_; }},
        {"host", 1, [](D& d) { journal::host_allows_source = !d.one_in(4); }, nullptr},
    };
    return table;
}

TEST_F(RandomDriver, RendererStaysInOnePieceWhateverComes) {
    const uint64_t seed = draw_seed();
    const size_t wanted = how_many(kDefaultEvents, kLongEvents);
    random_.seed(seed);
    std::string log;
    while (count_ < wanted && is_whole()) {
        testing::internal::CaptureStdout();  // the renderer logs every event
        run_episode();
        log = testing::internal::GetCapturedStdout();
    }
    std::printf("%zu events\n", count_);
    EXPECT_TRUE(is_whole()) << log.substr(log.size() - std::min(log.size(), kShownBytes))
                            << "NUVIO_SEED=" << seed << ": not true that " << broken_
                            << " after these events of "
                            << (is_orderly_ ? "an orderly SDK" : "a hostile SDK");
}

}  // namespace
