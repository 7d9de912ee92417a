#include "common/options/options.h"

#include <getopt.h>

#include <algorithm>
#include <string_view>

namespace nuvio {

namespace {

constexpr int kFirst = 256;  // of a row of the table, beyond every character

std::vector<option> for_getopt(std::span<const Option> table) {
    std::vector<option> all;
    for (const Option& row : table) {
        all.push_back({row.name, row.value == nullptr ? no_argument : required_argument, nullptr,
                       kFirst + static_cast<int>(all.size())});
    }
    all.push_back({});
    return all;
}

std::string head_of(const Option& row) {
    return "  --" + std::string(row.name) + (row.value == nullptr ? "" : " ") +
           (row.value == nullptr ? "" : row.value);
}

// getopt takes the beginning of a name for it.
bool is_whole(const std::string& argument, const Option& row) {
    const std::string_view word(argument);
    return word.substr(0, word.find('=')) == "--" + std::string(row.name);
}

std::string what_is_wrong(std::span<const Option> table, const std::string& argument, bool lacks) {
    const auto row =
        std::ranges::find_if(table, [&](const Option& each) { return is_whole(argument, each); });
    if (row == table.end()) {
        return "unknown option '" + argument + "'";
    }
    return "--" + std::string(row->name) + (lacks ? " needs a " : " takes no value") +
           (lacks ? row->value : "");
}

}  // namespace

bool GivenOptions::has(const char* name) const {
    return std::ranges::any_of(
        options, [&](const GivenOption& each) { return std::string_view(each.name) == name; });
}

std::string GivenOptions::value_of(const char* name, const std::string& otherwise) const {
    std::string value = otherwise;
    for (const GivenOption& each : options) {
        value = std::string_view(each.name) == name ? each.value : value;
    }
    return value;
}

GivenOptions read_options(std::span<const Option> table, const std::vector<std::string>& arguments,
                          Words words) {
    std::vector<std::string> texts = {""};  // the program's name
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    const std::vector<option> known = for_getopt(table);
    GivenOptions given;
    optind = 0;  // anew
    opterr = 0;
    for (int at = 1;;) {
        // "-": words in their places; ":": a value that is missing is told apart.
        const int found = getopt_long(static_cast<int>(texts.size()), pointers.data(),
                                      "-:", known.data(), nullptr);
        if (found == -1) {
            break;
        }
        const std::string& argument = arguments[static_cast<size_t>(at) - 1];
        at = optind;
        if (found == 1) {
            given.words.emplace_back(optarg);
            continue;
        }
        const Option* const row =
            found < kFirst ? nullptr : &table[static_cast<size_t>(found - kFirst)];
        if (row == nullptr || !is_whole(argument, *row)) {
            given.failure = what_is_wrong(table, argument, found == ':');
            return given;
        }
        given.options.push_back({row->name, optarg == nullptr ? "" : optarg});
    }
    given.words.insert(given.words.end(), pointers.begin() + optind, pointers.end() - 1);
    if (words == Words::refused && !given.words.empty()) {
        given.failure = "unknown word '" + given.words.front() + "'";
    }
    return given;
}

std::string describe_options(std::span<const Option> table) {
    size_t width = 0;
    for (const Option& row : table) {
        width = std::max(width, head_of(row).size());
    }
    std::string all;
    for (const Option& row : table) {
        std::string head = head_of(row);
        for (std::string_view text = row.text; !text.empty();) {
            const size_t end = std::min(text.find('\n'), text.size());
            head.resize(width + 2, ' ');
            all += head.append(text.substr(0, end)) + "\n";
            text.remove_prefix(std::min(end + 1, text.size()));
            head.clear();
        }
    }
    return all;
}

}  // namespace nuvio
