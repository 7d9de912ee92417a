#include "common/process/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "common/environment.h"

namespace nuvio {

namespace {

// For a process that was killed; more only where a disk holds it.
constexpr int kEndMs = 1000;

// Killed processes that have not ended yet.
class LeftBehind {
  public:
    void add(pid_t process) {
        const std::lock_guard lock(m_mutex);
        m_processes.push_back(process);
    }
    size_t count() {
        const std::lock_guard lock(m_mutex);
        std::erase_if(m_processes,
                      [](pid_t process) { return waitpid(process, nullptr, WNOHANG) != 0; });
        return m_processes.size();
    }

  private:
    std::mutex m_mutex;
    std::vector<pid_t> m_processes;
};

LeftBehind& left_behind() {
    static auto* const processes = new LeftBehind();  // for threads that outlive main()
    return *processes;
}

std::string path_of(const char* program) {
    namespace fs = std::filesystem;
    const fs::path named = environment_text("NUVIO_READERS");
    if (!named.empty()) {
        return named / program;
    }
    std::error_code error;
    const fs::path beside = fs::read_symlink("/proc/self/exe", error).parent_path() / program;
    return !error && fs::exists(beside, error) ? beside : fs::path(NUVIO_READERS) / program;
}

constexpr std::string_view kShownToAll[] = {
    "LD_LIBRARY_PATH=", "ASAN_OPTIONS=", "TSAN_OPTIONS=", "UBSAN_OPTIONS=", "QEMU_LD_PREFIX="};

std::vector<char*> shown_environment(std::span<const std::string_view> names) {
    std::vector<char*> shown;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const auto is_named = [variable](std::string_view name) {
            return std::string_view(*variable).starts_with(name);
        };
        if (std::ranges::any_of(kShownToAll, is_named) || std::ranges::any_of(names, is_named)) {
            shown.push_back(*variable);
        }
    }
    shown.push_back(nullptr);
    return shown;
}

// What the started process has: the socket as its only descriptor but standard error, no signal
// blocked or ignored.
class SpawnPlan {
  public:
    explicit SpawnPlan(int socket) {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_init(&m_attributes);
        posix_spawnattr_setsigmask(&m_attributes, &none);
        posix_spawnattr_setsigdefault(&m_attributes, &all);
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        posix_spawn_file_actions_init(&m_actions);
        posix_spawn_file_actions_adddup2(&m_actions, socket, 0);
        posix_spawn_file_actions_addopen(&m_actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addclosefrom_np(&m_actions, 3);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&m_actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    int start(const std::string& path, char* const* arguments, char* const* environment,
              pid_t* process) {
        return posix_spawn(process, path.c_str(), &m_actions, &m_attributes, arguments,
                           environment);
    }

  private:
    posix_spawnattr_t m_attributes;
    posix_spawn_file_actions_t m_actions;
};

ChildProcess::End ending(int status) {
    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        return {"was ended by signal " + std::to_string(signal) + " (" + strsignal(signal) + ")",
                signal != SIGKILL};  // as the kernel does where memory is short
    }
    // Another one where a library is missing, or the walls.
    const int code = WEXITSTATUS(status);
    return {"ended with status " + std::to_string(code), code == 0};
}

}  // namespace

ChildProcess::ChildProcess(const char* program, const char* option, std::string* error,
                           std::span<const std::string_view> shown) {
    std::array<int, 2> pair{};
    if (left_behind().count() >= kMaxLeftBehind) {
        *error = "too many before it still wait for their disks";
        return;
    }
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()) != 0) {
        *error = std::strerror(errno);
        return;
    }
    UniqueFd own(pair[0]);
    const UniqueFd its(pair[1]);
    const std::string path = path_of(program);
    std::vector<std::string> words{path};
    if (option != nullptr) {
        words.emplace_back(option);
    }
    if (!environment_text("NUVIO_READER_UNFILTERED").empty()) {
        words.emplace_back("--unfiltered");
    }
    std::vector<char*> arguments(words.size() + 1);
    std::ranges::transform(words, arguments.begin(), [](std::string& word) { return word.data(); });
    const std::vector<char*> environment = shown_environment(shown);
    SpawnPlan plan(its.get());
    if (const int failure = plan.start(path, arguments.data(), environment.data(), &m_process);
        failure != 0) {
        m_process = -1;
        *error = path + ": " + std::strerror(failure);
        return;
    }
    m_socket = std::move(own);
}

ChildProcess::~ChildProcess() {
    end();
}

ChildProcess::End ChildProcess::end() {
    if (m_process < 0) {
        return {"", false};
    }
    const pid_t process = std::exchange(m_process, -1);
    int status = 0;
    const UniqueFd watch(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    kill(process, SIGKILL);
    m_socket.reset();
    pollfd ended{watch.get(), POLLIN, 0};
    poll(&ended, 1, kEndMs);
    if (waitpid(process, &status, WNOHANG) == process) {
        return ending(status);
    }
    left_behind().add(process);
    return {"hangs", true};
}

}  // namespace nuvio
