#include "controller/library/scanner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <utility>

#include "common/music/names.h"
#include "controller/base/log.h"

namespace nuvio::controller {

namespace {

constexpr char kMadeAnew[] = "The library is read anew: ";
using Clock = std::chrono::steady_clock;
constexpr auto kBetweenWrites = std::chrono::milliseconds(500);
// Programs that copy an album report each file: the folder is read when they pause.
constexpr int kSettleMs = 400;
constexpr int kLongestSettleMs = 5000;
constexpr size_t kMaxDepth = 64;
constexpr uint32_t kReports = IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                              IN_ONLYDIR | IN_EXCL_UNLINK;

std::string joined(const std::string& below, std::string_view name) {
    return below.empty() ? std::string(name) : below + "/" + std::string(name);
}

std::string_view last_name(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

Scanner::Scanner(const MusicFolders& folders, const std::string& catalogue_path, LibraryView& view,
                 std::function<void()> on_change)
    : m_folders(folders),
      m_path(catalogue_path),
      m_view(view),
      m_on_change(std::move(on_change)),
      m_mounts(folders.paths()),
      m_reports(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      m_wake_up(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_thread([this] { run(); }) {}

Scanner::~Scanner() {
    m_is_ending = true;
    m_reader.interrupt();
    eventfd_write(m_wake_up.get(), 1);
    m_thread.join();
}

void Scanner::request_scan() {
    m_is_scan_wanted = true;
    eventfd_write(m_wake_up.get(), 1);
}

void Scanner::make_anew(const DatabaseError& error) {
    const std::string failure = std::string(kMadeAnew) + error.what();
    log_line(LogLevel::error, failure);
    {
        const std::scoped_lock lock(m_mutex);
        m_progress.failure = failure;
    }
    m_is_damaged = true;
    request_scan();
}

ScanProgress Scanner::progress() const {
    const std::scoped_lock lock(m_mutex);
    return m_progress;
}

void Scanner::run() {
    while (!m_is_ending) {
        if (m_is_scan_wanted.exchange(false)) {
            scan([this] { scan_everything(); });
        } else if (!m_changed.empty()) {
            scan([this] { scan_changed(); });
        }
        wait_and_follow();
    }
}

void Scanner::open_catalogue() {
    if (m_is_damaged) {
        m_catalogue.reset();
        m_folder_of_watch.clear();
        m_watch_of_folder.clear();
        m_view.replace_file([this] {
            m_is_damaged = false;  // in here, as readers told of the old file until now
            Catalogue::remove(m_path);
            m_catalogue = std::make_unique<Catalogue>(m_path);
        });
    } else if (m_catalogue == nullptr) {
        m_catalogue = std::make_unique<Catalogue>(m_path);
    }
}

// What fails is tried again with the next change or request; at once where the file is damaged, but
// not twice, as then it is the disk.
template <typename Work>
void Scanner::scan(Work work) {
    {
        const std::scoped_lock lock(m_mutex);
        m_progress.is_scanning = true;
        m_progress.files_seen = m_progress.files_changed = 0;
    }
    m_on_change();
    m_failure.clear();
    const bool is_made_anew = m_is_damaged;
    try {
        open_catalogue();
        m_last_write = Clock::now();
        m_catalogue->begin();
        work();
        if (std::exchange(m_is_dirty, false)) {
            m_catalogue->tidy();
        }
        m_catalogue->commit();
        m_catalogue->end_first_scan();
        note_tracks();
    } catch (const DatabaseError& error) {
        m_failure = error.is_damage() ? kMadeAnew : "The library can't be written: ";
        m_failure += error.what();
        m_catalogue.reset();
        if (error.is_damage()) {
            m_is_damaged = true;
            m_is_scan_wanted = m_is_scan_wanted || !is_made_anew;
        }
    }
    m_reader.rest();
    if (!m_failure.empty()) {
        log_line(LogLevel::error, m_failure);
    }
    finish();
}

void Scanner::note_tracks() {
    const int64_t tracks = m_catalogue->track_count();
    const int64_t unreadable = m_catalogue->unreadable_count();
    const std::scoped_lock lock(m_mutex);
    m_progress.tracks = tracks;
    m_progress.unreadable = unreadable;
    m_progress.revision += m_progress.files_changed > 0 ? 1 : 0;
}

void Scanner::finish() {
    {
        const std::scoped_lock lock(m_mutex);
        m_progress.is_scanning = false;
        m_progress.failure = m_failure;
    }
    m_on_change();
}

void Scanner::scan_everything() {
    m_changed.clear();
    m_catalogue->keep_only(m_folders.paths());
    for (const std::string& root : m_folders.paths()) {
        scan_below(root, "", m_catalogue->folder(root, "", last_name(root), 0), true);
    }
}

void Scanner::scan_changed() {
    for (const int64_t id : std::exchange(m_changed, {})) {
        const Catalogue::Folder folder = m_catalogue->folder_at(id);
        if (folder.id != 0) {
            scan_below(folder.root, folder.below, id, false);
        }
    }
}

// `deep`: all folders below; else only those that are new.
void Scanner::scan_below(const std::string& root, const std::string& below, int64_t id, bool deep) {
    struct Task {
        std::string below;
        int64_t id;
    };
    std::vector<Task> tasks{{below, id}};
    while (!tasks.empty() && !m_is_ending) {
        const Task task = std::move(tasks.back());
        tasks.pop_back();
        Listing listing;
        if (!list(root, task.below, task.id, &listing) || is_disk_away(task.id, listing)) {
            continue;
        }
        const auto known = m_catalogue->folders_in(task.id);
        m_is_dirty = compare(root, task.below, task.id, listing) || m_is_dirty;
        const bool is_deep_enough =
            static_cast<size_t>(std::ranges::count(task.below, '/')) >= kMaxDepth;
        for (const std::string& name : listing.folders) {
            if (!is_deep_enough && (deep || !known.contains(name))) {
                const std::string path = joined(task.below, name);
                tasks.push_back({path, m_catalogue->folder(root, path, name, task.id)});
            }
        }
    }
}

// Watched before it is read, so that no change falls between.
bool Scanner::list(const std::string& root, const std::string& below, int64_t id,
                   Listing* listing) {
    const std::optional<size_t> index = m_folders.index_of(root);
    UniqueFd fd = index ? m_folders.open_folder(*index, below) : UniqueFd();
    if (!fd) {
        return false;
    }
    watch(id, fd.get());
    return read_listing(std::move(fd), listing);
}

// What is not away is noted. A disk's number may be another one at each mount, so what has
// something in it is taken for the disk.
bool Scanner::is_disk_away(int64_t id, const Listing& listing) {
    const int64_t known = m_catalogue->device_of(id);
    if (known == listing.device) {
        return false;
    }
    if (known != 0 && listing.files.empty() && listing.folders.empty()) {
        return true;
    }
    m_catalogue->set_device(id, listing.device);
    return false;
}

// Brings the catalogue's folder in line with the disk's; true when something was to be done.
bool Scanner::compare(const std::string& root, const std::string& below, int64_t id,
                      const Listing& listing) {
    int64_t changed = m_catalogue->put_playlists(id, listing.playlists);
    std::vector<int64_t> gone;
    const auto known_files = m_catalogue->files_in(id);
    reader::FolderSheets sheets = sheets_of(root, below, listing);
    for (const auto& [name, file] : listing.files) {
        const auto known = known_files.find(name);
        const bool is_same = known != known_files.end() && known->second == file;
        if (!is_same && !m_is_ending && put(root, below, id, name, file, sheets)) {
            ++changed;
            write_what_is_due();
        }
    }
    for (const auto& [name, file] : known_files) {
        if (!listing.files.contains(name)) {
            m_catalogue->remove_file(id, name);
            ++changed;
        }
    }
    for (const auto& [name, folder] : m_catalogue->folders_in(id)) {
        if (!listing.folders.contains(name)) {
            m_catalogue->remove_folder(folder, &gone);
            ++changed;
        }
    }
    unwatch(gone);
    {
        const std::scoped_lock lock(m_mutex);
        m_progress.files_seen += static_cast<int64_t>(listing.files.size());
        m_progress.files_changed += changed;
    }
    write_what_is_due();
    return changed != 0;
}

UniqueFd Scanner::open_file(const std::string& root, const std::string& below) const {
    const std::optional<size_t> index = m_folders.index_of(root);
    return index ? m_folders.open_file(*index, below) : UniqueFd();
}

reader::FolderSheets Scanner::sheets_of(const std::string& root, const std::string& below,
                                        const Listing& listing) {
    std::vector<std::string> names;
    for (const auto* const files : {&listing.files, &listing.sheets}) {
        for (const auto& [name, file] : *files) {
            names.push_back(name);
        }
    }
    return {m_reader, std::move(names),
            [=, this](const std::string& name) { return open_file(root, joined(below, name)); },
            [=](const std::string& name, const std::string& why) {
                log_line(LogLevel::warning,
                         "Not taken apart: " + joined(joined(root, below), name) + ": " + why);
            }};
}

// False where it could not be tried: what is known of it stays, and it is read in the next scan.
bool Scanner::put(const std::string& root, const std::string& below, int64_t id,
                  const std::string& name, const Catalogue::KnownFile& file,
                  reader::FolderSheets& sheets) {
    const std::string path = joined(below, name);
    const auto tags = m_reader.tags(open_file(root, path));
    auto parts = std::holds_alternative<reader::Tags>(tags) ? sheets.parts_of(name)
                                                            : reader::FolderSheets::Parts{};
    const auto* const failure = std::get_if<reader::Failure>(&tags);
    const auto* const sheets_failure = std::get_if<reader::Failure>(&parts);
    const auto* const untried = failure != nullptr && failure->kind != reader::Failure::Kind::file
                                    ? failure
                                    : sheets_failure;
    if (untried != nullptr) {
        m_failure = m_is_ending ? "" : "Files can't be read: " + untried->reason;
        return false;
    }
    if (failure != nullptr) {
        log_line(LogLevel::warning, "Not read: " + joined(root, path) + ": " + failure->reason);
    }
    m_catalogue->put(id, last_name(below.empty() ? root : below), name, file,
                     failure != nullptr ? reader::Tags{} : std::get<reader::Tags>(tags),
                     std::get<reader::FolderSheets::Parts>(parts),
                     failure != nullptr ? failure->reason : "");
    return true;
}

// What has been read so far can be found while the rest is read.
void Scanner::write_what_is_due() {
    if (Clock::now() - m_last_write > kBetweenWrites) {
        m_catalogue->commit();
        note_tracks();
        m_on_change();
        m_catalogue->begin();
        m_last_write = Clock::now();
    }
}

void Scanner::watch(int64_t folder, int fd) {
    const int id = inotify_add_watch(m_reports.get(),
                                     ("/proc/self/fd/" + std::to_string(fd)).c_str(), kReports);
    if (id < 0) {
        if (!std::exchange(m_has_said_watches_are_few, true)) {
            log_line(LogLevel::warning, "Changes in some folders are seen by a scan only: " +
                                            std::string(std::strerror(errno)) +
                                            " (fs.inotify.max_user_watches)");
        }
        return;
    }
    m_folder_of_watch[id] = folder;
    m_watch_of_folder[folder] = id;
}

// A folder that was moved has its watch at its new place already.
void Scanner::unwatch(const std::vector<int64_t>& folders) {
    for (const int64_t folder : folders) {
        const auto watch = m_watch_of_folder.find(folder);
        if (watch == m_watch_of_folder.end()) {
            continue;
        }
        const auto owner = m_folder_of_watch.find(watch->second);
        if (owner != m_folder_of_watch.end() && owner->second == folder) {
            inotify_rm_watch(m_reports.get(), watch->second);
            m_folder_of_watch.erase(owner);
        }
        m_watch_of_folder.erase(watch);
    }
}

// Until there is something to do; after the first report until a pause in them.
void Scanner::wait_and_follow() {
    std::array<pollfd, 3> waits{
        {{m_reports.get(), POLLIN, 0}, {m_wake_up.get(), POLLIN, 0}, {m_mounts.fd(), POLLPRI, 0}}};
    const auto begin = Clock::now();
    while (!m_is_ending && !m_is_scan_wanted) {
        const bool has_changes = !m_changed.empty();
        if (has_changes && Clock::now() - begin > std::chrono::milliseconds(kLongestSettleMs)) {
            return;
        }
        const int ready = poll(waits.data(), waits.size(), has_changes ? kSettleMs : -1);
        if (ready == 0) {
            return;
        }
        eventfd_t ignored = 0;
        eventfd_read(m_wake_up.get(), &ignored);
        if (waits[2].revents != 0 && m_mounts.have_come()) {
            m_is_scan_wanted = true;
        }
        read_reports();
    }
}

void Scanner::read_reports() {
    alignas(inotify_event) std::array<char, 16384> buffer;
    ssize_t got = 0;
    while ((got = read(m_reports.get(), buffer.data(), buffer.size())) > 0) {
        for (ssize_t at = 0; at < got;) {
            inotify_event report{};
            std::memcpy(&report, buffer.data() + at, sizeof report);
            const char* const name = buffer.data() + at + sizeof report;
            at += static_cast<ssize_t>(sizeof report + report.len);
            take(report, report.len > 0 ? name : "");
        }
    }
}

void Scanner::take(const inotify_event& report, const std::string& name) {
    if ((report.mask & IN_Q_OVERFLOW) != 0) {
        m_is_scan_wanted = true;
    }
    const auto found = m_folder_of_watch.find(report.wd);
    if (found == m_folder_of_watch.end()) {
        return;
    }
    const int64_t folder = found->second;
    if ((report.mask & IN_IGNORED) != 0) {
        const auto watch = m_watch_of_folder.find(folder);
        if (watch != m_watch_of_folder.end() && watch->second == report.wd) {
            m_watch_of_folder.erase(watch);  // else it is watched on another disk by now
        }
        m_folder_of_watch.erase(found);
    } else if ((report.mask & IN_UNMOUNT) == 0 &&  // to look for a disk could mount it again
               ((report.mask & (IN_CREATE | IN_ISDIR)) != IN_CREATE || came_whole(folder, name))) {
        m_changed.insert(folder);
    }
}

// Of a file that is new in a folder. One that is being written is read when it has been, which is
// reported; a hard link, and what takes its one name by way of a link, reports nothing more.
bool Scanner::came_whole(int64_t folder, const std::string& name) {
    if (audio_kind_of(name) == nullptr && !is_sheet_name(name) && !is_playlist_name(name)) {
        return false;
    }
    try {
        const Catalogue::Folder at =
            m_catalogue ? m_catalogue->folder_at(folder) : Catalogue::Folder{};
        const UniqueFd file = open_file(at.root, joined(at.below, name));
        struct stat status {};
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return fstat(file.get(), &status) == 0 &&
               (status.st_nlink > 1 || nanoseconds(now) - nanoseconds(status.st_mtim) >
                                           int64_t{kLongestSettleMs} * 1'000'000);
    } catch (const DatabaseError&) {
        return true;  // the scan says it
    }
}

}  // namespace nuvio::controller
