// The header "Authorization: Bearer TOKEN": what a session's content and its channel are asked for
// with.
#pragma once

#include <string>
#include <string_view>

#include "common/text.h"

namespace nuvio {

inline constexpr std::string_view kBearerScheme = "Bearer ";

inline std::string bearer_value(std::string_view token) {
    return std::string(kBearerScheme).append(token);
}

// Of the header's value, null where there is no such header; empty: it names none. Borrowed.
inline std::string_view bearer_token(const char* value) {
    const std::string_view text = value != nullptr ? value : "";
    return starts_with_ignoring_case(text, kBearerScheme) ? trim(text.substr(kBearerScheme.size()))
                                                          : std::string_view();
}

}  // namespace nuvio
