// StateStore: what the device remembers across restarts, in the file "state" of the state
// directory: its name, volume and mute.
//
// set may be called from any thread and never waits for the disk; load and save are for one thread
// at a time.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "configuration/settings.h"

namespace nuvio::host {

// The environment variable NUVIO_STATE_DIR, else the setting, else what the service manager made
// for the unit, else /var/lib/nuvio-connect for root and $XDG_STATE_HOME/nuvio-connect
// (~/.local/state/nuvio-connect) for a user.
std::string state_directory(const Settings& settings);

class StateStore {
  public:
    explicit StateStore(std::string folder);

    // The values kept, by message id (device name, volume, mute); what is missing or makes no sense
    // is left out, with a log line for the latter.
    std::map<int, std::string> load();

    // Remembers a message's value; true when it is one to keep and has changed, so that a save is
    // due. Values that make no sense are not kept.
    bool set(int id, const std::string& text);

    // Writes what has changed since the last load or save, at once and whole. A failure is one log
    // line until a save succeeds again; the values stay due.
    void save();

  private:
    const std::string m_path;
    bool m_failed = false;

    std::mutex m_mutex;
    std::map<int, std::string> m_values;  // guarded by m_mutex
    bool m_due = false;                   // guarded by m_mutex
};

}  // namespace nuvio::host
