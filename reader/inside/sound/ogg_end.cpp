#include "reader/inside/sound/ogg_end.h"

#include <algorithm>

namespace nuvio::reader {

std::optional<std::ptrdiff_t> OggEnd::find(std::string_view bytes) {
    // A page begins with these and its flags.
    constexpr std::string_view kPage("OggS\0", 5);
    constexpr char kFirstOfStream = 2;
    const auto known = static_cast<std::ptrdiff_t>(m_tail.size());
    m_tail += bytes;
    for (size_t at = m_tail.find(kPage);
         at != std::string::npos && at + kPage.size() < m_tail.size();
         at = m_tail.find(kPage, at + 1)) {
        const bool is_first = (m_tail[at + kPage.size()] & kFirstOfStream) != 0;
        if (is_first && m_has_begun) {
            return static_cast<std::ptrdiff_t>(at) - known;
        }
        m_has_begun = m_has_begun || !is_first;
    }
    m_tail.erase(0, m_tail.size() - std::min(m_tail.size(), kPage.size()));
    return std::nullopt;
}

}  // namespace nuvio::reader
