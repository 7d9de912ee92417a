#include "common/options/options.h"

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace nuvio {

namespace {

constexpr int kUsageError = 2;
constexpr int kFirst = 256;  // the first option's number; above every character
constexpr int kWord = 1;     // getopt_long's, for a word that is no option

std::vector<Option> all_options(const CommandLine& line) {
    std::vector<Option> all = line.options;
    all.push_back({"help", "", "show this text", nullptr});
    if (!line.version.empty()) {
        all.push_back({"version", "", "show the version", nullptr});
    }
    return all;
}

std::string left_column(const Option& option) {
    return "  --" + option.name + (option.value.empty() ? "" : " " + option.value) + "  ";
}

int show(const std::string& text) {
    return std::fputs(text.c_str(), stdout) < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

std::string quoted(const std::string& word) {
    return "'" + word + "'";
}

}  // namespace

std::string options_text(const CommandLine& line) {
    const std::vector<Option> all = all_options(line);
    size_t width = 0;
    for (const Option& option : all) {
        width = std::max(width, left_column(option).size());
    }
    std::string result;
    for (const Option& option : all) {
        std::string left = left_column(option);
        size_t begin = 0;
        while (begin != std::string::npos) {
            const size_t end = option.text.find('\n', begin);
            left.resize(width, ' ');
            result += left + option.text.substr(begin, end - begin) + "\n";
            left.clear();
            begin = end == std::string::npos ? end : end + 1;
        }
    }
    return result;
}

int refuse_use(const std::string& program, const std::string& what) {
    std::fprintf(stderr, "%s: %s; see %s --help\n", program.c_str(), what.c_str(), program.c_str());
    return kUsageError;
}

std::optional<int> parse_options(const CommandLine& line, std::vector<std::string> words) {
    const std::vector<Option> all = all_options(line);
    std::vector<option> known;
    known.reserve(all.size() + 1);
    for (const Option& each : all) {
        known.push_back({each.name.c_str(), each.value.empty() ? no_argument : required_argument,
                         nullptr, kFirst + static_cast<int>(known.size())});
    }
    known.push_back({});
    words.insert(words.begin(), line.program);
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const int argc = static_cast<int>(words.size());
    const auto refuse_word = [&](const std::string& word) {
        return refuse_use(line.program, "unknown option " + quoted(word));
    };
    const auto takes_word = [&](const std::string& word) {
        return line.take_word && line.take_word(word);
    };
    optind = 0;  // glibc begins anew
    // '-': words that are no option come in their place. ':': this function says what is wrong.
    for (int found; (found = getopt_long(argc, argv.data(), "-:", known.data(), nullptr)) != -1;) {
        const std::string value = optarg != nullptr ? optarg : "";
        if (found == kWord) {
            if (!takes_word(value)) {
                return refuse_word(value);
            }
            continue;
        }
        if (found == '?') {
            const bool is_letter = optopt > 0 && optopt < kFirst;
            return refuse_word(is_letter ? std::string("-") + static_cast<char>(optopt)
                                         : words[static_cast<size_t>(optind - 1)]);
        }
        if (found == ':') {
            return refuse_use(line.program,
                              "no value for " + quoted(words[static_cast<size_t>(optind - 1)]));
        }
        const Option& option = all[static_cast<size_t>(found - kFirst)];
        if (option.take) {
            if (!option.take(value)) {
                return refuse_use(line.program,
                                  quoted(value) + " is not a value for --" + option.name);
            }
        } else if (option.name == "help") {
            return show(line.head + options_text(line) + line.tail);
        } else {
            return show(line.program + " " + line.version + "\n");
        }
    }
    for (auto i = static_cast<size_t>(optind); i < words.size(); ++i) {  // behind "--"
        if (!takes_word(words[i])) {
            return refuse_word(words[i]);
        }
    }
    return std::nullopt;
}

std::optional<int> parse_options(const CommandLine& line, int argc, char** argv) {
    return parse_options(line, std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
}

}  // namespace nuvio
