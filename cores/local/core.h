// One core: the device's place in the service. Joins sessions, has the player play them, asks for
// the advertising and the local configuration server, and reports changes to the device.
//
// Creation    Core(...), on the loop's thread; delegates begin on a later pass.
// Destruction ~Core, on the loop's thread, not from inside a delegate: ends the decoding threads
//             (which may have to finish a block; those that hang are left behind after a second)
//             and calls no delegate.
// Threads     `control` is for any thread, everything else for the loop's. What other threads want
//             reaches the loop through one async handle.
// Delegates   called from `pass` alone, without a lock held.
#pragma once

#include <uv.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "local/base/logger.h"
#include "local/base/loop_wakeup.h"
#include "local/local_server.h"
#include "local/playback/control.h"
#include "local/playback/player.h"
#include "local/playback/session_preparer.h"
#include "local/remote_control.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

class Core {
  public:
    // `handle` is what delegates are handed. Throws std::exception when the loop or the system has
    // no more resources. `config` has been checked.
    Core(nuv_connect* handle, uv_loop_t* loop, const nuv_connect_config& config);
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    Control& control() { return m_control; }
    Logger& logger() { return *m_logger; }
    const std::string& uuid() const { return m_uuid; }
    // Null when no session is joined.
    const char* session_id() const;

    // Checks the texts and has the session prepared (`token` is for the endpoint's origin); it is
    // joined on a later pass, when it is known to have something to play. A controller's call must
    // not wait for a disk: one that has nothing to play is answered OK, leaves what plays alone and
    // is told of in the log. NUV_ERROR_INVALID_STATE: more than kSessionsASecond, or too many still
    // wait for their disks.
    // `remote`: the server from which it is controlled, where that can be used.
    nuv_error connect(const char* session_id, const char* endpoint, const char* token,
                      RemoteOffer remote, bool become_active);

    // Hands a notification of the renderer to the player, and sees to it that a pass follows.
    template <typename... Arguments>
    nuv_error notify(nuv_error (Player::*notification)(Arguments...), Arguments... arguments) {
        m_wakeup.run_each_pass();
        return (m_player.*notification)(arguments...);
    }

  private:
    static constexpr size_t kSessionsASecond = 4;

    // What the device has been told last.
    struct Reported {
        nuv_playback_state state = NUV_PLAYBACK_STATE_STOPPED;
        bool active = false;
        bool has_next = false;
        nuv_loop_mode loop_mode = NUV_LOOP_MODE_OFF;
        bool shuffle = false;
        std::optional<uint32_t> volume;
        std::optional<bool> muted;
    };

    void pass();
    void join_prepared_session();
    void take_requests();
    void tell_remote_control();
    void tell_platform();
    void tell_of_sound();
    bool advertise();
    bool report_player();
    bool report_settings();

    nuv_connect* const m_handle;
    const nuv_connect_config m_config;
    const std::string m_uuid;
    const std::shared_ptr<Logger> m_logger = std::make_shared<Logger>();
    LoopWakeup m_wakeup;
    LocalServer m_local_server;
    Control m_control;
    SessionPreparer m_preparer;
    Player m_player;
    RemoteControl m_remote;

    PlaybackSettings m_settings;  // as taken from control last
    PlayerView m_published;       // as given to control last
    uint64_t m_noted_stream = 0;  // of which the platform was told
    uint64_t m_noted_played = 0;  // likewise, of tracks that are over
    bool m_view_noted = false;    // control has changed its view since, by the commands it noted
    Reported m_reported;
    bool m_advertised = false;
    std::string m_advertised_name;
    // When the last ones were begun, oldest first.
    std::array<std::chrono::steady_clock::time_point, kSessionsASecond> m_recent_sessions{};
    uint64_t m_stops_before_session = 0;  // when the last one was begun
    std::string m_session_id;  // kept after the session, for those who still hold its text
};

}  // namespace local_core
