#include "controller/library/words.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <vector>

#include "common/text.h"
#include "common/utf8.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxSearchBytes = 200;
constexpr size_t kMaxWords = 8;
// A character that nobody types, and that the index takes for a letter.
constexpr std::string_view kJoint = "\xEE\x80\x80";

constexpr struct {
    std::string_view letter, as;
} kLetters[] = {{"ß", "ss"}, {"ẞ", "ss"}, {"æ", "ae"}, {"Æ", "ae"}, {"œ", "oe"}, {"Œ", "oe"},
                {"ø", "o"},  {"Ø", "o"},  {"ł", "l"},  {"Ł", "l"},  {"đ", "d"},  {"Đ", "d"},
                {"ð", "d"},  {"Ð", "d"},  {"þ", "th"}, {"Þ", "th"}, {"ħ", "h"},  {"Ħ", "h"},
                {"ı", "i"},  {"ŧ", "t"},  {"Ŧ", "t"},  {"ŋ", "n"},  {"Ŋ", "n"}};

constexpr struct {
    uint32_t first, last;
} kUnspaced[] = {{0x3005, 0x3007}, {0x3041, 0x30FF}, {0x31F0, 0x31FF}, {0x3400, 0x4DBF},
                 {0x4E00, 0x9FFF}, {0xAC00, 0xD7A3}, {0xF900, 0xFAFF}, {0x20000, 0x3FFFF}};

// Of a whole character.
uint32_t number_of(std::string_view character) {
    const auto first = static_cast<uint8_t>(character[0]);
    uint32_t number = character.size() == 1 ? first : first & (0xffU >> (character.size() + 1));
    for (const char next : character.substr(1)) {
        number = number << 6U | (static_cast<uint8_t>(next) & 0x3fU);
    }
    return number;
}

bool is_unspaced(std::string_view character) {
    const uint32_t number = number_of(character);
    return std::ranges::any_of(kUnspaced, [=](const auto& range) {
        return range.first <= number && number <= range.last;
    });
}

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           static_cast<unsigned char>(c) >= 0x80;
}

// Folded.
std::vector<std::string> words_of(std::string_view text) {
    std::vector<std::string> words;
    while (true) {
        const auto* const begin = std::ranges::find_if(text, is_letter);
        const auto* const end = std::find_if_not(begin, text.end(), is_letter);
        if (begin == end) {
            return words;
        }
        std::string word = folded({begin, static_cast<size_t>(end - begin)});
        for (size_t at = word.find(kJoint); at != std::string::npos; at = word.find(kJoint)) {
            word.replace(at, kJoint.size(), " ");
        }
        words.push_back(std::move(word));
        text.remove_prefix(static_cast<size_t>(end - text.begin()));
    }
}

// "w1" AND "w2", each with `behind` it.
std::string each_of(const std::vector<std::string>& words, const char* behind) {
    std::string match;
    for (const std::string& word : words) {
        match += (match.empty() ? "\"" : " AND \"") + word + "\"" + behind;
    }
    return match;
}

// A character that stands for a word has spaces around it.
std::string joined(const std::vector<std::string>& words) {
    std::string one;
    bool is_between = false;
    for (const std::string& word : words) {
        is_between = true;
        for (const char c : word) {
            one += is_between && c != ' ' && !one.empty() ? kJoint : "";
            is_between = c == ' ';
            one += is_between ? "" : std::string(1, c);
        }
    }
    return one;
}

}  // namespace

std::string folded(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const size_t length = std::max<size_t>(1, character_length(text));
        const std::string_view character = text.substr(0, length);
        const auto* const letter =
            length > 1
                ? std::ranges::find(kLetters, character, [](const auto& row) { return row.letter; })
                : std::end(kLetters);
        if (letter != std::end(kLetters)) {
            result += letter->as;
        } else if (length > 2 && is_unspaced(character)) {
            result.append(" ").append(character).append(" ");
        } else {
            result += character;
        }
        text.remove_prefix(length);
    }
    return result;
}

std::string as_one_word(std::string_view title) {
    return joined(words_of(title));
}

Grades grades_of(std::string_view text) {
    std::vector<std::string> words = words_of(beginning(text, kMaxSearchBytes));
    words.resize(std::min(words.size(), kMaxWords));
    if (words.empty()) {
        return {};
    }
    const std::string whole = "whole : \"" + joined(words) + "\"";
    return {{whole, whole + " *", "title : (" + each_of(words, "") + ")",
             "- whole : (" + each_of(words, " *") + ")"}};
}

bool has_words(std::string_view name, std::string_view text) {
    const auto split = [](std::string_view joined_text) {
        std::vector<std::string> all;
        for (const std::string& word : words_of(beginning(joined_text, kMaxSearchBytes))) {
            std::istringstream parts(word);
            std::copy(std::istream_iterator<std::string>(parts), {}, std::back_inserter(all));
        }
        return all;
    };
    const std::vector<std::string> own = split(name);
    const std::vector<std::string> wanted = split(text);
    return !wanted.empty() && std::ranges::all_of(wanted, [&](const std::string& word) {
        return std::ranges::any_of(
            own, [&](const std::string& each) { return starts_with_ignoring_case(each, word); });
    });
}

}  // namespace nuvio::controller
