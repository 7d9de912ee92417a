// The house: its devices, the sessions that they play, commands to them, and what their channels
// say. The one place where pages, command line, devices and discovery meet. The parts share one
// lock.
//
// Threads  see each part.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "controller/session/alarms.h"
#include "controller/session/channels.h"
#include "controller/session/commands.h"
#include "controller/session/devices.h"
#include "controller/session/house_state.h"
#include "controller/session/mover.h"
#include "controller/session/queues.h"
#include "controller/session/sessions.h"
#include "controller/session/sleeper.h"

namespace nuvio::controller {

class House {
  public:
    // Borrows library and changes. `port`: this controller's.
    House(Library& library, Changes& changes, const std::string& state_folder, uint16_t port)
        : m_state(changes, state_folder),
          m_commands(m_state),
          m_sessions(m_state, m_commands, port),
          m_mover(m_state, m_commands, m_sessions),
          m_queues(m_state, m_commands, m_sessions),
          m_channels(m_state, m_commands, library),
          m_devices(m_state),
          m_sleeper(m_state, m_commands),
          m_alarms(m_state, m_commands, m_queues, library) {}
    ~House() { close(); }
    House(const House&) = delete;
    House& operator=(const House&) = delete;

    Devices& devices() { return m_devices; }
    Commands& commands() { return m_commands; }
    Sessions& sessions() { return m_sessions; }
    Mover& mover() { return m_mover; }
    Sleeper& sleeper() { return m_sleeper; }
    Alarms& alarms() { return m_alarms; }
    Queues& queues() { return m_queues; }
    Channels& channels() { return m_channels; }

    // Ends what waits here, for good.
    void close() {
        const std::scoped_lock lock(m_state.mutex);
        m_state.is_closed = true;
        m_state.on_change.notify_all();
    }

  private:
    HouseState m_state;
    Commands m_commands;
    Sessions m_sessions;
    Mover m_mover;
    Queues m_queues;
    Channels m_channels;
    Devices m_devices;  // last, with the next: their threads use the others
    Sleeper m_sleeper;
    Alarms m_alarms;
};

}  // namespace nuvio::controller
