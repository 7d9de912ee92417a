#include "controller/library/own_lists.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <utility>

#include "common/files/files.h"
#include "common/text.h"
#include "common/url/url.h"
#include "controller/library/listing.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxName = 100;
constexpr size_t kMaxUrl = 2048;
constexpr size_t kMaxFile = size_t{16} << 20U;
constexpr mode_t kMode = 0600;
constexpr char kFolder[] = "/playlists/";
constexpr char kStations[] = "/stations.m3u8";
constexpr std::string_view kEnding = ".m3u8";
constexpr char kNoName[] = "that is no name";

std::string unknown(const char* what, const std::string& name) {
    return std::string("there is no ") + what + " '" + name + "'";
}

std::string taken(const char* what, const std::string& name) {
    return std::string("there is a ") + what + " '" + name + "' already";
}

bool is_there(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

auto find(std::vector<PlaylistEntry>& stations, const std::string& name) {
    return std::ranges::find_if(stations, [&](const PlaylistEntry& station) {
        return equals_ignoring_case(station.title, name);
    });
}

}  // namespace

std::string clean_name(std::string_view text) {
    std::string name = printable(text);
    std::ranges::replace(name, '/', '-');
    name.erase(0, name.find_first_not_of(". \t"));
    return std::string(trim(beginning(name, kMaxName)));
}

std::string OwnLists::path_of(const std::string& playlist) const {
    return m_folder + kFolder + clean_name(playlist) + std::string(kEnding);
}

// What a change comes back with.
std::string OwnLists::done(int error, const std::string& what) {
    m_revision += error == 0 ? 1 : 0;
    return error == 0 ? "" : what + ": " + std::generic_category().message(error);
}

// A hidden name: it is in no list.
std::string OwnLists::removed_path_of(const std::string& playlist) const {
    return m_folder + kFolder + "." + clean_name(playlist) + std::string(kEnding);
}

std::vector<std::string> OwnLists::playlists() const {
    Listing listing;
    read_listing(UniqueFd(open((m_folder + kFolder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
                 &listing);
    std::vector<std::string> names;
    for (const std::string& file : listing.playlists) {
        if (file.ends_with(kEnding) && names.size() < kMost) {
            names.push_back(file.substr(0, file.size() - kEnding.size()));
        }
    }
    std::ranges::sort(names);
    return names;
}

std::optional<std::vector<PlaylistEntry>> OwnLists::entries(const std::string& playlist,
                                                            size_t most) const {
    const FileText file = read_file(path_of(playlist), kMaxFile);
    return file.error != 0 ? std::nullopt : std::optional(parse_m3u(file.whole_lines(), most));
}

std::string OwnLists::save(const std::string& playlist, const std::vector<PlaylistEntry>& entries) {
    const std::string text = write_m3u(entries);
    const std::scoped_lock lock(m_writing);
    if (clean_name(playlist).empty()) {
        return kNoName;
    }
    if (is_there(path_of(playlist))) {
        return taken("playlist", clean_name(playlist));
    }
    if (text.size() > kMaxFile || playlists().size() >= kMost) {
        return "there is no room for it";
    }
    return done(replace_file(path_of(playlist), text, kMode), clean_name(playlist));
}

std::string OwnLists::rename(const std::string& playlist, const std::string& to) {
    const std::scoped_lock lock(m_writing);
    return clean_name(to).empty() ? kNoName : move(path_of(playlist), path_of(to), {playlist, to});
}

std::string OwnLists::remove(const std::string& playlist) {
    const std::scoped_lock lock(m_writing);
    std::error_code error;
    for (const auto& file : std::filesystem::directory_iterator(m_folder + kFolder, error)) {
        const std::string name = file.path().filename();
        if (name.starts_with('.') && name.ends_with(kEnding) && is_there(path_of(playlist))) {
            std::error_code ignored;
            std::filesystem::remove(file.path(), ignored);
        }
    }
    return move(path_of(playlist), removed_path_of(playlist), {playlist, playlist});
}

std::string OwnLists::restore(const std::string& playlist) {
    const std::scoped_lock lock(m_writing);
    return move(removed_path_of(playlist), path_of(playlist), {playlist, playlist});
}

std::string OwnLists::move(const std::string& from, const std::string& to, const Names& names) {
    if (!is_there(from)) {
        return unknown("playlist", clean_name(names.before));
    }
    if (is_there(to)) {
        return taken("playlist", clean_name(names.after));
    }
    std::error_code error;
    std::filesystem::rename(from, to, error);
    return done(error.value(), clean_name(names.after));
}

// ---- Stations -----------------------------------------------------------------------------------

std::vector<PlaylistEntry> OwnLists::stations() const {
    const FileText file = read_file(m_folder + kStations, kMaxFile);
    std::vector<PlaylistEntry> stations = parse_m3u(file.whole_lines(), kMost);
    std::erase_if(stations,
                  [](const PlaylistEntry& entry) { return !is_web_address(entry.location); });
    for (PlaylistEntry& station : stations) {
        const std::string name = clean_name(station.title);
        station.title = name.empty() ? clean_name(station.location) : name;
    }
    std::ranges::sort(stations, {}, &PlaylistEntry::title);
    return stations;
}

std::string OwnLists::add_station(const std::string& name, const std::string& url) {
    const std::scoped_lock lock(m_writing);
    std::vector<PlaylistEntry> all = stations();
    if (clean_name(name).empty()) {
        return kNoName;
    }
    if (!is_web_address(url) || !split_url(url) || url.size() > kMaxUrl) {
        return "an address begins with http:// or https://";
    }
    if (find(all, clean_name(name)) != all.end()) {
        return taken("station", clean_name(name));
    }
    if (all.size() >= kMost) {
        return "there is no room for it";
    }
    all.push_back({url, clean_name(name)});
    return write_stations(all);
}

std::string OwnLists::rename_station(const std::string& name, const std::string& to) {
    const std::scoped_lock lock(m_writing);
    std::vector<PlaylistEntry> all = stations();
    const auto station = find(all, clean_name(name));
    if (station == all.end() || clean_name(to).empty()) {
        return station == all.end() ? unknown("station", clean_name(name)) : kNoName;
    }
    const auto other = find(all, clean_name(to));
    if (other != all.end() && other != station) {
        return taken("station", clean_name(to));
    }
    station->title = clean_name(to);
    return write_stations(all);
}

std::string OwnLists::remove_station(const std::string& name) {
    const std::scoped_lock lock(m_writing);
    std::vector<PlaylistEntry> all = stations();
    const auto station = find(all, clean_name(name));
    if (station == all.end()) {
        return unknown("station", clean_name(name));
    }
    all.erase(station);
    return write_stations(all);
}

std::string OwnLists::write_stations(const std::vector<PlaylistEntry>& stations) {
    return done(replace_file(m_folder + kStations, write_m3u(stations), kMode), "the stations");
}

}  // namespace nuvio::controller
