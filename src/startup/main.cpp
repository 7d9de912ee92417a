// nuvio-connect: command line, log set-up, then the service.
#include <fcntl.h>
#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "common/options/options.h"
#include "common/utf8.h"
#include "diagnostics/device_list.h"
#include "diagnostics/self_check.h"
#include "diagnostics/sound_setup.h"
#include "startup/service.h"
#include "startup/service_report.h"

namespace {

constexpr char kWhat[] =
    "Usage: nuvio-connect [OPTION...]\n"
    "\n"
    "Makes this device a Nuvio Connect renderer: controllers on the local network\n"
    "discover it and play on it. Runs until SIGTERM or SIGINT.\n"
    "\n";

constexpr std::array kOptions = {
    nuvio::Option{"setup", nullptr,
                  "make an output that plays right on the sound card, set it, and\n"
                  "check"},
    nuvio::Option{"card", "NAME", "with --setup: on which one, where there are several"},
    nuvio::Option{"check", nullptr,
                  "say whether this machine has what the service needs, and what\n"
                  "to do where it lacks it; exit status 0 when all is well"},
    nuvio::Option{"json", nullptr, "with --check: as one line of JSON"},
    nuvio::Option{"list-devices", nullptr,
                  "show the sound devices and mixer elements there are to choose from"},
    nuvio::Option{"help", nullptr, "show this text"},
    nuvio::Option{"version", nullptr, "show the version"},
};

constexpr char kMore[] =
    "\n"
    "Environment:\n"
    "  NUVIO_LOG_STDERR  when set, system-log lines go to standard error too, as they\n"
    "                    do on a terminal\n"
    "\n"
    "See nuvio-connect(8) and nuvio-connect-settings(5).\n";

enum class SystemLog { asEnvironmentSays, onStderrToo };

void openSystemLog(SystemLog way) {
    const bool onStderr = way == SystemLog::onStderrToo ||
                          std::getenv("NUVIO_LOG_STDERR") != nullptr || isatty(STDERR_FILENO) == 1;
    openlog("nuvio-connect", LOG_PID | (onStderr ? LOG_PERROR : 0), LOG_DAEMON);
}

// A block of this size and more comes from the system and goes back to it at once. glibc would
// begin so too, but raise the limit with each block that is freed, to the size of a track's
// read-ahead: then those blocks and what lies around them stay with the threads' heaps, a few MB
// with each. Of heaps there would be eight a core, and what one has free no other can use; the
// loop's thread asks for memory too seldom to stand in another one's way.
void giveBackMemory() {
#ifdef M_MMAP_THRESHOLD
    constexpr int kGivenBackBytes = 128 * 1024;
    mallopt(M_MMAP_THRESHOLD, kGivenBackBytes);
#endif
#ifdef M_ARENA_MAX
    constexpr int kHeaps = 2;
    mallopt(M_ARENA_MAX, kHeaps);
#endif
}

int serve() {
    giveBackMemory();
    // A reader of a pipe or the journal sees each line at once.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    openSystemLog(SystemLog::asEnvironmentSays);
    offerServiceReport();
    return runService();
}

std::string usage() {
    return kWhat + nuvio::describe_options(kOptions) + kMore;
}

int refuse(const std::string& why) {
    std::fprintf(stderr, "nuvio-connect: %s\n\n%s", nuvio::printable(why).c_str(), usage().c_str());
    return nuvio::kUsageError;
}

// What is wrong with the settings file is said by whoever reads it.
int check(const nuvio::GivenOptions& given) {
    openSystemLog(SystemLog::onStderrToo);
    return given.has("json") ? run_self_check_for_programs() : run_self_check();
}

int setUp(const nuvio::GivenOptions& given) {
    return set_up_sound(given.value_of("card"));
}

int list(const nuvio::GivenOptions&) {
    return list_devices();
}

int showHelp(const nuvio::GivenOptions&) {
    return std::fputs(usage().c_str(), stdout) < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

int showVersion(const nuvio::GivenOptions&) {
    return std::puts("nuvio-connect " NUVIO_VERSION) < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

struct Task {
    const char* name;
    const char* with;                              // the option that goes with it
    int (*run)(const nuvio::GivenOptions& given);  // the exit status
};

constexpr std::array kTasks = {
    Task{"setup", "card", setUp}, Task{"check", "json", check},     Task{"list-devices", "", list},
    Task{"help", "", showHelp},   Task{"version", "", showVersion},
};

int run(const nuvio::GivenOptions& given) {
    const auto* const task =
        std::ranges::find_if(kTasks, [&](const Task& each) { return given.has(each.name); });
    for (const nuvio::GivenOption& each : given.options) {
        const std::string_view name = each.name;
        if (task == kTasks.end() || (name != task->name && name != task->with)) {
            return refuse(std::string("--") + each.name + " does not go with " +
                          (task == kTasks.end() ? "the service" : "--" + std::string(task->name)));
        }
    }
    return task->run(given);
}

// Started without them, their numbers would go to the loop and to sockets, and log lines into
// those.
void keepStandardDescriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

}  // namespace

int main(int argc, char** argv) {
    keepStandardDescriptors();
    if (argc < 2) {
        return serve();
    }
    const nuvio::GivenOptions given =
        nuvio::read_options(kOptions, {argv + 1, argv + argc}, nuvio::Words::refused);
    return given.failure.empty() ? run(given) : refuse(given.failure);
}
