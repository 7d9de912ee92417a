// A session's channel on the loop's side: carries out what its server asks for by the same controls
// that the device uses (docs/session.md). What the server is told is RemoteReport's.
//
// Loop thread only. Calls no delegate but the one that tells the position, in `tell`. What can wait
// is the link's.
#pragma once

#include <uv.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "local/base/logger.h"
#include "local/channel/link.h"
#include "local/channel/messages.h"
#include "local/playback/control.h"
#include "local/playback/player.h"
#include "local/remote_report.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

class RemoteControl {
  public:
    // `device`: what does not change of it. `wake` has a pass follow; it is called from any thread.
    // Throws std::runtime_error when the loop has no handle left.
    RemoteControl(uv_loop_t* loop, HelloMessage device, Control& control, const Player& player,
                  std::shared_ptr<const Logger> logger, std::function<void()> wake);
    // Says goodbye; waits for it, and for what earlier sessions' servers still hear, a second at
    // most.
    ~RemoteControl();
    RemoteControl(const RemoteControl&) = delete;
    RemoteControl& operator=(const RemoteControl&) = delete;

    // A session begins; an offer that can't be used means that it is not controlled from elsewhere.
    void begin(const std::string& session_id, const RemoteOffer& offer);
    // A session is not joined: its server is told why, if it is there now. Changes nothing of the
    // session that is played.
    void decline(const RemoteOffer& offer, const std::string& reason);
    // The session is over; does not wait. `reason`: of a goodbye.
    void end(const char* reason);

    // Carries out the next command; true when there was one. The controls note it, so there has to
    // be a pass before the next one.
    bool take_command();
    // What has become of the change of the list that was noted.
    void answer_edit(nuv_error error);

    // Tells what is new, each kind at most ten times a second.
    void tell(const PlaybackSettings& settings, const PlayerView& view);
    void tell_failure(const Failure& failure);

  private:
    std::unique_ptr<Link> link_to(const RemoteOffer& offer, bool is_for_once);
    void tell_declined();
    nuv_error carry_out(RemoteCommand& command, bool* is_noted);
    nuv_error edit(RemoteCommand& command, bool* is_noted);
    std::optional<QueueEdit> edit_of(RemoteCommand& command) const;
    void answer(const std::string& id, nuv_error error);
    void say(std::string text);

    Control& m_control;
    const Player& m_player;
    const std::shared_ptr<const Logger> m_logger;
    const std::function<void()> m_wake;
    RemoteReport m_report;

    std::unique_ptr<Link> m_link;            // null: not controlled from elsewhere
    std::atomic<bool> m_has_changed{false};  // of the link, set by its thread
    uint64_t m_connection = 0;
    std::string m_edit_id;  // of the command whose change is noted
    uint64_t m_edit_connection = 0;

    std::unique_ptr<Link> m_declined;  // of the session that was not joined last, until it is told
    std::string m_why_declined;        // what it is told
};

}  // namespace local_core
