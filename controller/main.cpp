// nuvio-connect-controller: `serve` is the service, everything else a command.
#include <cstdio>
#include <string>
#include <vector>

#include "controller/base/settings.h"
#include "controller/command_line/command_line.h"
#include "controller/serve.h"

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const std::string first = words.empty() ? "" : words[0];
    if (first == "--help" || first == "-h" || first == "help") {
        std::fputs(nuvio::controller::command_help().c_str(), stdout);
        return 0;
    }
    if (first == "--version") {
        std::printf("nuvio-connect-controller %s\n", NUVIO_VERSION);
        return 0;
    }
    if (first != "serve") {
        return nuvio::controller::run_command(words);
    }
    nuvio::controller::Settings settings;
    if (const auto status =
            nuvio::controller::read_settings({words.begin() + 1, words.end()}, &settings)) {
        return *status;
    }
    return nuvio::controller::serve(settings);
}
