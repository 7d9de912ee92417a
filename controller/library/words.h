// How the library is searched: what stands in the index for a text, and what is asked of the index.
// The index itself (FTS5's unicode61) takes case and accents away.
//
// Threads  pure functions, any thread; texts may be any bytes.
#pragma once

#include <string>
#include <string_view>

namespace nuvio::controller {

// Letters that are no letter with an accent as those that people type for them ("ß" as "ss"), and
// each character of Chinese, Japanese and Korean a word of its own, as these have no spaces.
std::string folded(std::string_view text);

// A title as one word, by which one that is, or begins with, just what is asked for is told.
std::string as_one_word(std::string_view title);

// What is asked for, best first: each finds what the next one finds, and fewer.
struct Grades {
    static constexpr size_t kCount = 4;
    // In FTS5's language: the whole title, a title's beginning, words of a title, beginnings of
    // words anywhere. All are empty where the text has no words. The columns of the index: `whole`,
    // the title as one word, `title`, and any others.
    std::string match[kCount];

    bool is_empty() const { return match[0].empty(); }
    const std::string& widest() const { return match[kCount - 1]; }
};

// "don't stop" asks for "don", "t" and "stop": what is no letter or digit separates. The first 200
// bytes and eight words count.
Grades grades_of(std::string_view text);

// Whether each word of `text` is the beginning of one of the name's, for what no index holds; case
// of ASCII letters does not count. None where the text has no words.
bool has_words(std::string_view name, std::string_view text);

}  // namespace nuvio::controller
