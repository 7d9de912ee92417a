// The part of a file that a request asks for. Pure, any thread; input may be any bytes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>

#include "common/number.h"

namespace nuvio::controller {

// Bytes from `first` to before `end`.
struct ByteRange {
    int64_t first = 0;
    int64_t end = 0;

    bool operator==(const ByteRange&) const = default;
};

enum class RangeKind { whole, part, beyond };

// Reads a Range header for a file of `size` bytes. What is no single range in bytes is passed over,
// as if there were none: the whole file. `beyond`: it lies behind the file's end.
inline RangeKind parse_range(std::string_view header, int64_t size, ByteRange* range) {
    constexpr std::string_view kUnit = "bytes=";
    *range = {0, size};
    const size_t dash = header.find('-');
    if (!header.starts_with(kUnit) || dash == std::string_view::npos) {
        return RangeKind::whole;
    }
    const std::string_view first_text = header.substr(kUnit.size(), dash - kUnit.size());
    const std::string_view last_text = header.substr(dash + 1);
    // Digits alone, so that no sign is taken for a number's.
    const auto number = [](std::string_view text) {
        return text.starts_with('-') ? std::nullopt : to_number<int64_t>(text);
    };
    const std::optional<int64_t> first = number(first_text);
    const std::optional<int64_t> last = number(last_text);
    if ((!first && !first_text.empty()) || (!last && !last_text.empty()) || (!first && !last) ||
        (first && last && *last < *first)) {
        return RangeKind::whole;
    }
    if (!first) {  // the last bytes
        if (*last == 0) {
            return RangeKind::beyond;
        }
        range->first = std::max<int64_t>(0, size - *last);
        return size == 0 ? RangeKind::beyond : RangeKind::part;
    }
    if (*first >= size) {
        return RangeKind::beyond;
    }
    *range = {*first, last ? std::min(*last, size - 1) + 1 : size};
    return RangeKind::part;
}

}  // namespace nuvio::controller
