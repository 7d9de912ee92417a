// The music of one device to another: its queue, the place in it, the position, shuffle and loop,
// whether it plays, and its sleep timer. The new device has it ready, paused, before the old one
// comes to that position; then it begins, and only once it is heard does the old one leave its
// session. Whatever goes wrong before, the old one plays on; where that can't be told to leave, the
// music is moved all the same, and the outcome's reason says so.
//
// Threads  any. `move` waits for both devices, Sessions::kPatience and an answer at most.
#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>

#include "common/json/json.h"
#include "controller/session/commands.h"
#include "controller/session/house_state.h"
#include "controller/session/sessions.h"

namespace nuvio::controller {

class Mover {
  public:
    // Borrows all.
    Mover(HouseState& house, Commands& commands, Sessions& sessions)
        : m_house(house), m_commands(commands), m_sessions(sessions) {}

    // What the other device played before is replaced.
    Outcome move(const std::string& from, const std::string& to);

  private:
    struct Music;
    struct Spot;

    // All of these throw why it can't be done.
    void take_up(Music& music);
    void carry_over(Music& music);
    bool join_in(const Music& music);
    void note_joined(const Music& music);
    void set_modes(const Music& music);
    void jump(Music& music, size_t place);
    void tell(const Music& music, const char* command, JsonPtr arguments = new_object());
    void wait_until_cued(const Music& music);
    void wait_for(const Music& music, const std::function<bool(const DeviceState&)>& has_come);
    bool stays(const Music& music, const Spot& spot, Commands::Clock::time_point until);
    void take_sleep_along(const Music& music);
    Spot spot_of(const Music& music);

    Outcome leave(const Music& music);
    void give_up(const Music& music, const std::string& reason);

    HouseState& m_house;
    Commands& m_commands;
    Sessions& m_sessions;
    std::set<std::string> m_busy;  // devices of a move that goes on; under the house's mutex
};

}  // namespace nuvio::controller
