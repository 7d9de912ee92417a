// The sessions that devices play: begun with a playlist, their queue replaced or added to, kept
// over a restart; and whose a token is.
//
// Threads  any. `play` waits for the device, kPatience at most.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "controller/library/library.h"
#include "controller/session/commands.h"
#include "controller/session/house_state.h"
#include "controller/session/tracks.h"

namespace nuvio::controller {

// In a device's queue: in its place, behind the current track, at its end, at its beginning.
enum class Where { now, next, end, front };

class Sessions {
  public:
    // For all that `play` does: a page's request has 45 s, the command line's 40.
    static constexpr std::chrono::seconds kPatience{30};

    // Borrows both. `port`: this controller's, for the URLs that devices get.
    Sessions(HouseState& house, Commands& commands, uint16_t port)
        : m_house(house), m_commands(commands), m_port(port) {}

    // What is to be done once the device's channel stands, before anything is heard: `play` waits
    // for it as long as a device tries to reach its music.
    using Prepare = std::function<void(Commands::Clock::time_point latest)>;
    // `start`: place in `items` of the first one to play, for Where::now, as is `prepare`; none:
    // the first, or any where the device shuffles. The device has taken it on, not played it: its
    // state tells what comes of it.
    Outcome play(const std::string& device, const std::vector<Playable>& items, Where where,
                 std::optional<size_t> start = std::nullopt, const Prepare& prepare = {}) {
        return play(device, told(items), where, start, prepare);
    }
    Outcome play(const std::string& device, const ToldTracks& tracks, Where where,
                 std::optional<size_t> start, const Prepare& prepare = {});
    // Into the queue of a device whose channel stands, in front of an item or, where there is none
    // such, at the end.
    Outcome insert_before(const std::string& device, const ToldTracks& tracks,
                          std::optional<int64_t> before, Commands::Clock::time_point latest);
    // More of its queue changes at once: it is read when all is there.
    void set_being_filled(const std::string& device, bool is_being_filled);
    struct HandedOver {
        Outcome outcome;
        std::string session;  // that the device was offered; empty: none
    };
    // A session of these tracks, which begins as `play` says and `plays` at once or waits.
    // What was asked of the device is known already. Back once its queue is there.
    HandedOver hand_over(const std::string& device, const FoundDevice& found,
                         const ToldTracks& tracks, std::optional<size_t> start, bool plays,
                         Commands::Clock::time_point latest);
    // Whose token this is; empty: nobody's.
    std::string device_of_token(std::string_view token) const;
    // The JSPF of the session with this id and token.
    std::optional<std::string> playlist(const std::string& session, std::string_view token) const;

  private:
    using Time = Commands::Clock::time_point;
    // What a device is offered.
    struct Beginning {
        ToldTracks tracks;
        bool is_first_first;  // it begins with the first one, shuffled or not
        bool plays;
    };

    Outcome play_linked(const std::string& id, const FoundDevice& found, const ToldTracks& tracks,
                        std::optional<size_t> start, const Prepare& prepare, Time latest);
    Outcome play_anew(const std::string& id, const FoundDevice& found, const ToldTracks& tracks,
                      std::optional<size_t> start, const Prepare& prepare, Time latest);
    HandedOver begin(const std::string& id, const FoundDevice& found, const Beginning& beginning,
                     Time latest);
    HandedOver offer(const std::string& id, const FoundDevice& found, const Beginning& beginning,
                     Time latest);
    void settle(const std::string& id, const std::string& session, bool is_accepted);
    Outcome insert(const std::string& id, const ToldTracks& tracks, Where where, Time latest);
    Outcome replace(const std::string& id, JsonPtr tracks, std::optional<size_t> start,
                    Time latest);
    bool has_queue(const std::string& id, Time latest);
    std::string address_here(const std::string& id) const;

    HouseState& m_house;
    Commands& m_commands;
    const uint16_t m_port;
    std::set<std::string> m_offered_to;  // devices that are asked just now; under the house's mutex
};

}  // namespace nuvio::controller
