#include "reader/client/folder_sheets.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "common/music/names.h"
#include "common/text.h"

namespace nuvio::reader {

namespace {

std::string_view stem(std::string_view name) {
    return name.substr(0, name.rfind('.'));
}

}  // namespace

FolderSheets::FolderSheets(MusicReader& reader, std::vector<std::string> names, Open open,
                           Refuse refuse)
    : m_reader(reader), m_open(std::move(open)), m_refuse(std::move(refuse)) {
    std::ranges::sort(names);
    for (std::string& name : names) {
        if (audio_kind_of(name) != nullptr) {
            m_files.push_back(std::move(name));
        } else if (is_sheet_name(name)) {
            m_sheets.push_back(std::move(name));
        }
    }
}

// What came of a sheet; one that is no good, which is told, has no tracks.
std::vector<SheetTrack> FolderSheets::tracks_of(const std::string& name,
                                                Outcome<std::vector<SheetTrack>> sheet,
                                                std::optional<Failure>* failure) {
    const auto* const failed = std::get_if<Failure>(&sheet);
    if (failed == nullptr) {
        return std::get<std::vector<SheetTrack>>(std::move(sheet));
    }
    if (failed->kind == Failure::Kind::file) {
        m_refuse(name, failed->reason);
    } else {
        *failure = *failed;
    }
    return {};
}

std::optional<Failure> FolderSheets::read_sheets() {
    std::optional<Failure> failure;
    for (auto sheet = m_sheets.begin(); !m_is_read && !failure && sheet != m_sheets.end();
         ++sheet) {
        const UniqueFd file = m_open(*sheet);
        if (!file) {
            m_refuse(*sheet, "it can't be opened");
        }
        take(*sheet, tracks_of(*sheet, m_reader.sheet(file), &failure));
    }
    m_is_read = !failure;
    return failure;
}

void FolderSheets::take(const std::string& sheet, std::vector<SheetTrack> tracks) {
    const bool is_only = std::ranges::all_of(
        tracks, [&](const SheetTrack& track) { return track.file == tracks.front().file; });
    std::map<std::string, Parts> found;
    std::vector<std::string>& files = m_files_of[sheet];
    std::string missing;
    for (SheetTrack& track : tracks) {
        const std::string file = file_named(track, sheet, is_only);
        if (file.empty()) {
            missing = track.file;
            continue;
        }
        if (std::ranges::find(files, file) == files.end()) {
            files.push_back(file);
        }
        Parts& parts = found.try_emplace(file, Parts{sheet, {}}).first->second;
        parts.tracks.push_back(std::move(track));
    }
    if (!missing.empty()) {
        m_refuse(sheet, "it names " + missing + ", which is not there");
    }
    std::erase_if(found, [&](const auto& row) {
        return m_parts.contains(row.first) || !fits(row.first, row.second);
    });
    m_parts.merge(found);  // what an earlier sheet names is its own
}

std::string FolderSheets::file_of_stem(std::string_view wanted) const {
    const auto found = std::ranges::find_if(
        m_files, [&](const std::string& file) { return equals_ignoring_case(stem(file), wanted); });
    return found == m_files.end() ? "" : *found;
}

std::string FolderSheets::file_named(const SheetTrack& track, const std::string& sheet,
                                     bool is_only) const {
    std::string_view name = track.file;
    name.remove_prefix(std::min(name.find_last_of("/\\") + 1, name.size()));
    for (const auto is_it :
         {+[](std::string_view file, std::string_view wanted) { return file == wanted; },
          +[](std::string_view file, std::string_view wanted) {
              return equals_ignoring_case(file, wanted);
          }}) {
        const auto found = std::ranges::find_if(
            m_files, [&](const std::string& file) { return is_it(file, name); });
        if (found != m_files.end()) {
            return *found;
        }
    }
    const std::string other = file_of_stem(stem(name));
    return other.empty() && is_only ? file_of_stem(stem(sheet)) : other;
}

bool FolderSheets::fits(const std::string& name, const Parts& parts) {
    if (parts.tracks.size() < 2) {
        return true;
    }
    const auto outcome = m_reader.tags(m_open(name));
    const auto* const tags = std::get_if<Tags>(&outcome);
    const uint64_t begin_us = parts.tracks.back().section.begin_us;
    if (tags == nullptr || tags->duration_ms == 0 ||
        begin_us < static_cast<uint64_t>(tags->duration_ms) * 1000) {
        return true;
    }
    m_refuse(parts.sheet, "its last track begins behind the end of " + name);
    return false;
}

Outcome<FolderSheets::Parts> FolderSheets::parts_of(const std::string& name, bool looks_inside) {
    std::optional<Failure> failure = read_sheets();
    Parts parts;
    if (const auto beside = m_parts.find(name); beside != m_parts.end()) {
        parts = beside->second;
    } else if (!failure && looks_inside && ends_with_ignoring_case(name, ".flac")) {
        parts.tracks = tracks_of(name, m_reader.sheet_inside(m_open(name)), &failure);
    }
    if (failure) {
        return *failure;
    }
    if (parts.tracks.size() < 2) {
        return Parts{};
    }
    for (SheetTrack& track : parts.tracks) {
        track.title = title_of(track);
    }
    return parts;
}

Outcome<std::vector<std::string>> FolderSheets::files_of(const std::string& sheet) {
    if (const auto failure = read_sheets()) {
        return *failure;
    }
    std::vector<std::string> files = m_files_of[sheet];
    if (const std::string own = file_of_stem(stem(sheet)); files.empty() && !own.empty()) {
        files.push_back(own);
    }
    return files;
}

}  // namespace nuvio::reader
