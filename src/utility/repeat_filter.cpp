#include "utility/repeat_filter.h"

#include <algorithm>
#include <tuple>

#include "common/fnv1a.h"

namespace {

// The new text, cut to the room and terminated.
template <size_t Size>
void assign(std::array<char, Size>& to, std::string_view text) {
    to[text.copy(to.data(), Size - 1)] = '\0';
}

}  // namespace

void repeat_filter::entry::start(clock::time_point now, uint64_t new_key, uint32_t new_level,
                                 std::string_view new_category, std::string_view new_message) {
    in_use = true;
    key = new_key;
    level = new_level;
    may_pass = kPassing;
    held_back = 0;
    stretch = kFirstStretch;
    end = now + stretch;
    assign(category, new_category);
    assign(message, new_message);
}

// A line that kept within its limit, or a flood that is over, is forgotten; one that goes on goes
// into a longer stretch.
void repeat_filter::entry::next_stretch(clock::time_point now) {
    in_use = held_back > 0 && now - end < stretch;
    may_pass = 1;
    held_back = 0;
    stretch = std::min(2 * stretch, kLongestStretch);
    end = now + stretch;
}

bool repeat_filter::entry::admit() {
    if (may_pass > 0) {
        may_pass--;
        return true;
    }
    held_back++;
    return false;
}

uint64_t repeat_filter::key_of(uint32_t level, std::string_view category,
                               std::string_view message) {
    const uint64_t of_level = nuvio::fnv1a(nuvio::kFnv1aStart, static_cast<uint8_t>(level));
    return nuvio::fnv1a(nuvio::fnv1a(nuvio::fnv1a(of_level, category), uint8_t{0}), message);
}

repeat_filter::entry* repeat_filter::find(uint64_t key) {
    const auto found = std::ranges::find_if(
        m_entries, [key](const entry& line) { return line.in_use && line.key == key; });
    return found == m_entries.end() ? nullptr : &*found;
}

// A free place, else that of a line that is not held back, else the one whose stretch ends first.
repeat_filter::entry& repeat_filter::place_for_another() {
    return *std::ranges::min_element(m_entries, {}, [](const entry& line) {
        return std::tuple(line.in_use, line.held_back > 0, line.end);
    });
}
