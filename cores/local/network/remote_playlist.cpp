#include "local/network/remote_playlist.h"

#include <algorithm>
#include <utility>

#include "common/text.h"
#include "common/url/url.h"
#include "common/utf8.h"
#include "local/texts/display_text.h"

namespace local_core {

namespace {

constexpr size_t kMaxTextBytes = 1024;

std::string text_for_display(const std::string& raw) {
    return display_text(nuvio::beginning(raw, kMaxTextBytes));
}

constexpr struct {
    std::string_view type;
    PlaylistFormat format;
} kTypes[] = {
    {"audio/x-mpegurl", PlaylistFormat::m3u},
    {"audio/mpegurl", PlaylistFormat::m3u},
    {"application/x-mpegurl", PlaylistFormat::m3u},
    {"application/vnd.apple.mpegurl", PlaylistFormat::m3u},
    {"audio/x-scpls", PlaylistFormat::pls},
    {"application/pls+xml", PlaylistFormat::pls},
    {"application/xspf+xml", PlaylistFormat::xspf},
    {"application/jspf+json", PlaylistFormat::jspf},
    {"application/x-cue", PlaylistFormat::cue},
};

// By the word that its first line begins with, and one that begins a line behind it.
bool is_sheet(std::string_view head) {
    constexpr std::string_view kFirstWords[] = {"CATALOG", "CDTEXTFILE", "FILE", "PERFORMER",
                                                "REM",     "SONGWRITER", "TITLE"};
    const bool begins = std::ranges::any_of(kFirstWords, [&](std::string_view word) {
        return nuvio::starts_with_ignoring_case(head, std::string(word) + " ");
    });
    for (size_t end = head.find_first_of("\r\n"); begins && end != std::string_view::npos;
         end = head.find_first_of("\r\n")) {
        head = nuvio::trim(head.substr(end));
        if (nuvio::starts_with_ignoring_case(head, "TRACK ")) {
            return true;
        }
    }
    return false;
}

}  // namespace

PlaylistFormat playlist_format(std::string_view content_type, std::string_view head) {
    head = nuvio::trim(nuvio::without_byte_order_mark(head));
    if (nuvio::starts_with_ignoring_case(head, "[playlist]")) {
        return PlaylistFormat::pls;
    }
    if (head.starts_with(kStreamPlaylistMark) || nuvio::is_web_address(head)) {
        return PlaylistFormat::m3u;
    }
    if (head.starts_with('<') && head.find("<playlist") != std::string_view::npos) {
        return PlaylistFormat::xspf;
    }
    if (head.starts_with('{') && head.find("\"playlist\"") != std::string_view::npos) {
        return PlaylistFormat::jspf;
    }
    if (is_sheet(head)) {
        return PlaylistFormat::cue;
    }
    const std::string_view type = nuvio::trim(content_type.substr(0, content_type.find(';')));
    for (const auto& row : kTypes) {
        if (nuvio::equals_ignoring_case(type, row.type)) {
            return row.format;
        }
    }
    return PlaylistFormat::none;
}

bool is_stream_playlist(std::string_view text) {
    return text.starts_with(kStreamPlaylistMark) && text.find("#EXT-X-") != std::string_view::npos;
}

std::vector<RemoteTrack> parts_of(RemoteTrack track,
                                  const std::vector<nuvio::reader::SheetTrack>& sheet) {
    if (sheet.size() < 2) {
        return {std::move(track)};
    }
    std::vector<RemoteTrack> parts;
    for (const nuvio::reader::SheetTrack& part : sheet) {
        RemoteTrack& added = parts.emplace_back(track);
        added.title = text_for_display(title_of(part));
        added.creator = part.artist.empty() ? track.creator : text_for_display(part.artist);
        added.album = part.album.empty() ? track.album : text_for_display(part.album);
        added.duration_ms = part.section.length_ms();
        added.section = part.section;
    }
    return parts;
}

std::vector<RemoteTrack> resolved_tracks(const std::vector<nuvio::reader::ListedTrack>& listed,
                                         const std::string& base) {
    std::vector<RemoteTrack> tracks;
    for (const nuvio::reader::ListedTrack& entry : listed) {
        auto url = nuvio::resolve_url(base, entry.location);
        if (url && !base.empty()) {
            tracks.push_back({std::move(*url), text_for_display(entry.title),
                              text_for_display(entry.creator), text_for_display(entry.album),
                              nuvio::resolve_url(base, entry.image).value_or(""), entry.duration_ms,
                              nuvio::section_of(entry.location)});
        }
    }
    return tracks;
}

}  // namespace local_core
