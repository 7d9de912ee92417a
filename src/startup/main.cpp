// nuvio-connect: command line, log set-up, then the service.
#include <fcntl.h>
#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "common/options/options.h"
#include "diagnostics/device_list.h"
#include "diagnostics/self_check.h"
#include "diagnostics/service_report.h"
#include "diagnostics/sound_setup.h"
#include "startup/service.h"

namespace {

constexpr char kProgram[] = "nuvio-connect";
constexpr char kHead[] =
    "Usage: nuvio-connect [--setup [--card NAME] | --check [--json] | --list-devices | --help |\n"
    "                     --version]\n"
    "\n"
    "Makes this device a Nuvio Connect renderer: controllers on the local network\n"
    "discover it and play on it. Runs until SIGTERM or SIGINT.\n"
    "\n";
constexpr char kTail[] =
    "\n"
    "Environment:\n"
    "  NUVIO_LOG_STDERR  when set, system-log lines go to standard error too, as they\n"
    "                    do on a terminal\n"
    "\n"
    "See nuvio-connect(8) and nuvio-connect-settings(5).\n";

// What the command line asks for; nothing: to serve.
struct Asked {
    bool setUp = false;
    std::optional<std::string> card;
    bool check = false;
    bool json = false;
    bool listDevices = false;
};

nuvio::CommandLine commandLine(Asked& asked) {
    const auto flag = [](bool& set) { return [&set](const std::string&) { return set = true; }; };
    const auto setCard = [&asked](const std::string& name) {
        asked.card = name;
        return true;
    };
    return {
        kProgram,
        NUVIO_VERSION,
        kHead,
        kTail,
        {{"setup", "", "make an output that plays right on the sound card, set it, and check",
          flag(asked.setUp)},
         {"card", "NAME", "with --setup: on which card, where there are several", setCard},
         {"check", "",
          "say whether this machine has what the service needs, and what to do\n"
          "where it lacks something; exit status 0 when all is well",
          flag(asked.check)},
         {"json", "", "with --check: as one line of JSON", flag(asked.json)},
         {"list-devices", "", "show the sound devices and mixer elements there are to choose from",
          flag(asked.listDevices)}}};
}

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

// What is wrong with the settings file is said by whoever reads it.
int check(bool asJson) {
    openSystemLog(SystemLog::onStderrToo);
    return asJson ? runSelfCheckForPrograms() : runSelfCheck();
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
    Asked asked;
    if (const auto status = nuvio::parse_options(commandLine(asked), argc, argv)) {
        return *status;
    }
    if (asked.setUp + asked.check + asked.listDevices > 1) {
        return nuvio::refuse_use(kProgram, "one of --setup, --check and --list-devices at a time");
    }
    if (asked.card && !asked.setUp) {
        return nuvio::refuse_use(kProgram, "--card goes with --setup only");
    }
    if (asked.json && !asked.check) {
        return nuvio::refuse_use(kProgram, "--json goes with --check only");
    }
    return asked.setUp         ? setUpSound(asked.card.value_or(""))
           : asked.check       ? check(asked.json)
           : asked.listDevices ? listDevices()
                               : serve();
}
