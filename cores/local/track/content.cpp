#include "local/track/content.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/files/files.h"
#include "common/m3u.h"
#include "common/music/names.h"
#include "common/number.h"
#include "common/url/url.h"
#include "local/base/files.h"
#include "local/network/remote_settings.h"
#include "local/network/remote_tracks.h"
#include "local/texts/display_text.h"
#include "local/texts/file_url.h"
#include "local/track/sheets.h"

namespace local_core {

namespace {

namespace fs = std::filesystem;

constexpr int kMaxDepth = 16;
constexpr size_t kMaxPlaylistBytes = size_t{4} << 20;

bool is_hidden(const fs::path& path) {
    return path.filename().string().starts_with('.');
}

// An absolute path, or none for an address that is not on this machine.
std::optional<fs::path> local_path(const std::string& location) {
    if (is_file_url(location)) {
        const auto path = path_from_file_url(location);
        return path ? std::optional<fs::path>(*path) : std::nullopt;
    }
    if (location.empty() || is_remote_url(location)) {
        return std::nullopt;
    }
    return fs::path(location);
}

std::vector<Track> tracks_below(const fs::path& folder, const Logger& logger) {
    std::vector<Track> tracks;
    std::error_code error;
    size_t visited = 0;
    size_t text_bytes = 0;
    fs::recursive_directory_iterator it(folder, fs::directory_options::skip_permission_denied,
                                        error);
    for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        if (++visited > ContentLimits::kDirectoryEntries ||
            tracks.size() == ContentLimits::kTracks || text_bytes > ContentLimits::kTextBytes) {
            logger.write(LogLevel::warning, kContentFetcher,
                         "%s: too large, only the first %zu tracks found are played",
                         folder.c_str(), tracks.size());
            break;
        }
        const fs::path& path = it->path();
        if (is_hidden(path) || it.depth() >= kMaxDepth) {
            it.disable_recursion_pending();
        }
        if (!is_hidden(path) && nuvio::audio_kind_of(path.native()) != nullptr) {
            tracks.push_back({path.string()});
            text_bytes += path.native().size();
        }
    }
    if (error) {
        logger.write(LogLevel::warning, kContentFetcher, "%s: %s", folder.c_str(),
                     error.message().c_str());
    }
    std::sort(tracks.begin(), tracks.end(),
              [](const Track& a, const Track& b) { return a.location < b.location; });
    return tracks;
}

std::vector<Track> tracks_of_playlist(const fs::path& playlist, const Logger& logger) {
    std::string error;
    const nuvio::UniqueFd file = open_regular_file(playlist.string(), &error);
    const nuvio::FileText text = nuvio::read_file(file, kMaxPlaylistBytes);
    if (text.error != 0) {
        error = file ? std::generic_category().message(text.error) : error;
        logger.write(LogLevel::warning, kContentFetcher, "Can't read playlist %s: %s",
                     playlist.c_str(), error.c_str());
        return {};
    }
    std::vector<Track> tracks;
    size_t remote = 0;
    size_t text_bytes = 0;
    for (const nuvio::PlaylistEntry& entry :
         nuvio::parse_m3u(text.whole_lines(), ContentLimits::kTracks)) {
        const auto path = local_path(entry.location);
        if (!path) {
            ++remote;
            continue;
        }
        Track track{(playlist.parent_path() / *path).string(), display_text(entry.title)};
        text_bytes += track.location.size() + track.title.size();
        if (text_bytes > ContentLimits::kTextBytes) {
            logger.write(LogLevel::warning, kContentFetcher,
                         "%s: too large, only the first %zu tracks are played", playlist.c_str(),
                         tracks.size());
            break;
        }
        tracks.push_back(std::move(track));
    }
    if (remote > 0) {
        logger.write(LogLevel::warning, kContentFetcher, "%s: skipping %zu not on this machine",
                     playlist.c_str(), remote);
    }
    return tracks;
}

std::vector<Track> local_tracks(const std::string& endpoint, Interruption& interruption,
                                const Logger& logger, std::string* failure) {
    const auto relative = local_path(endpoint);
    std::error_code error;
    const fs::path path = relative ? fs::absolute(*relative, error) : fs::path();
    if (path.empty()) {
        logger.write(LogLevel::error, kContentFetcher, "%s: not on this machine",
                     display_location(endpoint).c_str());
        return {};
    }
    std::string refusal;
    if (!look_at(path.string(), &refusal)) {
        logger.write(LogLevel::warning, kContentFetcher, "%s: %s", path.c_str(), refusal.c_str());
        *failure = refusal;
        return {};
    }
    Sheets sheets(interruption, logger);
    if (fs::is_directory(path, error)) {
        return sheets.applied_to(tracks_below(path, logger));
    }
    if (nuvio::is_playlist_name(path.native())) {
        return sheets.applied_to(tracks_of_playlist(path, logger));
    }
    return sheets.applied_to(nuvio::is_sheet_name(path.native()) ? sheets.files_of(path.string())
                                                                 : std::vector<Track>{{path}});
}

std::vector<Track> remote_tracks(const std::string& url, const std::string& token,
                                 Interruption& interruption, const Logger& logger,
                                 std::string* why) {
    auto request = std::make_shared<HttpRequest>(remote_request_defaults());
    request->url = request->token_origin = url;
    request->token = token;
    HttpFailure failure = HttpFailure::none;
    std::string error;
    std::vector<Track> tracks;
    for (RemoteTrack& found : find_remote_tracks(*request, {}, interruption, &failure, &error)) {
        tracks.push_back({std::move(found.url), std::move(found.title), std::move(found.creator),
                          std::move(found.album), std::move(found.image),
                          found.duration_ms.value_or(0), found.section, request});
    }
    if (!error.empty() && failure != HttpFailure::cancelled) {
        *why = display_text(error);
        logger.write(LogLevel::warning, kContentFetcher, "%s: %s", display_location(url).c_str(),
                     why->c_str());
    }
    return tracks;
}

}  // namespace

bool is_findable(const std::string& endpoint) {
    return local_path(endpoint) || nuvio::resolve_url("", endpoint);
}

std::optional<size_t> start_of(const std::string& endpoint, size_t count) {
    constexpr std::string_view kMark = "#start=";
    const size_t mark = endpoint.rfind(kMark);
    if (mark == std::string::npos || !is_remote_url(endpoint)) {
        return std::nullopt;
    }
    const auto start = nuvio::to_number<size_t>(endpoint.substr(mark + kMark.size()));
    return start && *start < count ? start : std::nullopt;
}

std::vector<Track> find_tracks(const std::string& endpoint, const std::string& token,
                               Interruption& interruption, const Logger& logger,
                               std::string* failure) {
    const auto url = nuvio::resolve_url("", endpoint);
    return url ? remote_tracks(*url, token, interruption, logger, failure)
               : local_tracks(endpoint, interruption, logger, failure);
}

}  // namespace local_core
