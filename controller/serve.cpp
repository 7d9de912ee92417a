#include "controller/serve.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <filesystem>
#include <system_error>

#include "common/unique_fd.h"
#include "controller/base/changes.h"
#include "controller/base/log.h"
#include "controller/device/http_client.h"
#include "controller/discovery/discovery.h"
#include "controller/library/library.h"
#include "controller/session/house.h"
#include "controller/web/web_server.h"

namespace nuvio::controller {

namespace {

// Two would take each other's library for damaged. Held until the process ends; a file system that
// knows no locks keeps nobody out.
UniqueFd only_one_at(const std::string& state_folder) {
    UniqueFd folder(open(state_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder && flock(folder.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        throw std::runtime_error("another controller keeps its state in " + state_folder);
    }
    return folder;
}

void run(const Settings& settings, const sigset_t& signals) {
    const UniqueFd only_one = only_one_at(settings.state_folder);
    Changes changes;
    Library library(settings.music, settings.state_folder, [&changes] { changes.announce(); });
    House house(library, changes, settings.state_folder, settings.port);
    WebServer web(settings, library, house, changes);
    if (!web.start()) {
        throw std::runtime_error("no web server");
    }
    log_line(LogLevel::info, "The page is on port " + std::to_string(settings.port));
    {
        const Discovery discovery(
            [&house](const std::vector<FoundDevice>& found) { house.devices().set_found(found); });
        int signal = 0;
        sigwait(&signals, &signal);
        end_http();  // a device that does not answer would hold up the end
    }
    house.close();
    changes.close();
}

}  // namespace

int serve(const Settings& settings) {
    // Before any thread, so that all have it so.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    umask(0077);
    start_http();
    std::error_code error;
    std::filesystem::create_directories(settings.state_folder, error);
    if (error) {
        log_line(LogLevel::error, settings.state_folder + ": " + error.message());
        return 1;
    }
    try {
        run(settings, signals);
    } catch (const std::exception& failure) {
        log_line(LogLevel::error, std::string("Not started: ") + failure.what());
        return 1;
    }
    return 0;
}

}  // namespace nuvio::controller
