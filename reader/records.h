// Numbers and texts in the records that come from a reader: in a row, as they lie in memory, each
// text behind its length.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nuvio::reader {

template <typename Number>
void put_number(std::string* record, Number number) {
    record->append(reinterpret_cast<const char*>(&number), sizeof number);
}

inline void put_text(std::string* record, const std::string& text) {
    put_number(record, static_cast<uint32_t>(text.size()));
    record->append(text);
}

// Takes the number that `bytes` begin with; none where they are too short.
template <typename Number>
std::optional<Number> take_number(std::string_view* bytes) {
    Number number = 0;
    if (bytes->size() < sizeof number) {
        return std::nullopt;
    }
    bytes->copy(reinterpret_cast<char*>(&number), sizeof number);
    bytes->remove_prefix(sizeof number);
    return number;
}

inline std::optional<std::string> take_text(std::string_view* bytes) {
    const auto size = take_number<uint32_t>(bytes);
    if (!size || *size > bytes->size()) {
        return std::nullopt;
    }
    std::string text(bytes->substr(0, *size));
    bytes->remove_prefix(*size);
    return text;
}

}  // namespace nuvio::reader
