#include "watch/service_status.h"

#include <systemd/sd-daemon.h>

#include <algorithm>

#include "base/text.h"

namespace nuvio::host {

std::string status_text(const NowPlayingView& view) {
    static constexpr const char* kStates[] = {"Playing", "Stopped", "Paused"};
    std::string text = kStates[view.status];
    if (view.track && view.status != android::PLAY_STATE_STOPPED) {
        text += ": " + to_utf8(view.track->title);
        if (!view.track->artist.empty()) {
            text += " - " + to_utf8(view.track->artist);
        }
    }
    std::ranges::replace_if(
        text, [](unsigned char byte) { return byte < ' ' || byte == 0x7F; }, ' ');
    return text;
}

void report_status(const NowPlayingView& view) {
    sd_notify(0, ("STATUS=" + status_text(view)).c_str());
}

}  // namespace nuvio::host
