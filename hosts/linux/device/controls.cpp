#include "device/controls.h"

#include <cstdint>

#include "base/text.h"
#include "common/number.h"
#include "configuration/device_name.h"
#include "platform/Kora.h"

namespace nuvio::host {

namespace {

constexpr int kMaxSource = 255;

}  // namespace

void Controls::seek(int64_t position_ms) {
    if (position_ms >= 0 && position_ms <= kMaxSeekMs &&
        command("SEEK:" + std::to_string(position_ms))) {
        m_now_playing.preview_seek(position_ms);
    }
}

void Controls::set_volume(int percent) {
    m_messages.write(android::KORA_VOLUME, std::to_string(percent));
    m_source_switch.send_volume(percent);
}

void Controls::set_mute(bool muted) {
    if (!m_source_switch.has_output() || !command(mute_text(muted))) {
        m_messages.write(android::KORA_MUTE, mute_text(muted));
    }
}

bool Controls::write_message(int id, const std::string& text) {
    switch (id) {
        case android::KORA_DEVICE_NAME:
            return rename(text);
        case android::KORA_VOLUME: {
            const auto percent = to_percent(text);
            if (percent) {
                set_volume(*percent);
            }
            return percent.has_value();
        }
        case android::KORA_MUTE: {
            const auto muted = to_muted(text);
            if (muted) {
                set_mute(*muted);
            }
            return muted.has_value();
        }
        case android::KORA_CURRENT_SOURCE:
            if (text == "0") {
                give_back_output();
                return true;
            }
            return take_output(to_number<int>(text).value_or(0));
        default:
            return m_messages.write(id, text);
    }
}

bool Controls::rename(const std::string& name) {
    return is_device_name(name) && m_messages.write(android::KORA_DEVICE_NAME, name);
}

bool Controls::take_output(int source) {
    if (source < 1 || source > kMaxSource || source == android::SOURCE_TYPE_NUVIO_CONNECT) {
        return false;
    }
    m_source_switch.take_output(source);
    return true;
}

void Controls::request_shutdown() {
    m_messages.write(android::KORA_SHUTDOWN_REQUEST, "1");
}

}  // namespace nuvio::host
