// nuvio-connect-conformance: whether a core or a host does what the service asks of it.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "common/number.h"
#include "common/options/options.h"
#include "conformance/report.h"

namespace {

using nuvio::kit::Options;
using nuvio::kit::Report;
using nuvio::kit::Verdict;

constexpr char kProgram[] = "nuvio-connect-conformance";
constexpr char kHead[] =
    "usage: nuvio-connect-conformance --core LIBRARY | --host LIBRARY [OPTIONS]\n"
    "\n"
    "Runs what the service asks of a core (sdk/nuvio_connect.h) or of a host (platform/*.h)\n"
    "against the library and prints a line a rule: ok, FAIL, or - where it did not come to it.\n"
    "Exit status 0 when none fails.\n"
    "\n";

struct Arguments {
    std::string module;
    std::string library;
    Options options;
    bool all = false;
    bool list = false;
};

nuvio::CommandLine command_line(Arguments& arguments) {
    const auto layer = [&](const char* module) {
        return [&arguments, module](const std::string& library) {
            const bool is_first = arguments.library.empty();
            arguments.module = module;
            arguments.library = library;
            return is_first && !library.empty();
        };
    };
    const auto flag = [](bool& set) { return [&set](const std::string&) { return set = true; }; };
    const auto set_patience = [&](const std::string& value) {
        arguments.options.patience_s = nuvio::to_number<unsigned>(value).value_or(0);
        return arguments.options.patience_s > 0;
    };
    const auto add_rule = [&](const std::string& name) {
        arguments.options.rules.push_back(name);
        return true;
    };
    const auto set_endpoint = [&](const std::string& value) {
        arguments.options.endpoint = value;
        return true;
    };
    return {
        kProgram,
        NUVIO_VERSION,
        kHead,
        "",
        {{"core", "LIBRARY", "a core", layer("nuvio_core_rules.so")},
         {"host", "LIBRARY", "a host", layer("nuvio_host_rules.so")},
         {"list", "", "name the rules, and look at none", flag(arguments.list)},
         {"rule", "NAME", "look at this rule alone; several times for several rules", add_rule},
         {"endpoint", "WHAT",
          "what the core's sessions name as their content, three tracks or more of\n"
          "some seconds; default: a folder of three WAV files, made for the run",
          set_endpoint},
         {"patience", "S", "how long to wait for what is to come (10)", set_patience},
         {"all", "", "a rule that was not come to counts as one that fails", flag(arguments.all)}}};
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
    return reinterpret_cast<nuvio::kit::RulesFunction>(function);
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    if (const auto status = nuvio::parse_options(command_line(arguments), argc, argv)) {
        return *status;
    }
    if (arguments.library.empty()) {
        return nuvio::refuse_use(kProgram, "--core or --host is needed");
    }
    set_up_signals();
    if (const auto rules_of_module = load(arguments)) {
        const nuvio::kit::Rules rules = rules_of_module();
        if (arguments.list) {
            for (const std::string& name : rules.names) {
                std::puts(name.c_str());
            }
            return EXIT_SUCCESS;
        }
        for (const std::string& name : arguments.options.rules) {
            if (std::find(rules.names.begin(), rules.names.end(), name) == rules.names.end()) {
                return nuvio::refuse_use(kProgram, "unknown rule '" + name + "'");
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
