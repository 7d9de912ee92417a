// Where playback is to go: the session, which of its tracks comes, and the goals of PlaybackState -
// as commands, the ends of tracks and what failed change them. The player takes the steps that lead
// there.
//
// Loop thread only. Calls no delegate but through `heard`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "local/base/logger.h"
#include "local/playback/control.h"
#include "local/playback/misses.h"
#include "local/playback/playback_state.h"
#include "local/playback/session.h"
#include "local/playback/stream_queue.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

class Course {
  public:
    using Stream = StreamQueue::Stream;

    // The track that is heard.
    struct Heard {
        uint64_t position_ms;
        bool is_seekable;
    };

    // The goals are borrowed. `heard` is asked on the way back alone; none where nothing is heard.
    Course(PlaybackState& goals, const std::shared_ptr<const Logger>& logger,
           std::function<std::optional<Heard>()> heard)
        : m_goals(goals), m_logger(logger), m_heard(std::move(heard)), m_misses(logger) {}

    // Null without one.
    const Session* session() const { return m_session.get(); }
    bool is_active() const { return m_is_active; }
    TrackPlace place_of(size_t track) const { return {track, m_session_count}; }
    // Of the session that is joined; the one of its current track.
    bool is_in_session(const TrackPlace& place) const {
        return m_session && place == place_of(place.track);
    }
    bool is_current(const TrackPlace& place) const {
        return m_session && place == place_of(m_session->current());
    }

    // ---- Commands -----------------------------------------------------------------------------

    // Without a session all but connect and deactivate are nothing.
    void apply(Command command);
    void set_modes(nuv_loop_mode loop_mode, bool shuffle);
    nuv_error edit(QueueEdit& edit);

    // ---- What became of the tracks ------------------------------------------------------------

    // The renderer has taken samples; it has come to the track of `place` by itself.
    void sound_flows() { m_misses.sound_flows(); }
    void arrive_at(const TrackPlace& place);
    // The last sample was heard, and nothing was queued behind it.
    void go_on_after_last_sample();
    // The track ended without a sound.
    void pass_over_silent(const Stream& stream);
    // The stream can't be opened; where it was to be the current one, `leave_current` follows.
    void pass_over(const Stream& stream);
    void leave_current();
    // False: nothing of the session is opened any more, after the end of this stream's bytes.
    bool may_open_behind(const Stream& stream);
    // The renderer can't play. `resumed_ms`: where sound was to begin after a pause or a seek;
    // `takes_nothing`: it has taken nothing of the current stream.
    void playback_failed(std::optional<uint64_t> resumed_ms, bool takes_nothing);

    // The oldest that has not been taken.
    std::optional<Failure> take_failure() { return m_misses.take(); }

  private:
    void join_session(Command& command);
    void leave_session();
    void pause(const Command&);
    void resume(const Command&);
    void stop(const Command&);
    void go_to_next(const Command&);
    void go_back(const Command&);
    void seek(const Command& command);

    void skip_to(size_t track);
    void end_session();
    bool begin_anew(uint64_t place_ms);
    bool pass_over_refused();

    PlaybackState& m_goals;
    const std::shared_ptr<const Logger> m_logger;
    const std::function<std::optional<Heard>()> m_heard;
    std::unique_ptr<Session> m_session;
    uint64_t m_session_count = 0;
    nuv_loop_mode m_loop_mode = NUV_LOOP_MODE_OFF;
    bool m_shuffle = false;
    bool m_is_active = false;
    bool m_goes_backwards = false;  // the last skip did: so are unplayable tracks passed over
    Misses m_misses;
};

}  // namespace local_core
