// What devices say over their sessions' channels.
//
// Threads  any; `said` may read the library and write the sessions, so waits for the disk.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "controller/library/library.h"
#include "controller/session/commands.h"
#include "controller/session/house_state.h"

namespace nuvio::controller {

class Channels {
  public:
    // Borrows all.
    Channels(HouseState& house, Commands& commands, Library& library)
        : m_house(house), m_commands(commands), m_library(library) {}

    // False: not wanted. The device's link before this one is closed, unless the session is one
    // that the device may not join: its first message tells.
    bool opened(std::string_view token, const std::shared_ptr<ChannelLink>& link);
    void said(const ChannelLink* link, std::string_view text);
    // `is_silent`: the device was asked whether it is there, and did not answer.
    void closed(const ChannelLink* link, bool is_silent);

  private:
    using Entry = std::map<std::string, Device>::value_type;

    Entry* entry_of(const ChannelLink* link);
    bool take(const ChannelLink* link, Entry& entry, const std::string& type, const cJSON* message);
    bool take_of_offered(Entry& entry, const std::string& type, const cJSON* message);
    void join(Entry& entry, const std::string& session, std::shared_ptr<ChannelLink> link);
    void note_progress(Device& device, const std::string& type);
    void end(Entry& entry, Owner next);
    void judge_track(const ChannelLink* link);

    HouseState& m_house;
    Commands& m_commands;
    Library& m_library;
};

}  // namespace nuvio::controller
