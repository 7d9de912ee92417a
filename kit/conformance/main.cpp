// nuvio-connect-conformance: whether a core or a host does what the service asks of it.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "common/number.h"
#include "common/options/options.h"
#include "common/utf8.h"
#include "conformance/report.h"

namespace {

using nuvio::kit::Options;
using nuvio::kit::Report;
using nuvio::kit::Verdict;

constexpr char kWhat[] =
    "usage: nuvio-connect-conformance --core LIBRARY | --host LIBRARY [OPTION...]\n"
    "\n"
    "Runs what the service asks of a core (sdk/nuvio_connect.h) or of a host (platform/*.h)\n"
    "against the library and prints a line a rule: ok, FAIL, or - where it did not come to it.\n"
    "Exit status 0 when none fails.\n"
    "\n";

constexpr nuvio::Option kOptions[] = {
    {"core", "LIBRARY", "implements sdk/nuvio_connect.h"},
    {"host", "LIBRARY", "implements platform/*.h"},
    {"rule", "NAME", "only this rule; may be given several times"},
    {"list", nullptr, "the names of the rules, and nothing else"},
    {"endpoint", "WHAT",
     "what the core's sessions name as their content, three tracks or more\n"
     "of some seconds; default: a folder of three WAV files, made for the run"},
    {"patience", "SECONDS", "how long to wait for what is to come (10)"},
    {"all", nullptr, "a rule that was not come to counts as one that fails"},
    {"help", nullptr, "show this text"},
};

struct Arguments {
    std::string module;
    std::string library;
    Options options;
    bool all = false;
    bool lists = false;
};

// With `failure`, for people, where the options are none that go together.
Arguments understand(const nuvio::GivenOptions& given, std::string& failure) {
    Arguments result;
    const bool is_core = given.has("core");
    result.module = is_core ? "nuvio_core_rules.so" : "nuvio_host_rules.so";
    result.library = given.value_of(is_core ? "core" : "host");
    result.all = given.has("all");
    result.options.endpoint = given.value_of("endpoint");
    result.lists = given.has("list");
    for (const nuvio::GivenOption& each : given.options) {
        if (std::string_view(each.name) == "rule") {
            result.options.rules.push_back(each.value);
        }
    }
    const auto seconds = nuvio::to_number<unsigned>(given.value_of("patience", "10"));
    result.options.patience_s = seconds.value_or(0);
    failure = !given.failure.empty()           ? given.failure
              : is_core == given.has("host")   ? "one of --core and --host"
              : result.options.patience_s == 0 ? "--patience needs whole SECONDS"
                                               : "";
    return result;
}

std::string usage() {
    return kWhat + nuvio::describe_options(kOptions);
}

int refuse(const std::string& why) {
    std::fprintf(stderr, "nuvio-connect-conformance: %s\n\n%s", nuvio::printable(why).c_str(),
                 usage().c_str());
    return nuvio::kUsageError;
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

// As for the service: those that end a process are the host's, if it takes them.
void set_up_signals() {
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
    return reinterpret_cast<nuvio::kit::RulesFunction>(function);
}

}  // namespace

int main(int argc, char** argv) {
    const nuvio::GivenOptions given =
        nuvio::read_options(kOptions, {argv + 1, argv + argc}, nuvio::Words::refused);
    if (given.has("help")) {
        std::fputs(usage().c_str(), stdout);
        return EXIT_SUCCESS;
    }
    std::string failure;
    const Arguments arguments = understand(given, failure);
    if (!failure.empty()) {
        return refuse(failure);
    }
    set_up_signals();
    if (const auto rules_of_module = load(arguments)) {
        const nuvio::kit::Rules rules = rules_of_module();
        if (arguments.lists) {
            std::ranges::for_each(rules.names,
                                  [](const std::string& name) { std::puts(name.c_str()); });
            return EXIT_SUCCESS;
        }
        for (const std::string& name : arguments.options.rules) {
            if (std::ranges::find(rules.names, name) == rules.names.end()) {
                return refuse("unknown rule '" + name + "'");
            }
        }
        if (arguments.options.wants("load")) {
            g_report.line("load", Verdict::holds, "everything that the service calls is there");
        }
        rules.check(g_report, arguments.options);
    }
    alarm(0);
    std::printf("%d rules fail, %d not come to\n", g_report.broken(), g_report.unseen());
    std::fflush(stdout);
    const bool holds = g_report.broken() == 0 && !(arguments.all && g_report.unseen() != 0);
    if (!holds) {
        std::_Exit(EXIT_FAILURE);  // the library may not be able to end either
    }
    return EXIT_SUCCESS;
}
