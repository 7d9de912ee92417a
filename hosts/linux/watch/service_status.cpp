#include "watch/service_status.h"

#include <systemd/sd-daemon.h>

#include "base/text.h"
#include "common/utf8.h"

namespace nuvio::host {

std::string status_text(const NowPlayingView& view) {
    std::string text = word_of(view.status).text;
    if (view.track && view.status != android::PLAY_STATE_STOPPED) {
        text += ": " + view.track->title;
        if (!view.track->artist.empty()) {
            text += " - " + view.track->artist;
        }
    }
    return printable(to_utf8(text));
}

void report_status(const NowPlayingView& view) {
    sd_notify(0, ("STATUS=" + status_text(view)).c_str());
}

}  // namespace nuvio::host
