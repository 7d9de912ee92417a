#include "watch/service_status.h"

#include <systemd/sd-daemon.h>

#include <string>

#include "common/utf8.h"

namespace nuvio::host {

namespace {

std::string status_text(const DeviceModel& device) {
    if (const std::string missing = device.missing_setting(); !missing.empty()) {
        return "Not set up: " + missing + " is not set";
    }
    const NowPlayingView view = device.playing();
    std::string text = word_of(view.status).text;
    if (view.track && !view.is_stopped()) {
        text += ": " + view.track->title;
        if (!view.track->artist.empty()) {
            text += " - " + view.track->artist;
        }
    }
    return text;
}

}  // namespace

// What a title brings along ends no line: a line of its own would be a message of its own.
void report_status(const DeviceModel& device) {
    sd_notify(0, ("STATUS=" + printable(status_text(device))).c_str());
}

}  // namespace nuvio::host
