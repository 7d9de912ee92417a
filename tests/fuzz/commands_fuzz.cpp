// Command strings of the platform, through the listener's doors and the bridge's own queue.
//
// One thread: the fuzzer posts, then works the queue off itself. The bridge's log lines say when it
// would wait; a stop asked for at that moment cuts the wait short, so that no input takes real
// time.
#include <uv.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/bridge.h"
#include "bridge/bridge_private.h"
#include "fakes/fake_platform.h"
#include "fakes/fake_sdk.h"
#include "fuzz/expect.h"
#include "startup/nuvio_ss_listener.h"

namespace {

std::stop_source g_stop;
bool g_idle = false;

// `format` is the bridge's own text, which no input can imitate.
void on_log_line(std::string_view format, std::string_view line) {
    g_idle |= format.starts_with("NuvioConnect: handleNuvioPlaybackEvents: Waking up") &&
              line.find("m_beventReady = 0") != line.npos;
    if (g_idle || format.starts_with("NuvioConnect: New device_name") ||
        format.starts_with("NuvioConnect: update playbackstatus")) {
        g_stop.request_stop();
    }
}

void work_off(android::NuvioConnect& bridge) {
    for (g_idle = false; !g_idle;) {
        g_stop = std::stop_source();
        bridge.handleNuvioPlaybackEvents(g_stop.get_token());
    }
}

android::NuvioConnect* make_playing_bridge() {
    android::setDeviceInfo(
        {"8000", "id", "secret", "Den", "Maker", "Model", "0", "hw:0", "PCM", "a45e", "hw:1"});
    android::NuvioConnect* bridge = android::bridgeInstance();
    bridge->initDeviceInfo(uv_default_loop());
    bridge->postVolumeStatus();
    bridge->postPlaybackStatus(NUV_PLAYBACK_STATE_PLAYING);
    work_off(*bridge);
    return bridge;
}

}  // namespace

extern "C" [[gnu::format(printf, 2, 3)]] void syslog(int, const char* format, ...) {
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    on_log_line(format, line);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static android::NuvioConnect* const bridge = make_playing_bridge();
    constexpr size_t kMaxLines = 32;
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    std::vector<std::string> lines;
    for (std::string line; lines.size() < kMaxLines && std::getline(input, line);) {
        lines.push_back(line);
    }
    const android::sp<android::NuvioSSListener> listener = android::NuvioSSListener::getInstance();
    fake_sdk::take_calls();
    fake_platform::state()->take_calls();
    for (const std::string& line : lines) {
        android::postEventTo_Nuvio(line);  // a NUL may be in it
        listener->OnSourceEvent(line.c_str());
        listener->OnVolumeChangeEvent(line.c_str());
    }
    work_off(*bridge);
    // No command controls the SDK twice.
    FUZZ_EXPECT(fake_sdk::take_calls().size() <= 3 * lines.size());
    return 0;
}
