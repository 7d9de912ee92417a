// Texts of unknown origin: what every layer takes apart with the same functions, what reaches the
// Linux host from the service, the bus and the settings, and what a controller names as content.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/text.h"
#include "bus/bus_address.h"
#include "common/number.h"
#include "common/percent_encoding.h"
#include "common/text.h"
#include "common/utf8.h"
#include "configuration/device_name.h"
#include "fuzz/expect.h"
#include "local/texts/display_text.h"
#include "local/texts/file_url.h"

using namespace nuvio;
using namespace nuvio::host;
using namespace local_core;

namespace {

void check_utf8(std::string_view text) {
    FUZZ_EXPECT(is_utf8(utf8_from_latin1(text)));
    for (size_t limit = 0; limit <= 8; ++limit) {
        const std::string_view start = beginning(text, limit);
        FUZZ_EXPECT(start.size() <= limit && text.starts_with(start));
        FUZZ_EXPECT(!is_utf8(text) || is_utf8(start));
    }
    const size_t length = character_length(text);
    FUZZ_EXPECT(length <= 4 && length <= text.size());
    FUZZ_EXPECT(length == 0 || is_utf8(text.substr(0, length)));
}

void check_percent_encoding(std::string_view text) {
    const std::string encoded = percent_encode(text);
    FUZZ_EXPECT(percent_decode(encoded) == text && percent_decode_leniently(encoded) == text);
    FUZZ_EXPECT(is_utf8(encoded) && encoded.find('\0') == std::string::npos);
    const std::string decoded = percent_decode_leniently(text);
    FUZZ_EXPECT(decoded.size() <= text.size());
    if (const auto strictly = percent_decode(text)) {
        FUZZ_EXPECT(*strictly == decoded);
    }
}

void check_number(const std::string& text) {
    const auto number = to_number<int>(text);
    if (number) {
        const std::string digits = std::to_string(*number);
        FUZZ_EXPECT(text.ends_with(digits.substr(*number < 0 ? 1 : 0)));
        FUZZ_EXPECT(leading_number(text) == *number);
        FUZZ_EXPECT(to_number<uint8_t>(text).has_value() ==
                    (*number >= 0 && *number <= 255 && text[0] != '-'));
        FUZZ_EXPECT(to_percent(text).has_value() == (*number >= 0 && *number <= 100));
    }
    if (text.find_first_of("0123456789") == std::string::npos) {
        FUZZ_EXPECT(leading_number(text) == 0);
    }
}

void check_trimming(std::string_view text) {
    const std::string_view trimmed = trim(text);
    FUZZ_EXPECT(trim(trimmed) == trimmed && text.find(trimmed) != std::string_view::npos);
    FUZZ_EXPECT(starts_with_ignoring_case(text, text.substr(0, text.size() / 2)));
}

void check_host_texts(const std::string& text) {
    const std::string utf8 = to_utf8(text);
    FUZZ_EXPECT(to_utf8(utf8) == utf8 && utf8.find('\0') == std::string::npos);
    FUZZ_EXPECT(!is_printable_utf8(text) || utf8 == text);
    FUZZ_EXPECT(!is_device_name(text) || (utf8 == text && text.size() <= 255));
    to_url(text);
    for (const BusAddress& address : bus_addresses(text)) {
        FUZZ_EXPECT(!address.text.empty() && address.text.find(';') == std::string::npos);
    }
}

void check_file_urls(const std::string& text) {
    FUZZ_EXPECT(!(is_file_url(text) && is_remote_url(text)));
    if (const auto path = path_from_file_url(text)) {
        FUZZ_EXPECT(is_file_url(text));
        FUZZ_EXPECT(path->starts_with('/') && path->find('\0') == std::string::npos);
    }
    if (text.find('\0') == std::string::npos) {
        FUZZ_EXPECT(path_from_file_url(file_url_from_path("/" + text)) == "/" + text);
    }
    const std::string shown = display_text(text);
    FUZZ_EXPECT(is_utf8(shown) && printable(shown) == shown);
    FUZZ_EXPECT(display_text(shown) == shown);
    FUZZ_EXPECT(shown.find_first_of("\r\n") == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    check_utf8(text);
    check_percent_encoding(text);
    check_number(text);
    check_trimming(text);
    check_host_texts(text);
    check_file_urls(text);
    return 0;
}
