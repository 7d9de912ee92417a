// HookProcess: one hook that runs - a command with all that it starts, or a unit being started - in
// a process group of its own, without a descriptor of ours, its output thrown away.
//
// One thread's. Nothing here waits but the start, for the kernel to find the program.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace nuvio::host {

class HookProcess {
  public:
    // The environment that hooks are given beside NUVIO_EVENT and NUVIO_VALUE: this process's
    // without what its service manager told it alone. Reads the environment: before it is changed
    // by anybody.
    static std::vector<std::string> environment();

    HookProcess() = default;
    ~HookProcess();
    HookProcess(const HookProcess&) = delete;
    HookProcess& operator=(const HookProcess&) = delete;

    // Runs a hook: starts the unit of this name, with the value between "@" and "." where it has
    // them so, else runs the command in a shell. 0, or why it cannot be run, as an errno
    // value. None may be running.
    int start(const std::string& hook, const std::string& event, const std::string& value,
              std::vector<std::string> environment);

    bool is_running() const { return m_pid > 0; }
    // Becomes readable when the hook ends; negative while none runs.
    int fd() const { return m_ended.get(); }
    // Ends what is left of the hook, all that it has started in its group included.
    void kill() const;
    // After fd became readable: ends what the hook left behind, and gives the hook's wait status.
    int finish();

  private:
    pid_t m_pid = 0;
    UniqueFd m_ended;  // pidfd
};

}  // namespace nuvio::host
