// Keeps a line that repeats without end out of the log: of lines that are equal in level, category
// and message the first ten within a second pass. Those beyond are counted, and the count follows
// as one line with the first line that comes after the second, whatever it says (so it is lost when
// the process ends before another comes). While the flood goes on, one line and one count pass in
// each further stretch of 2, 4, 8 ... 60 seconds.
//
// Remembers the last 16 different lines, so that calls that fail in turn are held back too. Nothing
// is allocated, and no timer runs. One thread at a time.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

class repeat_filter {
  public:
    using clock = std::chrono::steady_clock;

    static constexpr uint32_t kPassing = 10;  // equal lines in a stretch of a second
    static constexpr std::chrono::seconds kFirstStretch{1};
    static constexpr std::chrono::seconds kLongestStretch{60};

    // What was held back of one line. The texts belong to the filter and hold until its next call.
    struct count {
        uint32_t level;
        const char* category;  // cut to 63 bytes
        const char* message;   // cut to 255 bytes
        uint64_t lines;
    };

    // Calls `report` for each count that is due. Before each line, whether it asks for admission or
    // not.
    template <typename Report>
    void report_due(clock::time_point now, Report report) {
        for (entry& known : m_entries) {
            if (known.in_use && now >= known.end) {
                report_held_back(known, report);
                known.next_stretch(now);
            }
        }
    }

    // Whether the line is to be written. Calls `report` where its place was another's with a count.
    template <typename Report>
    bool admit(clock::time_point now, uint32_t level, std::string_view category,
               std::string_view message, Report report) {
        const uint64_t key = key_of(level, category, message);
        entry* line = find(key);
        if (line == nullptr) {
            line = &place_for_another();
            report_held_back(*line, report);
            line->start(now, key, level, category, message);
        }
        return line->admit();
    }

  private:
    struct entry {
        bool in_use = false;
        uint64_t key = 0;
        uint32_t level = 0;
        uint32_t may_pass = 0;   // in this stretch
        uint64_t held_back = 0;  // in this stretch
        std::chrono::seconds stretch{};
        clock::time_point end;
        std::array<char, 64> category{};
        std::array<char, 256> message{};

        void start(clock::time_point now, uint64_t new_key, uint32_t new_level,
                   std::string_view new_category, std::string_view new_message);
        void next_stretch(clock::time_point now);
        bool admit();
    };

    template <typename Report>
    static void report_held_back(const entry& line, Report report) {
        if (line.in_use && line.held_back > 0) {
            report(count{line.level, line.category.data(), line.message.data(), line.held_back});
        }
    }

    static uint64_t key_of(uint32_t level, std::string_view category, std::string_view message);
    entry* find(uint64_t key);
    entry& place_for_another();

    std::array<entry, 16> m_entries{};
};
