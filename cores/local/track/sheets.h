// CUE sheets on this machine: files of tracks become their tracks.
//
// One thread, not the loop's. Blocks on the disk until the interruption. Logs each sheet that is no
// good by its name, with why; its file is then one track.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "local/base/logger.h"
#include "local/network/interruption.h"
#include "local/track/content.h"
#include "reader/client/folder_sheets.h"

namespace local_core {

class Sheets {
  public:
    Sheets(Interruption& interruption, const Logger& logger);
    ~Sheets();

    // The files that a sheet names, absolute as it is.
    std::vector<Track> files_of(const std::string& sheet);
    // The tracks in their order, each that is a file of several taken apart, within
    // ContentLimits.
    std::vector<Track> applied_to(std::vector<Track> files);

  private:
    void enter(const std::string& folder, const std::string& only_sheet);
    nuvio::reader::FolderSheets::Parts parts_of(const std::string& path);
    std::vector<Track> tracks_of(Track file);
    void fail(const std::string& what, const nuvio::reader::Failure& failure);

    Interruption& m_interruption;
    const Logger& m_logger;
    nuvio::reader::MusicReader m_reader;
    const Interruption::Watch m_watch;
    std::string m_folder;  // that m_sheets is of
    std::string m_only_sheet;
    std::unique_ptr<nuvio::reader::FolderSheets> m_sheets;
    size_t m_looked_into = 0;
    bool m_has_failed = false;  // nothing more is asked
};

}  // namespace local_core
