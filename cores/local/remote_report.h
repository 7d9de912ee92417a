// What a session's server is told: the device, the list, the track that is heard and the states,
// each when it has changed, each at most ten times a second; the place that is heard at least every
// ten seconds.
//
// Loop thread only. Calls no delegate but the one that tells the position, in `tell`.
#pragma once

#include <uv.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "local/base/loop_wakeup.h"
#include "local/channel/link.h"
#include "local/channel/messages.h"
#include "local/playback/control.h"
#include "local/playback/player.h"

namespace local_core {

class RemoteReport {
  public:
    // `device`: what does not change of it. `wake` has a pass follow. Throws std::runtime_error
    // when the loop has no handle left.
    RemoteReport(uv_loop_t* loop, HelloMessage device, const Player& player,
                 std::function<void()> wake);

    // Of the hello that follows.
    void set_session(const std::string& session_id) { m_device.session = session_id; }
    // The server is another, or connected anew: it knows nothing yet.
    void begin_anew() { m_told.reset(); }
    // Nobody is told any more.
    void end();

    // Tells the server at this connection of the link what it does not know yet.
    void tell(Link& link, uint64_t connection, const PlaybackSettings& settings,
              const PlayerView& view);
    // The list from this place on; none: from the beginning, or from the current track where that
    // would leave it out.
    std::string queue_text(std::optional<size_t> first) const;

  private:
    // What the server knows.
    struct Told {
        PlaybackSettings settings;
        PlayerView view;
    };

    void set_timer(uint64_t due_ms);
    std::string hello_text(const PlaybackSettings& settings) const;
    std::string track_text() const;

    uv_loop_t* const m_loop;
    HelloMessage m_device;
    const Player& m_player;
    const std::function<void()> m_wake;
    LoopHandle<uv_timer_t> m_timer;
    std::optional<Told> m_told;  // none: nothing yet by this connection
    uint64_t m_told_ms = 0;      // when, by the loop's clock
};

}  // namespace local_core
