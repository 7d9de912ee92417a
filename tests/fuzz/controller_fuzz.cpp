// What a session's device and a browser send to the controller.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "controller/session/device_state.h"
#include "controller/session/tracks.h"
#include "controller/web/byte_range.h"
#include "fuzz/expect.h"

using namespace nuvio;
using namespace nuvio::controller;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    ByteRange range;
    if (parse_range(text, 1000, &range) == RangeKind::part) {
        FUZZ_EXPECT(range.first >= 0 && range.first < range.end && range.end <= 1000);
    }
    track_id_of(std::string(text));
    // A message a line.
    DeviceState state("http://here");
    const auto now = DeviceState::Clock::now();
    while (!text.empty()) {
        const size_t end = text.find('\n');
        state.apply(parse_json(text.substr(0, end)).get(), now, 1'700'000'000'000);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    const JsonPtr shown = new_object();
    state.describe(shown.get(), now + std::chrono::seconds(1));
    // What goes to pages can be read by them.
    FUZZ_EXPECT(parse_json(print_json(shown.get())) != nullptr);
    FUZZ_EXPECT(parse_json(print_json(state.describe_queue().get())) != nullptr);
    return 0;
}
