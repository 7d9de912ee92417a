// nuvio-connect: command line, log set-up, then the service.
#include <fcntl.h>
#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "diagnostics/device_list.h"
#include "diagnostics/self_check.h"
#include "diagnostics/sound_setup.h"
#include "startup/service.h"
#include "startup/service_report.h"

namespace {

constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "Usage: nuvio-connect [--setup [--card NAME] | --check [--json] | --list-devices | --help |\n"
    "                     --version]\n"
    "\n"
    "Makes this device a Nuvio Connect renderer: controllers on the local network\n"
    "discover it and play on it. Runs until SIGTERM or SIGINT.\n"
    "\n"
    "  --setup         make an output that plays right on the sound card, set it, and check;\n"
    "                  --card NAME says on which one, where there are several\n"
    "  --check         say whether this machine has what the service needs, and what\n"
    "                  to do where it has not; exit status 0 when all is well; with\n"
    "                  --json as one line of JSON\n"
    "  --list-devices  show the sound devices and mixer elements there are to choose from\n"
    "  --help          show this text\n"
    "  --version       show the version\n"
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
// with each.
void giveBackMemory() {
#ifdef M_MMAP_THRESHOLD
    constexpr int kGivenBackBytes = 128 * 1024;
    mallopt(M_MMAP_THRESHOLD, kGivenBackBytes);
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

int refuse(const char* argument) {
    std::fprintf(stderr, "nuvio-connect: unknown option '%s'\n\n%s", argument, kUsage);
    return kUsageError;
}

// Without words behind it, or with "--json". What is wrong with the settings file is said by
// whoever reads it.
int check(int count, char** words) {
    if (count > 1 || (count == 1 && std::string_view(words[0]) != "--json")) {
        return refuse(words[count - 1]);
    }
    openSystemLog(SystemLog::onStderrToo);
    return count == 1 ? run_self_check_for_programs() : run_self_check();
}

// Without words behind it, or with "--card NAME".
int setUp(int count, char** words) {
    if (count != 0 && (count != 2 || std::string_view(words[0]) != "--card")) {
        return refuse(words[0]);
    }
    return set_up_sound(count == 0 ? "" : words[1]);
}

int showHelp() {
    return std::fputs(kUsage, stdout) < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

int showVersion() {
    return std::puts("nuvio-connect " NUVIO_VERSION) < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

struct Option {
    std::string_view name;
    int (*run)();  // the exit status
};

constexpr std::array kOptions = {
    Option{"--list-devices", list_devices},
    Option{"--help", showHelp},
    Option{"--version", showVersion},
};

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
    if (std::string_view(argv[1]) == "--setup") {
        return setUp(argc - 2, argv + 2);
    }
    if (std::string_view(argv[1]) == "--check") {
        return check(argc - 2, argv + 2);
    }
    const auto option = std::ranges::find(kOptions, argv[1], &Option::name);
    if (option == kOptions.end()) {
        return refuse(argv[1]);
    }
    return argc > 2 ? refuse(argv[2]) : option->run();
}
