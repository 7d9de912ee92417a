// Finds out what a session plays, away from the loop: lists its folder or playlist, and opens
// tracks until one can be played.
//
// Each session gets a thread of its own, for its disk may hang: the next session is prepared all
// the same. A thread that hangs is left to itself and ends when its disk answers; there are at most
// kMaxThreads. One that waits for the network ends with the next session. Of several sessions only
// the one begun last is handed out.
//
// Threads: the loop's; no call waits, but for the destructor, at most kPatience. `on_change` comes
// from the preparing threads, never after the destructor.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "local/base/logger.h"
#include "local/network/http_transfer.h"
#include "local/playback/control.h"
#include "local/track/content.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

struct SessionRequest {
    std::string id;
    std::string endpoint;
    std::string token;  // for the endpoint's origin
    bool become_active;
    RemoteOffer remote = {};
};

struct PreparedSession {
    SessionRequest request;
    std::vector<Track> tracks;  // empty: there is nothing to play
    size_t first = 0;           // that can be played; those before it can't
    std::string failure = {};   // where there is nothing to play: why, as far as that is known
    // For its tracks.
    std::shared_ptr<HttpTransfer::Connections> connections = HttpTransfer::keep_connections();
};

class SessionPreparer {
  public:
    static constexpr int kMaxThreads = 4;
    static constexpr size_t kMaxProbes = 256;  // tracks opened for one session
    static constexpr std::chrono::seconds kPatience{1};

    // Tracks that the output does not take are not played.
    SessionPreparer(std::function<void()> on_change, const Output& output,
                    std::shared_ptr<const Logger> logger);
    ~SessionPreparer();
    SessionPreparer(const SessionPreparer&) = delete;
    SessionPreparer& operator=(const SessionPreparer&) = delete;

    // False, with nothing begun, when too many sessions still wait for their disks or there is no
    // thread to be had.
    bool begin(SessionRequest request);
    // The session begun last, once, when it is ready.
    std::optional<PreparedSession> take();

  private:
    struct Shared;
    const std::shared_ptr<Shared> m_shared;
};

}  // namespace local_core
