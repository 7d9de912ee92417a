#include "controller/library/kept_list.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/files/files.h"
#include "common/utf8.h"
#include "controller/library/music_folders.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxKeptFile = size_t{4} << 20U;
constexpr mode_t kMode = 0600;

std::string path_of(const Track& track) {
    return std::filesystem::path(track.root) / track.below;
}

}  // namespace

PlaylistEntry entry_of(const Track& track) {
    return {with_section(path_of(track), track.section),
            (track.artist.empty() ? "" : track.artist + " - ") + track.title};
}

KeptList::KeptList(std::string path, Of of, size_t most)
    : m_path(std::move(path)), m_of(of), m_most(most) {
    const FileText file = read_file(m_path, kMaxKeptFile);
    m_error = file.error == ENOENT ? 0 : file.error;
    m_entries = parse_m3u(file.whole_lines(), m_most);
    for (const PlaylistEntry& entry : m_entries) {
        m_keys.insert(key_of(entry));
    }
}

PlaylistEntry KeptList::entry_for(const Track& track) const {
    return m_of == Of::tracks
               ? entry_of(track)
               : PlaylistEntry{path_of(track), std::string(trim(printable(track.album)))};
}

// Files of one folder and album are the same album.
std::string KeptList::key_of(const PlaylistEntry& entry) const {
    return m_of == Of::tracks ? entry.location
                              : std::string(parent_of(entry.location)) + '\n' + entry.title;
}

std::string KeptList::put_first(const Track& track) {
    const PlaylistEntry now = entry_for(track);
    const std::string key = key_of(now);
    const std::scoped_lock lock(m_mutex);
    if (!m_entries.empty() && key_of(m_entries.front()) == key) {
        return {};
    }
    std::vector<PlaylistEntry> entries = m_entries;
    std::erase_if(entries, [&](const PlaylistEntry& known) { return key_of(known) == key; });
    entries.insert(entries.begin(), now);
    entries.resize(std::min(entries.size(), m_most));
    return replace(std::move(entries));
}

std::string KeptList::add(const Track& track) {
    const PlaylistEntry now = entry_for(track);
    const std::scoped_lock lock(m_mutex);
    if (m_keys.contains(key_of(now))) {
        return {};
    }
    if (m_entries.size() >= m_most) {
        return "there is no room for it";
    }
    if (!m3u::is_location(now.location)) {
        return "no list can have a file of that name: " + printable(now.location);
    }
    std::vector<PlaylistEntry> entries = m_entries;
    entries.insert(entries.begin(), now);
    return replace(std::move(entries));
}

std::string KeptList::remove(const std::vector<Track>& tracks) {
    std::set<std::string> keys;
    for (const Track& track : tracks) {
        keys.insert(key_of(entry_for(track)));
    }
    const std::scoped_lock lock(m_mutex);
    std::vector<PlaylistEntry> entries = m_entries;
    const auto gone = std::erase_if(
        entries, [&](const PlaylistEntry& known) { return keys.contains(key_of(known)); });
    return gone == 0 ? "" : replace(std::move(entries));
}

// Under m_mutex. What the disk does not take is not in the list.
std::string KeptList::replace(std::vector<PlaylistEntry> entries) {
    const int error = m_error != 0 ? m_error : replace_file(m_path, write_m3u(entries), kMode);
    if (error != 0) {
        return m_path + ": " + std::generic_category().message(error);
    }
    m_entries = std::move(entries);
    m_keys.clear();
    for (const PlaylistEntry& entry : m_entries) {
        m_keys.insert(key_of(entry));
    }
    ++m_revision;
    return {};
}

bool KeptList::has(const Track& track) const {
    const std::string key = key_of(entry_for(track));
    const std::scoped_lock lock(m_mutex);
    return m_keys.contains(key);
}

std::vector<PlaylistEntry> KeptList::entries() const {
    const std::scoped_lock lock(m_mutex);
    return m_entries;
}

}  // namespace nuvio::controller
