// The options of a program, as one table: what it takes, and what --help says of it; its shell
// completion reads the words there. The main thread's.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace nuvio {

inline constexpr int kUsageError = 2;  // exit status

struct Option {
    const char* name;   // without its dashes, as it is written: no abbreviations
    const char* value;  // what stands behind it, in capitals; null: nothing
    const char* text;   // for people, in lines of at most 70 characters
};

struct GivenOption {
    const char* name;   // the table's
    std::string value;  // "" without one
};

struct GivenOptions {
    std::vector<GivenOption> options;  // in their order; one may come again
    std::vector<std::string> words;    // what is no option
    std::string failure;               // what is wrong, for people; empty: nothing

    bool has(const char* name) const;
    // The last one's; `otherwise` where it was not given.
    std::string value_of(const char* name, const std::string& otherwise = {}) const;
};

// Reads what follows the program's name: "--name VALUE", "--name=VALUE", "--" before words that
// look like options. `words` may come where they are taken; else one is a failure that names it.
enum class Words { taken, refused };
GivenOptions read_options(std::span<const Option> table, const std::vector<std::string>& arguments,
                          Words words);

// A line or more an option: "  --name VALUE  text".
std::string describe_options(std::span<const Option> table);

}  // namespace nuvio
