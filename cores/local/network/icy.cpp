#include "local/network/icy.h"

#include <algorithm>
#include <cstdint>

namespace local_core {

std::string_view icy_title(std::string_view text) {
    constexpr std::string_view kKey = "StreamTitle='";
    const size_t key = text.find(kKey);
    if (key == std::string_view::npos) {
        return {};
    }
    text.remove_prefix(key + kKey.size());
    // Titles have quotes of their own; a text that was cut has no end.
    const size_t end = std::min(text.find("';"), text.find('\0'));
    return text.substr(0, end);
}

void IcyFilter::feed(std::string_view bytes, const AudioHandler& audio, const TitleHandler& title) {
    if (m_interval == 0) {
        audio(bytes);
        return;
    }
    while (!bytes.empty()) {
        if (m_text_left > 0) {
            const std::string_view piece = bytes.substr(0, m_text_left);
            m_text += piece;
            m_text_left -= piece.size();
            bytes.remove_prefix(piece.size());
            if (m_text_left == 0) {
                const std::string_view found = icy_title(m_text);
                if (!found.empty()) {
                    title(found);
                }
                m_text.clear();
            }
        } else if (m_audio_left > 0) {
            const std::string_view piece = bytes.substr(0, m_audio_left);
            m_audio_left -= piece.size();
            bytes.remove_prefix(piece.size());
            audio(piece);
        } else {
            m_text_left = size_t{16} * static_cast<uint8_t>(bytes.front());
            m_audio_left = m_interval;
            bytes.remove_prefix(1);
        }
    }
}

}  // namespace local_core
