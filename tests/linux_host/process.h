// Child processes of the system tests: their lines, read with patience, and their end.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

// Slower than any machine's noise; only a failing test waits that long.
constexpr std::chrono::seconds kPatience{20};

// True as soon as the condition holds.
template <typename Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

class Process {
  public:
    // Variables ("NAME=value") replace the caller's of the same name.
    Process(const std::vector<std::string>& command, const std::vector<std::string>& variables) {
        int in[2];
        int out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
            return;
        }
        m_in = in[1];
        m_out = out[0];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        std::vector<std::string> arguments = {"env"};
        arguments.insert(arguments.end(), variables.begin(), variables.end());
        arguments.insert(arguments.end(), command.begin(), command.end());
        std::vector<char*> pointers;
        pointers.reserve(arguments.size() + 1);
        for (std::string& argument : arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        if (::posix_spawnp(&m_pid, "env", &actions, nullptr, pointers.data(), environ) != 0) {
            m_pid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
    }
    ~Process() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            wait();
        }
        close_input();
        ::close(m_out);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return m_pid; }
    void signal(int number) const { ::kill(m_pid, number); }
    void say(const std::string& line) const {
        const std::string text = line + "\n";
        if (::write(m_in, text.data(), text.size()) < 0) {
            perror("write");
        }
    }
    void close_input() {
        if (m_in >= 0) {
            ::close(m_in);
            m_in = -1;
        }
    }
    // Exit status; 128 and the signal's number when one ended it.
    int wait() {
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // The next line; empty, after a while, when none comes.
    std::string next_line() {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        size_t length = 0;
        while ((length = m_text.find('\n')) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !read_some(static_cast<int>(left.count()))) {
                return "";
            }
        }
        std::string line = m_text.substr(0, length);
        m_text.erase(0, length + 1);
        return line;
    }
    // Skips lines until one contains the text; false when none does.
    bool skip_to(const std::string& text) {
        for (std::string line = next_line(); !line.empty(); line = next_line()) {
            if (line.find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

  private:
    bool read_some(int timeout_ms) {
        pollfd descriptor = {m_out, POLLIN, 0};
        char buffer[4096];
        if (::poll(&descriptor, 1, timeout_ms) <= 0) {
            return false;
        }
        const ssize_t count = ::read(m_out, buffer, sizeof buffer);
        m_text.append(buffer, static_cast<size_t>(std::max<ssize_t>(count, 0)));
        return count > 0;
    }

    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    std::string m_text;
};

struct Result {
    int status = -1;
    std::string output;  // standard output and error, without the last line end
};

// Runs a shell command to its end.
inline Result run(const std::string& command) {
    Result result;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    char buffer[4096];
    for (size_t count = 0; (count = ::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        result.output.append(buffer, count);
    }
    const int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (result.output.ends_with('\n')) {
        result.output.pop_back();
    }
    return result;
}
