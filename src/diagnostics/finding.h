// One line of what `nuvio-connect --check` tells. Plain values, any thread.
#pragma once

#include <string>
#include <utility>

struct Finding {
    const char* subject;
    bool ok;
    std::string text;  // what there is, or what is wrong and what to do
};

inline Finding good(const char* subject, std::string text) {
    return {subject, true, std::move(text)};
}

inline Finding bad(const char* subject, std::string text) {
    return {subject, false, std::move(text)};
}

inline std::string quoted(const std::string& name) {
    return "'" + name + "'";
}
