#include "local/texts/playlist.h"

#include "common/text.h"

namespace local_core {

namespace {

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
constexpr std::string_view kInfoTag = "#EXTINF:";
constexpr size_t kMaxLineBytes = 4096;

std::string_view take_line(std::string_view& text) {
    const size_t end = text.find_first_of("\r\n");
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

// "#EXTINF:123 key="a,b",Artist - Title": what follows the first comma outside quotes.
std::string_view title_of(std::string_view info) {
    bool quoted = false;
    for (size_t i = 0; i < info.size(); ++i) {
        if (info[i] == '"') {
            quoted = !quoted;
        } else if (info[i] == ',' && !quoted) {
            return nuvio::trim(info.substr(i + 1));
        }
    }
    return {};
}

}  // namespace

std::vector<PlaylistEntry> parse_playlist(std::string_view text, size_t max_entries) {
    if (text.starts_with(kByteOrderMark)) {
        text.remove_prefix(kByteOrderMark.size());
    }
    std::vector<PlaylistEntry> entries;
    std::string_view title;
    while (!text.empty() && entries.size() < max_entries) {
        const std::string_view line = nuvio::trim(take_line(text));
        if (line.empty() || line.size() > kMaxLineBytes ||
            line.find('\0') != std::string_view::npos) {
            continue;
        }
        if (line.starts_with(kInfoTag)) {
            title = title_of(line.substr(kInfoTag.size()));
        } else if (!line.starts_with('#')) {
            entries.push_back({std::string(line), std::string(title)});
            title = {};
        }
    }
    return entries;
}

}  // namespace local_core
