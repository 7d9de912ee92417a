// A program's command line as one table: what it is parsed by, and what --help shows of it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace nuvio {

struct Option {
    std::string name;   // without the dashes
    std::string value;  // what --help calls its value; empty: it takes none
    std::string text;   // for --help; may have several lines
    // Given the value, or "". False where that is no value for it.
    std::function<bool(const std::string& value)> take;
};

struct CommandLine {
    std::string program;
    std::string version;  // what --version shows; empty: there is no such option
    std::string head;     // of --help, up to the list of options
    std::string tail;     // what stands behind the list
    std::vector<Option> options;
    // For a word that is no option; null, or false: there is none to be here.
    std::function<bool(const std::string& word)> take_word = nullptr;
};

// The list of options as --help shows it, --help and --version among them.
std::string options_text(const CommandLine& line);

// Hands every option of the words to its `take`, in their order. Returns the status with which the
// program is to end: success once --help or --version has been shown, 2 after a word that it does
// not know, an option without its value, or a value that is none (named on standard error). Nothing
// where the program is to go on. Not thread-safe, as getopt_long is not.
std::optional<int> parse_options(const CommandLine& line, std::vector<std::string> words);
// Of a program's own command line.
std::optional<int> parse_options(const CommandLine& line, int argc, char** argv);

// Says what is wrong with the command line, and where it is explained; returns 2.
int refuse_use(const std::string& program, const std::string& what);

}  // namespace nuvio
