#include "controller/library/heard.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/files/files.h"
#include "common/utf8.h"
#include "controller/base/log.h"
#include "controller/library/music_folders.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxFile = size_t{4} << 20U;
constexpr mode_t kMode = 0600;

// Files of one folder and album.
bool is_same(const PlaylistEntry& a, const PlaylistEntry& b) {
    return a.title == b.title && parent_of(a.location) == parent_of(b.location);
}

}  // namespace

Heard::Heard(std::string path)
    : m_path(std::move(path)),
      m_albums(parse_m3u(read_file(m_path, kMaxFile).whole_lines(), kMost)) {}

void Heard::note(const Track& track) {
    const PlaylistEntry now{std::filesystem::path(track.root) / track.below,
                            std::string(trim(printable(track.album)))};
    const std::scoped_lock lock(m_mutex);
    if (!m_albums.empty() && is_same(m_albums.front(), now)) {
        return;
    }
    std::erase_if(m_albums, [&](const PlaylistEntry& known) { return is_same(known, now); });
    m_albums.insert(m_albums.begin(), now);
    m_albums.resize(std::min(m_albums.size(), kMost));
    ++m_revision;
    const int error = replace_file(m_path, write_m3u(m_albums), kMode);
    if (error != 0) {
        log_line(LogLevel::error, m_path + ": " + std::generic_category().message(error));
    }
}

std::vector<PlaylistEntry> Heard::albums() const {
    const std::scoped_lock lock(m_mutex);
    return m_albums;
}

int64_t Heard::revision() const {
    const std::scoped_lock lock(m_mutex);
    return m_revision;
}

}  // namespace nuvio::controller
