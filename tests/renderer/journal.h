// What the renderer did to its surroundings, in order, one line a call: "sdk ..." (calls of the
// SDK), "host ..." (host hooks), "sink ..." (the fake sink).
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace journal {

// What the host hook answers when the renderer asks for the output.
inline bool host_allows_source = true;

inline std::vector<std::string> g_lines;

inline void add(const std::string& line) {
    g_lines.push_back(line);
}

// What was added since the last call.
inline std::vector<std::string> take() {
    return std::exchange(g_lines, {});
}

}  // namespace journal
