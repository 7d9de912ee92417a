// nuvio-connect-conformance: whether a core or a host does what the service asks of it.
#include <dlfcn.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "common/number.h"
#include "conformance/report.h"

namespace {

using nuvio::kit::Options;
using nuvio::kit::Report;
using nuvio::kit::Verdict;

constexpr int kUsageError = 2;
constexpr char kUsage[] =
    "usage: nuvio-connect-conformance --core LIBRARY | --host LIBRARY [OPTIONS]\n"
    "\n"
    "Runs what the service asks of a core (sdk/nuvio_connect.h) or of a host (platform/*.h)\n"
    "against the library and prints a line a rule: ok, FAIL, or - where it did not come to it.\n"
    "Exit status 0 when none fails.\n"
    "\n"
    "  --endpoint WHAT  what the core's sessions name as their content, three tracks or more of\n"
    "                   some seconds; default: a folder of three WAV files, made for the run\n"
    "  --patience S     how long to wait for what is to come (10)\n"
    "  --all            a rule that was not come to counts as one that fails\n";

struct Arguments {
    std::string module;
    std::string library;
    Options options;
    bool all = false;
};

std::optional<Arguments> parse(int argc, char** argv) {
    Arguments result;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--all") {
            result.all = true;
            continue;
        }
        const char* const value = ++i < argc ? argv[i] : nullptr;
        if (value == nullptr) {
            return std::nullopt;
        }
        if ((word == "--core" || word == "--host") && result.library.empty()) {
            result.module = word == "--core" ? "nuvio_core_rules.so" : "nuvio_host_rules.so";
            result.library = value;
        } else if (word == "--endpoint") {
            result.options.endpoint = value;
        } else if (const auto seconds = nuvio::to_number<unsigned>(value);
                   word == "--patience" && seconds && *seconds > 0) {
            result.options.patience_s = *seconds;
        } else {
            return std::nullopt;
        }
    }
    return result.library.empty() ? std::nullopt : std::optional(result);
}

Report g_report;

void write_all(const char* text) {
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text, std::strlen(text));
}

// Only what a signal handler may call.
void fail_in_the_rules_name(int signal) {
    write_all("FAIL  ");
    write_all(g_report.rule());
    write_all(signal == SIGALRM ? "  the library does not come back\n" : "  the library crashed\n");
    _exit(EXIT_FAILURE);
}

// As the service does it: the signals that end a process wait for the host.
void set_up_signals() {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    sigaddset(&end, SIGINT);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    for (const int signal : {SIGALRM, SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
        std::signal(signal, fail_in_the_rules_name);
    }
    std::signal(SIGPIPE, SIG_IGN);
}

// Where this program's modules are, seen from its own folder: installed, and as built. The loader's
// own search is not the same under every sanitizer.
std::string path_of(const std::string& module) {
    const auto here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const auto installed = here / NUVIO_MODULES_DIR / module;
    return std::filesystem::exists(installed) ? installed : here / "../lib" / module;
}

// Null, and a line, when the library does not fit: the module's open symbols are the interface.
nuvio::kit::RulesFunction load(const Arguments& arguments) {
    const std::string path = arguments.library.find('/') == std::string::npos
                                 ? "./" + arguments.library
                                 : arguments.library;
    void* module = nullptr;
    if (dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL) != nullptr) {
        module = dlopen(path_of(arguments.module).c_str(), RTLD_NOW | RTLD_LOCAL);
    }
    void* const function = module == nullptr ? nullptr : dlsym(module, nuvio::kit::kRulesFunction);
    if (function == nullptr) {
        g_report.line("load", Verdict::broken, dlerror());
        return nullptr;
    }
    g_report.line("load", Verdict::holds, "everything that the service calls is there");
    return reinterpret_cast<nuvio::kit::RulesFunction>(function);
}

}  // namespace

int main(int argc, char** argv) {
    const auto arguments = parse(argc, argv);
    if (!arguments) {
        std::fputs(kUsage, argc == 2 && std::string_view(argv[1]) == "--help" ? stdout : stderr);
        return argc == 2 && std::string_view(argv[1]) == "--help" ? EXIT_SUCCESS : kUsageError;
    }
    set_up_signals();
    if (const auto check_rules = load(*arguments)) {
        check_rules(g_report, arguments->options);
    }
    alarm(0);
    std::printf("%d rules fail, %d not come to\n", g_report.broken(), g_report.unseen());
    std::fflush(stdout);
    const bool holds = g_report.broken() == 0 && !(arguments->all && g_report.unseen() != 0);
    if (!holds) {
        std::_Exit(EXIT_FAILURE);  // the library may not be able to end either
    }
    return EXIT_SUCCESS;
}
