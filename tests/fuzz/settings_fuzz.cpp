// The settings file, its values, and the one value that is parsed further: the output's rates.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/text.h"
#include "common/number.h"
#include "common/percent_encoding.h"
#include "configuration/settings.h"
#include "configuration/settings_edit.h"
#include "fuzz/expect.h"
#include "media/sink/alsa/output_quality.h"

using namespace nuvio;
using namespace nuvio::host;

namespace {

std::string as_file(const ParsedSettings& parsed) {
    std::string text;
    for (const auto& [key, value] : parsed.values) {
        text.append(key).append("=").append(value).append("\n");
    }
    return text;
}

void check_value(const Settings& settings, const std::string& key, const std::string& value) {
    FUZZ_EXPECT(!key.empty() && key.size() <= 64 && key.find_first_of("=# \t\r\n") == key.npos);
    FUZZ_EXPECT(value.size() <= kMaxValueBytes && is_printable_utf8(value) && trim(value) == value);
    FUZZ_EXPECT(settings.get(key) == value);
    if (settings.is_on(key)) {
        FUZZ_EXPECT(to_number<int>(value).has_value());
    }
    const output_settings output{"default", value};
    const int rate = parse_maximum_rate(output);
    FUZZ_EXPECT(quality_from_settings(output, rate).has_value());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const ParsedSettings parsed = parse_settings(text);
    const Settings settings(parsed);
    for (const auto& [key, value] : parsed.values) {
        check_value(settings, key, value);
    }
    // What was taken reads back the same.
    const ParsedSettings again = parse_settings(as_file(parsed));
    FUZZ_EXPECT(again.problems.empty() && again.values == parsed.values);
    // A change is one of its own key.
    auto changed = parsed.values;
    changed["alsa.output_device"] = "new";
    FUZZ_EXPECT(parse_settings(edit_settings(text, {{"alsa.output_device", "new"}})).values ==
                changed);
    return 0;
}
