// nuvio-connect: command line, log set-up, then the service.
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "startup/service.h"

namespace {

constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "Usage: nuvio-connect [--help | --version]\n"
    "\n"
    "Makes this device a Nuvio Connect renderer: controllers on the local network\n"
    "discover it and play on it. Runs until SIGTERM or SIGINT.\n"
    "\n"
    "  --help     show this text\n"
    "  --version  show the version\n"
    "\n"
    "Environment:\n"
    "  NUVIO_LOG_STDERR  when set, system-log lines go to standard error too\n";

// The exit status, where the command line asks for something else than the service.
int handleArgument(std::string_view argument) {
    if (argument == "--help") {
        std::fputs(kUsage, stdout);
        return EXIT_SUCCESS;
    }
    if (argument == "--version") {
        std::puts("nuvio-connect " NUVIO_VERSION);
        return EXIT_SUCCESS;
    }
    std::fprintf(stderr, "nuvio-connect: unknown option '%.*s'\n\n%s",
                 static_cast<int>(argument.size()), argument.data(), kUsage);
    return kUsageError;
}

void openSystemLog() {
    const bool alsoToStderr = std::getenv("NUVIO_LOG_STDERR") != nullptr;
    openlog("nuvio-connect", LOG_PID | (alsoToStderr ? LOG_PERROR : 0), LOG_DAEMON);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        return handleArgument(argv[1]);
    }
    // A reader of a pipe or the journal sees each line at once.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    openSystemLog();
    return runService();
}
