// The sessions that devices play: begun with a playlist, their queue replaced or added to, kept
// over a restart; and whose a token is.
//
// Threads  any. `play` waits for the device, some seconds.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "controller/library/library.h"
#include "controller/session/commands.h"
#include "controller/session/house_state.h"

namespace nuvio::controller {

// In a device's queue: in its place, behind the current track, at its end, at its beginning.
enum class Where { now, next, end, front };

class Sessions {
  public:
    // Borrows both. `port`: this controller's, for the URLs that devices get.
    Sessions(HouseState& house, Commands& commands, uint16_t port)
        : m_house(house), m_commands(commands), m_port(port) {}

    // `start`: place in `items` of the first one to play; for Where::now.
    Outcome play(const std::string& device, const std::vector<Playable>& items, Where where,
                 size_t start = 0);
    // Whose token this is; empty: nobody's.
    std::string device_of_token(std::string_view token) const;
    // The JSPF of the session with this id and token.
    std::optional<std::string> playlist(const std::string& session, std::string_view token) const;

  private:
    Outcome begin(const std::string& id, const FoundDevice& found,
                  const std::vector<Playable>& items);
    Outcome offer(const std::string& id, const FoundDevice& found,
                  const std::vector<Playable>& items);
    void settle(const std::string& id, const std::string& session, bool is_taken);
    Outcome insert(const std::string& id, const std::vector<Playable>& items, Where where);
    Outcome replace(const std::string& id, JsonPtr tracks, size_t start);
    bool has_queue(const std::string& id);
    std::string address_here(const std::string& id) const;

    HouseState& m_house;
    Commands& m_commands;
    const uint16_t m_port;
    std::set<std::string> m_offered_to;  // devices that are asked just now; under the house's mutex
};

}  // namespace nuvio::controller
