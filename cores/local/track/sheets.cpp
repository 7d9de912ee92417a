#include "local/track/sheets.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "common/music/names.h"
#include "common/text.h"
#include "local/base/files.h"
#include "local/texts/display_text.h"

namespace local_core {

namespace {

namespace fs = std::filesystem;
namespace reader = nuvio::reader;

std::vector<std::string> names_in(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it(folder, error); !error && it != fs::directory_iterator() &&
                                                   names.size() < ContentLimits::kDirectoryEntries;
         it.increment(error)) {
        std::string name = it->path().filename();
        if (!name.starts_with('.')) {
            names.push_back(std::move(name));
        }
    }
    return names;
}

Track track_of(const std::string& path, const reader::SheetTrack& part) {
    Track track{path, display_text(part.title), display_text(part.artist),
                display_text(part.album)};
    track.section = part.section;
    track.duration_ms = part.section.length_ms().value_or(0);
    return track;
}

}  // namespace

Sheets::Sheets(Interruption& interruption, const Logger& logger)
    : m_interruption(interruption),
      m_logger(logger),
      m_watch(interruption, [this] { m_reader.interrupt(); }) {}

Sheets::~Sheets() = default;

void Sheets::enter(const std::string& folder, const std::string& only_sheet) {
    if (m_sheets && m_folder == folder && m_only_sheet == only_sheet) {
        return;
    }
    m_folder = folder;
    m_only_sheet = only_sheet;
    std::vector<std::string> names = names_in(folder);
    if (!only_sheet.empty()) {
        std::erase_if(names, [&](const std::string& name) {
            return nuvio::is_sheet_name(name) && name != only_sheet;
        });
    }
    m_sheets = std::make_unique<reader::FolderSheets>(
        m_reader, std::move(names),
        [folder](const std::string& name) {
            std::string error;
            return open_regular_file(fs::path(folder) / name, &error);
        },
        [folder, this](const std::string& name, const std::string& why) {
            m_logger.write(LogLevel::warning, kContentFetcher, "%s: not taken apart: %s",
                           display_location((fs::path(folder) / name).native()).c_str(),
                           display_text(why).c_str());
        });
}

void Sheets::fail(const std::string& what, const reader::Failure& failure) {
    m_has_failed = true;
    if (!m_interruption.is_interrupted()) {
        m_logger.write(LogLevel::warning, kContentFetcher, "%s: sheets can't be read: %s",
                       display_location(what).c_str(), failure.reason.c_str());
    }
}

std::vector<Track> Sheets::files_of(const std::string& sheet) {
    const fs::path path(sheet);
    enter(path.parent_path(), path.filename());
    const auto files = m_sheets->files_of(path.filename());
    if (const auto* const failure = std::get_if<reader::Failure>(&files)) {
        fail(sheet, *failure);
        return {};
    }
    std::vector<Track> tracks;
    for (const std::string& name : std::get<std::vector<std::string>>(files)) {
        tracks.push_back({path.parent_path() / name});
    }
    return tracks;
}

reader::FolderSheets::Parts Sheets::parts_of(const std::string& path) {
    const fs::path file(path);
    if (m_folder != file.parent_path()) {
        enter(file.parent_path(), "");
    }
    const bool is_flac = nuvio::ends_with_ignoring_case(path, ".flac");
    const bool looks_inside = is_flac && m_looked_into < ContentLimits::kLookedInto;
    if (is_flac && ++m_looked_into == ContentLimits::kLookedInto + 1) {
        m_logger.write(LogLevel::info, kContentFetcher,
                       "%s: from here on no FLAC file is looked into for a sheet",
                       display_location(path).c_str());
    }
    auto parts = m_sheets->parts_of(file.filename(), looks_inside);
    if (const auto* const failure = std::get_if<reader::Failure>(&parts)) {
        fail(path, *failure);
        return {};
    }
    return std::get<reader::FolderSheets::Parts>(std::move(parts));
}

std::vector<Track> Sheets::tracks_of(Track file) {
    const auto parts = m_has_failed ? reader::FolderSheets::Parts{} : parts_of(file.location);
    std::vector<Track> tracks;
    tracks.reserve(parts.tracks.size());
    for (const reader::SheetTrack& part : parts.tracks) {
        tracks.push_back(track_of(file.location, part));
    }
    if (tracks.empty()) {
        tracks.push_back(std::move(file));
    }
    return tracks;
}

std::vector<Track> Sheets::applied_to(std::vector<Track> files) {
    std::vector<Track> tracks;
    size_t text_bytes = 0;
    for (Track& file : files) {
        for (Track& track : tracks_of(std::move(file))) {
            text_bytes += track.location.size() + track.title.size() + track.artist.size() +
                          track.album.size();
            if (text_bytes > ContentLimits::kTextBytes || tracks.size() == ContentLimits::kTracks) {
                m_logger.write(LogLevel::warning, kContentFetcher,
                               "%s: too large, only the first %zu tracks are played",
                               display_location(track.location).c_str(), tracks.size());
                return tracks;
            }
            tracks.push_back(std::move(track));
        }
    }
    return tracks;
}

}  // namespace local_core
