// One line of what `nuvio-connect --check` tells. Plain values, any thread.
#pragma once

#include <string>
#include <utility>

struct Finding {
    const char* subject;
    bool ok;
    bool is_doubtful;  // ok, unless things are otherwise than they seem
    std::string text;  // what there is, or what is or may be wrong and what to do
};

inline Finding good(const char* subject, std::string text) {
    return {subject, true, false, std::move(text)};
}

inline Finding doubtful(const char* subject, std::string text) {
    return {subject, true, true, std::move(text)};
}

inline Finding bad(const char* subject, std::string text) {
    return {subject, false, false, std::move(text)};
}

inline std::string quoted(const std::string& name) {
    return "'" + name + "'";
}
