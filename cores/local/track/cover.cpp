#include "local/track/cover.h"

#include <unistd.h>

#include <filesystem>
#include <map>
#include <mutex>
#include <string_view>
#include <system_error>

#include "common/environment.h"
#include "common/files/files.h"
#include "common/fnv1a.h"
#include "common/music/pictures.h"
#include "local/texts/file_url.h"

namespace local_core {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrefix = "cover-";

struct Kept {
    std::mutex mutex;  // guards the map, and that a file is there as long as its entry lives
    std::map<std::string, std::weak_ptr<const KeptCover>> by_path;
};

Kept& kept() {
    // Never destroyed: a thread that hangs may outlive the process's end of the rest.
    static auto* const covers = new Kept();
    return *covers;
}

std::string state_directory() {
    return nuvio::environment_text("NUVIO_STATE_DIR");
}

// What a process that was killed has left.
void remove_old_covers(const fs::path& folder) {
    std::error_code error;
    for (fs::directory_iterator it(folder, error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        if (it->path().filename().string().starts_with(kPrefix)) {
            std::error_code ignored;
            fs::remove(it->path(), ignored);
        }
    }
}

}  // namespace

std::shared_ptr<const KeptCover> KeptCover::keep(std::string_view picture) {
    const std::string folder = state_directory();
    const nuvio::PictureKind* const kind = nuvio::picture_kind_of(picture);
    if (folder.empty() || kind == nullptr) {
        return nullptr;
    }
    std::error_code error;
    fs::create_directories(folder, error);
    static std::once_flag once;
    std::call_once(once, [&] { remove_old_covers(folder); });

    const std::string path = folder + "/" + std::string(kPrefix) +
                             std::to_string(nuvio::fnv1a(nuvio::kFnv1aStart, picture)) +
                             std::string(kind->ending);
    const std::string written = path + "." + std::to_string(gettid());
    if (nuvio::make_file(written, picture) != 0) {
        return nullptr;
    }
    const std::lock_guard lock(kept().mutex);
    std::weak_ptr<const KeptCover>& entry = kept().by_path[path];
    std::shared_ptr<const KeptCover> cover = entry.lock();
    if (cover) {
        unlink(written.c_str());
    } else if (rename(written.c_str(), path.c_str()) == 0) {
        cover.reset(new KeptCover(path));
        entry = cover;
    }
    return cover;
}

KeptCover::~KeptCover() {
    const std::lock_guard lock(kept().mutex);
    const auto entry = kept().by_path.find(m_path);
    if (entry != kept().by_path.end() && entry->second.expired()) {
        kept().by_path.erase(entry);
        unlink(m_path.c_str());
    }
}

std::string KeptCover::url() const {
    return file_url_from_path(m_path);
}

}  // namespace local_core
