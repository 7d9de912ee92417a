#include "local/text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace local_core {

namespace {

constexpr std::string_view kFileScheme = "file://";
constexpr std::string_view kBlanks = " ";

char to_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool starts_with_ignoring_case(std::string_view text, std::string_view prefix) {
    return equals_ignoring_case(text.substr(0, prefix.size()), prefix);
}

// Length of the well-formed UTF-8 sequence at the start of `text`; 0 when there is none.
size_t sequence_length(std::string_view text) {
    struct Lead {
        uint8_t first, last;  // lead bytes
        size_t length;
        uint8_t second_min, second_max;  // excludes overlong forms, surrogates and beyond U+10FFFF
    };
    static constexpr Lead kLeads[] = {
        {0x00, 0x7f, 1, 0x00, 0x00}, {0xc2, 0xdf, 2, 0x80, 0xbf}, {0xe0, 0xe0, 3, 0xa0, 0xbf},
        {0xe1, 0xec, 3, 0x80, 0xbf}, {0xed, 0xed, 3, 0x80, 0x9f}, {0xee, 0xef, 3, 0x80, 0xbf},
        {0xf0, 0xf0, 4, 0x90, 0xbf}, {0xf1, 0xf3, 4, 0x80, 0xbf}, {0xf4, 0xf4, 4, 0x80, 0x8f},
    };
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    for (const Lead& lead : kLeads) {
        if (byte(0) < lead.first || byte(0) > lead.last) {
            continue;
        }
        if (text.size() < lead.length) {
            return 0;
        }
        for (size_t i = 1; i < lead.length; ++i) {
            const uint8_t min = i == 1 ? lead.second_min : uint8_t{0x80};
            const uint8_t max = i == 1 ? lead.second_max : uint8_t{0xbf};
            if (byte(i) < min || byte(i) > max) {
                return 0;
            }
        }
        return lead.length;
    }
    return 0;
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = sequence_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string utf8_from_latin1(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<uint8_t>(c);
        if (byte < 0x80) {
            out += c;
        } else {
            out += static_cast<char>(0xc0 | (byte >> 6));
            out += static_cast<char>(0x80 | (byte & 0x3f));
        }
    }
    return out;
}

int hex_value(char c) {
    const char lower = to_lower(c);
    if (lower >= '0' && lower <= '9') {
        return lower - '0';
    }
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::optional<std::string> percent_decode(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            const int high = i + 2 < text.size() ? hex_value(text[i + 1]) : -1;
            const int low = high >= 0 ? hex_value(text[i + 2]) : -1;
            if (low < 0) {
                return std::nullopt;
            }
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (c == '\0') {
            return std::nullopt;
        }
        out += c;
    }
    return out;
}

bool needs_no_escape(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~/").find(c) != std::string_view::npos;
}

}  // namespace

bool equals_ignoring_case(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return to_lower(x) == to_lower(y); });
}

std::string display_text(std::string_view raw) {
    std::string text = is_utf8(raw) ? std::string(raw) : utf8_from_latin1(raw);
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<uint8_t>(c) < 0x20 || static_cast<uint8_t>(c) == 0x7f; },
        ' ');
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string beginning(std::string_view text, size_t max_bytes) {
    size_t end = std::min(text.size(), max_bytes);
    while (end > 0 && end < text.size() && (static_cast<uint8_t>(text[end]) & 0xC0U) == 0x80) {
        --end;
    }
    return std::string(text.substr(0, end));
}

bool is_file_url(std::string_view text) {
    return starts_with_ignoring_case(text, kFileScheme);
}

bool is_remote_url(std::string_view text) {
    const size_t colon = text.find("://");
    return colon != std::string_view::npos && colon > 0 && text.find('/') == colon + 1 &&
           !is_file_url(text);
}

std::optional<std::string> path_from_file_url(std::string_view url) {
    if (!is_file_url(url)) {
        return std::nullopt;
    }
    url.remove_prefix(kFileScheme.size());
    const size_t slash = url.find('/');
    if (slash == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view host = url.substr(0, slash);
    if (!host.empty() && !equals_ignoring_case(host, "localhost")) {
        return std::nullopt;
    }
    return percent_decode(url.substr(slash));
}

std::string file_url_from_path(std::string_view path) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string url(kFileScheme);
    for (const char c : path) {
        if (needs_no_escape(c)) {
            url += c;
        } else {
            const auto byte = static_cast<uint8_t>(c);
            url += '%';
            url += kDigits[byte >> 4];
            url += kDigits[byte & 0x0f];
        }
    }
    return url;
}

}  // namespace local_core
