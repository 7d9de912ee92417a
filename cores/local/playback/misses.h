// What went wrong with a session's tracks, and what follows from it: failures in a row, of the
// renderer or of a server, after which a session is given up; and what its channel is told of them.
//
// Loop thread only. Calls no delegate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "local/base/logger.h"
#include "local/playback/stream_queue.h"

namespace local_core {

// What went wrong and goes on without it; `error` as the session's channel has it.
struct Failure {
    const char* error;
    std::optional<size_t> track;
    std::string reason;
};

class Misses {
  public:
    explicit Misses(std::shared_ptr<const Logger> logger) : m_logger(std::move(logger)) {}

    // Another session begins, with no miss yet; the session has nothing left to play.
    void begin_session();
    void end_session();
    // The renderer has taken samples.
    void sound_flows();

    // Nothing more of the session is opened, until someone asks for it again.
    bool gives_session_up() const { return m_gives_session_up; }
    void try_again() { m_gives_session_up = false; }

    // What the end of a stream's bytes says of the tracks that follow; a stream counts once.
    void consider(const StreamQueue::Stream& stream, const std::string& session_id);
    // The renderer took nothing of `track`, which may be its format. True when `next`, where there
    // is one, may still be played; false when the renderer can play none, the next count begins
    // then anew.
    bool refused(size_t track, std::optional<size_t> next);
    // The first track of those refused in a row.
    size_t first_refused() const { return m_first_refused; }
    // True when playback may begin anew at its place: not twice without sound between.
    bool may_begin_anew();

    void note(Failure failure);
    // The oldest that has not been taken.
    std::optional<Failure> take();

  private:
    const std::shared_ptr<const Logger> m_logger;
    int m_refused_count = 0;           // tracks in a row of which the renderer took nothing
    size_t m_first_refused = 0;        // of these
    int m_unreachable_count = 0;       // tracks in a row whose server was gone
    bool m_gives_session_up = false;   // nothing more of it is opened
    uint64_t m_considered_stream = 0;  // whose failure counts already
    bool m_has_begun_anew = false;     // without sound since
    std::deque<Failure> m_failures;    // at most kMaxFailures, later ones are not kept
};

}  // namespace local_core
