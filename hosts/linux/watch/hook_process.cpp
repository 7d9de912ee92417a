#include "watch/hook_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "base/text.h"

namespace nuvio::host {

namespace {

// What concerns this process alone, or is set anew.
constexpr std::array<std::string_view, 7> kOwnVariables = {
    "NOTIFY_SOCKET=",  "WATCHDOG_PID=", "WATCHDOG_USEC=", "LISTEN_",
    "JOURNAL_STREAM=", "NUVIO_EVENT=",  "NUVIO_VALUE="};

// Signals as a program finds them, a group of its own.
class Attributes {
  public:
    Attributes() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_init(&m_value);
        posix_spawnattr_setsigmask(&m_value, &none);
        posix_spawnattr_setsigdefault(&m_value, &all);
        posix_spawnattr_setpgroup(&m_value, 0);
        posix_spawnattr_setflags(
            &m_value, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    ~Attributes() { posix_spawnattr_destroy(&m_value); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    const posix_spawnattr_t* get() const { return &m_value; }

  private:
    posix_spawnattr_t m_value{};
};

// Nothing to read, nobody who listens, nothing of ours.
class Descriptors {
  public:
    Descriptors() {
        posix_spawn_file_actions_init(&m_value);
        for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
            posix_spawn_file_actions_addopen(&m_value, fd, "/dev/null", O_RDWR, 0);
        }
        posix_spawn_file_actions_addclosefrom_np(&m_value, STDERR_FILENO + 1);
    }
    ~Descriptors() { posix_spawn_file_actions_destroy(&m_value); }
    Descriptors(const Descriptors&) = delete;
    Descriptors& operator=(const Descriptors&) = delete;
    const posix_spawn_file_actions_t* get() const { return &m_value; }

  private:
    posix_spawn_file_actions_t m_value{};
};

// Behind the texts, which have to stay.
std::vector<char*> pointers_to(std::vector<std::string>& texts) {
    std::vector<char*> pointers(texts.size() + 1, nullptr);
    std::ranges::transform(texts, pointers.begin(), [](std::string& text) { return text.data(); });
    return pointers;
}

// Where memory is short, of the unit or the machine, it goes first and not the music.
void offer_to_the_oom_killer(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/oom_score_adj";
    constexpr std::string_view kFirst = "1000";
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    // Without such a file it is as likely as any.
    [[maybe_unused]] const ssize_t size = ::write(file.get(), kFirst.data(), kFirst.size());
}

std::vector<std::string> words_for(std::string hook, const std::string& value) {
    if (!is_unit_name(hook)) {
        return {"/bin/sh", "-c", std::move(hook)};
    }
    if (const size_t at = hook.find("@."); at != hook.npos) {
        hook.insert(at + 1, value);
    }
    std::vector<std::string> words = {"systemctl", "--no-block", "--no-ask-password", "start",
                                      std::move(hook)};
    if (std::getenv("XDG_RUNTIME_DIR") != nullptr) {  // a user's own device
        words.insert(words.begin() + 1, "--user");
    }
    return words;
}

}  // namespace

std::vector<std::string> HookProcess::environment() {
    std::vector<std::string> kept;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string_view text = *variable;
        if (std::ranges::none_of(kOwnVariables,
                                 [text](std::string_view own) { return text.starts_with(own); })) {
            kept.emplace_back(text);
        }
    }
    return kept;
}

HookProcess::~HookProcess() {
    if (is_running()) {
        kill();
        finish();
    }
}

int HookProcess::start(const std::string& hook, const std::string& event, const std::string& value,
                       std::vector<std::string> environment) {
    const Attributes attributes;
    const Descriptors descriptors;
    std::vector<std::string> words = words_for(hook, value);
    environment.push_back("NUVIO_EVENT=" + event);
    environment.push_back("NUVIO_VALUE=" + value);
    const int error =
        ::posix_spawnp(&m_pid, words.front().c_str(), descriptors.get(), attributes.get(),
                       pointers_to(words).data(), pointers_to(environment).data());
    if (error != 0) {
        m_pid = 0;
        return error;
    }
    offer_to_the_oom_killer(m_pid);
    m_ended = UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0)));
    if (!m_ended) {
        const int unwatched = errno;
        kill();
        finish();
        return unwatched;
    }
    return 0;
}

// The group is there as long as the hook has not been waited for.
void HookProcess::kill() const {
    ::kill(-m_pid, SIGKILL);
}

int HookProcess::finish() {
    kill();
    int status = 0;
    while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = 0;
    m_ended.reset();
    return status;
}

}  // namespace nuvio::host
