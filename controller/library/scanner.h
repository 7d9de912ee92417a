// Keeps the catalogue true: reads the music folders in the background, then follows the kernel's
// reports of changes (inotify) and of disks that are mounted.
//
// Threads  one of its own, from construction to destruction; request_scan and progress from any.
//          `on_change` is called on it, at most twice a second while it reads.
// Damage   a library's file that is found damaged, by a scan or by a reader, is removed and made
//          anew at once; any other error is tried again with the next change or request.
// Disks    a folder that can't be read keeps what is known of it, and so does one that is empty
//          and on another file system than it was read from, where a disk is mounted at other
//          times: a disk may be away for a while. Between scans none is held.
// Files    are read by a process of its own, the same for the whole of a scan. One that ends it is
//          listed by its name, and not read again until it has changed. One that a CUE sheet takes
//          apart is several tracks; all files of a folder are read anew when a sheet of it changes.
#pragma once

#include <sys/inotify.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "controller/library/catalogue.h"
#include "controller/library/library_view.h"
#include "controller/library/listing.h"
#include "controller/library/mounts.h"
#include "controller/library/music_folders.h"
#include "reader/client/music_reader.h"

namespace nuvio::controller {

struct ScanProgress {
    bool is_scanning = false;
    int64_t files_seen = 0;     // in this scan
    int64_t files_changed = 0;  // of these read, or gone
    int64_t tracks = 0;         // in the library
    int64_t revision = 0;       // grows when something in the library may have changed
    int64_t unreadable = 0;     // of the tracks: nothing could be read of their files
    std::string failure;        // of the last scan: the library's file can't be written, say
};

class Scanner {
  public:
    // Borrows the folders, and the readers, who let go of a file that is removed.
    Scanner(const MusicFolders& folders, const std::string& catalogue_path, LibraryView& view,
            std::function<void()> on_change);
    ~Scanner();
    Scanner(const Scanner&) = delete;
    Scanner& operator=(const Scanner&) = delete;

    // Everything once more; soon.
    void request_scan();
    // The library's file is damaged; soon. progress() says it at once.
    void make_anew(const DatabaseError& error);
    ScanProgress progress() const;

  private:
    void run();
    void wait_and_follow();
    void open_catalogue();
    void scan_everything();
    void scan_changed();
    void scan_below(const std::string& root, const std::string& below, int64_t id, bool deep);
    bool compare(const std::string& root, const std::string& below, int64_t id,
                 const Listing& listing);
    bool put(const std::string& root, const std::string& below, int64_t id, const std::string& name,
             const Catalogue::KnownFile& file, reader::FolderSheets& sheets);
    reader::FolderSheets sheets_of(const std::string& root, const std::string& below,
                                   const Listing& listing);
    UniqueFd open_file(const std::string& root, const std::string& below) const;
    bool list(const std::string& root, const std::string& below, int64_t id, Listing* listing);
    bool is_disk_away(int64_t id, const Listing& listing);
    void watch(int64_t folder, int fd);
    void unwatch(const std::vector<int64_t>& folders);
    void read_reports();
    void take(const inotify_event& report, const std::string& name);
    bool came_whole(int64_t folder, const std::string& name);
    void write_what_is_due();
    void note_tracks();
    void finish();
    template <typename Work>
    void scan(Work work);

    const MusicFolders& m_folders;
    const std::string m_path;
    LibraryView& m_view;
    const std::function<void()> m_on_change;
    Mounts m_mounts;
    UniqueFd m_reports;  // inotify
    UniqueFd m_wake_up;
    std::atomic<bool> m_is_ending = false;
    std::atomic<bool> m_is_scan_wanted = true;
    std::atomic<bool> m_is_damaged = false;  // the file is to be made anew

    mutable std::mutex m_mutex;
    ScanProgress m_progress;  // under m_mutex

    reader::MusicReader m_reader;  // the thread's, but for its interruption

    // The thread's own.
    std::string m_failure;  // of this scan, which goes on
    std::unique_ptr<Catalogue> m_catalogue;
    std::map<int, int64_t> m_folder_of_watch;
    std::map<int64_t, int> m_watch_of_folder;
    std::set<int64_t> m_changed;  // folders
    bool m_has_said_watches_are_few = false;
    bool m_is_dirty = false;  // since the last tidy()
    std::chrono::steady_clock::time_point m_last_write;

    std::thread m_thread;
};

}  // namespace nuvio::controller
