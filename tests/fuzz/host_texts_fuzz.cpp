// Texts that reach the Linux host from the service, the bus and the settings.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/text.h"
#include "bus/bus_address.h"
#include "common/number.h"
#include "configuration/device_name.h"
#include "fuzz/expect.h"

using namespace nuvio;
using namespace nuvio::host;

namespace {

bool is_utf8(const std::string& text) {
    return to_utf8(text) == text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string utf8 = to_utf8(text);
    FUZZ_EXPECT(is_utf8(utf8) && utf8.find('\0') == std::string::npos);
    if (is_printable_utf8(text)) {
        FUZZ_EXPECT(utf8 == text);
    }
    to_url(text);

    if (const auto number = to_number<int>(text)) {
        const auto percent = to_percent(text);
        FUZZ_EXPECT(percent.has_value() == (*number >= 0 && *number <= 100));
    }
    if (is_device_name(text)) {
        FUZZ_EXPECT(is_utf8(text) && text.size() <= 255);
    }
    for (const BusAddress& address : bus_addresses(text)) {
        FUZZ_EXPECT(!address.text.empty() && address.text.find(';') == std::string::npos);
    }
    return 0;
}
