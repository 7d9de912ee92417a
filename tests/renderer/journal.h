// What the renderer did to its surroundings, in order, one line a call: "sdk ..." (calls of the
// SDK), "host ..." (host hooks), "sink ..." (the fake sink).
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace journal {

// What the host hook answers when the renderer asks for the output.
inline bool host_allows_source = true;

using Observer = std::function<void(const std::string& line)>;

inline std::vector<std::string> g_lines;
inline Observer g_observer;  // called with each line that is added

inline void observe(Observer observer) {
    g_observer = std::move(observer);
}

inline void add(const std::string& line) {
    g_lines.push_back(line);
    if (g_observer) {
        g_observer(line);
    }
}

// What was added since the last call.
inline std::vector<std::string> take() {
    return std::exchange(g_lines, {});
}

}  // namespace journal
