// Which audio files of a folder are several tracks, by CUE sheets: one beside the file that names
// it goes before one inside. Where a sheet is no good the file is one track as ever, and why is
// told, once.
//
// A sheet names files by their last name alone, in whatever case; one that is not there stands for
// the file of the same stem (a sheet's "Album.wav" is often the folder's "Album.flac"), and a
// sheet's only file, at last, for the one of the sheet's own stem.
//
// Threads  one at a time. Each call waits for the disk, see Questions.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"
#include "reader/client/music_reader.h"

namespace nuvio::reader {

class FolderSheets {
  public:
    // Of a file of the folder.
    using Open = std::function<UniqueFd(const std::string& name)>;
    using Refuse = std::function<void(const std::string& name, const std::string& why)>;

    // `names`: what is in the folder. The reader must outlive it.
    FolderSheets(MusicReader& reader, std::vector<std::string> names, Open open, Refuse refuse);

    struct Parts {
        std::string sheet;               // its name; empty: it is inside
        std::vector<SheetTrack> tracks;  // two or more, with titles; none: the file is one track
    };
    // Of an audio file of the folder. A FLAC file is looked into where `looks_inside`. A Failure:
    // no sheet is to blame, and nothing is known.
    Outcome<Parts> parts_of(const std::string& name, bool looks_inside = true);
    // The audio files that are there of those that a sheet names, in its order.
    Outcome<std::vector<std::string>> files_of(const std::string& sheet);

  private:
    std::optional<Failure> read_sheets();
    void take(const std::string& sheet, std::vector<SheetTrack> tracks);
    std::string file_named(const SheetTrack& track, const std::string& sheet, bool is_only) const;
    std::string file_of_stem(std::string_view stem) const;
    std::vector<SheetTrack> tracks_of(const std::string& name,
                                      Outcome<std::vector<SheetTrack>> sheet,
                                      std::optional<Failure>* failure);
    bool fits(const std::string& name, const Parts& parts);

    MusicReader& m_reader;
    std::vector<std::string> m_files, m_sheets;  // sorted
    const Open m_open;
    const Refuse m_refuse;
    bool m_is_read = false;
    std::map<std::string, Parts> m_parts;  // by the file
    std::map<std::string, std::vector<std::string>> m_files_of;
};

}  // namespace nuvio::reader
