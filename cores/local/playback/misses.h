// The tracks of a session that do not play, and what follows from several in a row: which one is
// tried next, when the session is given up, and what is to be told of it.
//
// Loop thread only. Calls no delegate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "local/base/logger.h"
#include "local/playback/session.h"
#include "local/playback/stream_queue.h"

namespace local_core {

// What went wrong and goes on without it; `error` as the session's channel has it.
struct Trouble {
    const char* error;
    std::optional<size_t> track;
    std::string reason;
};

class Misses {
  public:
    using Stream = StreamQueue::Stream;

    explicit Misses(std::shared_ptr<const Logger> logger) : m_logger(std::move(logger)) {}

    // Another session, whose tracks nothing is known of.
    void begin_session();
    // Somebody has asked for music: what was given up is tried once more.
    void try_once_more() { m_gives_session_up = false; }
    // The session has come to its end.
    void end_session();
    // The renderer has taken something.
    void something_was_taken() { m_refused_count = 0; }

    // Nothing more of the session is to be opened.
    bool gives_session_up() const { return m_gives_session_up; }

    // What the end of a stream's bytes says of the tracks that follow. Each counts once.
    void consider(const Stream& stream, const Session& session);
    // It does not play, and is passed over from now on.
    void pass_over(const Stream& stream, Session& session);
    // The renderer took nothing of the session's current track. The one to try now; none when the
    // renderer can play none: the session then goes back to `first_refused`.
    std::optional<size_t> next_after_refusal(const Session& session);
    size_t first_refused() const { return m_first_refused; }

    // At most 16 are kept, later ones are not.
    void note(Trouble trouble);
    // The oldest.
    std::optional<Trouble> take();

  private:
    const std::shared_ptr<const Logger> m_logger;
    int m_refused_count = 0;           // tracks in a row of which the renderer took nothing
    size_t m_first_refused = 0;        // of these
    int m_unreachable_count = 0;       // tracks in a row whose server was gone
    bool m_gives_session_up = false;   // nothing more of it is opened
    uint64_t m_considered_stream = 0;  // whose failure counts already
    std::deque<Trouble> m_troubles;
};

}  // namespace local_core
