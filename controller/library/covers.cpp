#include "controller/library/covers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/files/files.h"
#include "common/fnv1a.h"
#include "common/music/pictures.h"
#include "controller/base/log.h"
#include "reader/client/music_reader.h"
#include "reader/client/picture_scaler.h"

namespace nuvio::controller {

namespace {

namespace fs = std::filesystem;

constexpr int kWorkers = 2;           // each with a process of its own beside it
constexpr int kSentFromMemory = 6;    // of at most 8 MiB
constexpr size_t kMaxKept = 2'000;    // files: some 150 MB
constexpr size_t kMaxKnown = 20'000;  // files whose pictures are remembered

// A file as it is now: another one, or another version of it, has another text.
std::string identity_of(const UniqueFd& file) {
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        return {};
    }
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "%llx:%llx:%llx:%llx.%lx",
                  static_cast<unsigned long long>(status.st_dev),
                  static_cast<unsigned long long>(status.st_ino),
                  static_cast<unsigned long long>(status.st_size),
                  static_cast<unsigned long long>(status.st_mtim.tv_sec),
                  static_cast<unsigned long>(status.st_mtim.tv_nsec));
    return text.data();
}

size_t size_of(const UniqueFd& file) {
    struct stat status {};
    return fstat(file.get(), &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

// Of the first `size` bytes; empty where there are fewer.
std::string hash_of(const UniqueFd& file, size_t size) {
    std::array<char, 32768> buffer;
    uint64_t hash = kFnv1aStart;
    size_t done = 0;
    while (done < size) {
        const ssize_t got = pread(file.get(), buffer.data(), std::min(buffer.size(), size - done),
                                  static_cast<off_t>(done));
        if (got <= 0) {
            return {};
        }
        hash = fnv1a(hash, {buffer.data(), static_cast<size_t>(got)});
        done += static_cast<size_t>(got);
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(hash));
    return text.data();
}

const PictureKind* kind_of(const UniqueFd& file) {
    std::array<char, kPictureStart> start{};
    const ssize_t got = pread(file.get(), start.data(), start.size(), 0);
    return got <= 0 ? nullptr : picture_kind_of({start.data(), static_cast<size_t>(got)});
}

std::string name_of(const std::string& hash, CoverSize size) {
    return hash + "-" + std::to_string(static_cast<uint32_t>(size)) + ".jpg";
}

// A place that was acquired, until it is given back.
using Room = std::shared_ptr<void>;

Room room_in(std::counting_semaphore<>& semaphore) {
    return {&semaphore, [](std::counting_semaphore<>* taken) { taken->release(); }};
}

}  // namespace

// A file in which the album's picture may be.
struct Covers::Candidate {
    UniqueFd file;
    bool is_music;  // or a picture
    std::string name;
};

struct Covers::Original {
    UniqueFd file;
    size_t size;
    const PictureKind* kind;
    bool is_in_memory;
    std::string hash;
};

Covers::Covers(const MusicFolders& folders, std::string folder)
    : m_folders(folders),
      m_folder(std::move(folder)),
      m_workers(kWorkers),
      m_room(kSentFromMemory) {
    std::error_code error;
    const fs::directory_iterator all(m_folder, error);
    m_kept_count = error ? 0 : static_cast<size_t>(std::distance(begin(all), end(all)));
}

std::vector<Covers::Candidate> Covers::candidates(const std::vector<Track>& tracks) const {
    std::vector<Candidate> all;
    const auto first = tracks.empty() ? std::nullopt : m_folders.index_of(tracks.front().root);
    if (first) {
        const std::string folder = parent_of(tracks.front().below);
        for (const std::string& name : pictures_in(m_folders.open_folder(*first, folder))) {
            all.push_back({m_folders.open_file(*first, folder + name), false, folder + name});
        }
    }
    for (const Track& track : tracks) {
        const std::optional<size_t> root = m_folders.index_of(track.root);
        if (root && track.is_readable) {
            all.push_back({m_folders.open_file(*root, track.below), true, track.below});
        }
    }
    return all;
}

Covers::Found Covers::open(const std::vector<Track>& tracks, CoverSize size) {
    for (Candidate& candidate : candidates(tracks)) {
        const std::string identity = identity_of(candidate.file);
        const std::optional<std::string> known = hash_known_of(identity);
        if (identity.empty() || known == "") {
            continue;
        }
        if (auto cover = known ? kept(*known, size) : std::nullopt) {
            return {std::move(cover)};
        }
        if (!m_workers.try_acquire_for(kPatience)) {
            return Found{.cover = std::nullopt, .is_busy = true};
        }
        const Room worker = room_in(m_workers);
        std::optional<Original> original = read(std::move(candidate), identity);
        if (!original) {
            continue;
        }
        if (auto cover = smaller(*original, size)) {
            return {std::move(cover)};
        }
        Room room;
        if (original->is_in_memory) {
            if (!m_room.try_acquire()) {
                return Found{.cover = std::nullopt, .is_busy = true};
            }
            room = room_in(m_room);
        }
        return {Cover{std::move(original->file), original->size, original->kind->type,
                      original->hash, std::move(room)}};
    }
    return {};
}

std::optional<std::string> Covers::hash_known_of(const std::string& identity) {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_hashes.find(identity);
    return found != m_hashes.end() ? std::optional(found->second) : std::nullopt;
}

void Covers::remember(const std::string& identity, const std::string& hash) {
    const std::scoped_lock lock(m_mutex);
    if (m_hashes.size() >= kMaxKnown) {
        m_hashes.clear();
    }
    m_hashes[identity] = hash;
}

std::optional<Covers::Original> Covers::read(Candidate candidate, const std::string& identity) {
    Original original{std::move(candidate.file), 0, nullptr, candidate.is_music, {}};
    if (candidate.is_music) {
        reader::MusicReader reader;  // of its own: what a reader has taken goes with it
        auto picture = reader.picture(original.file);
        if (const auto* const failure = std::get_if<reader::Failure>(&picture)) {
            log_line(LogLevel::warning,
                     "No picture from " + candidate.name + ": " + failure->reason);
            if (failure->kind == reader::Failure::Kind::file) {
                remember(identity, "");
            }
            return std::nullopt;
        }
        auto& read = std::get<reader::Picture>(picture);
        original.file = std::move(read.memory);
        original.size = read.size;
    } else {
        original.size = size_of(original.file);
    }
    original.kind =
        original.size == 0 || original.size > kMaxPictureBytes ? nullptr : kind_of(original.file);
    original.hash = original.kind == nullptr ? "" : hash_of(original.file, original.size);
    remember(identity, original.hash);
    return original.hash.empty() ? std::nullopt : std::optional(std::move(original));
}

std::optional<Cover> Covers::kept(const std::string& hash, CoverSize size) const {
    if (size == CoverSize::original) {
        return std::nullopt;
    }
    const std::string name = name_of(hash, size);
    UniqueFd file(::open((m_folder + "/" + name).c_str(), O_RDONLY | O_CLOEXEC));
    const size_t bytes = file ? size_of(file) : 0;
    return bytes == 0 ? std::nullopt
                      : std::optional(Cover{std::move(file), bytes, "image/jpeg", name, nullptr});
}

// None: it can't be made smaller.
std::optional<Cover> Covers::smaller(const Original& original, CoverSize size) {
    // Discs of one album, and pages of two people, ask for the same at once: the second finds it.
    const std::scoped_lock one_at_a_time(m_scaling);
    if (size == CoverSize::original || m_unscalable.contains(original.hash)) {
        return std::nullopt;
    }
    if (auto cover = kept(original.hash, size)) {
        return cover;
    }
    reader::PictureScaler scaler;
    auto scaled = scaler.scaled(original.file, static_cast<uint32_t>(size));
    if (const auto* const failure = std::get_if<reader::Failure>(&scaled)) {
        log_line(LogLevel::warning, "A cover is not made smaller: " + failure->reason);
        if (failure->kind != reader::Failure::Kind::file) {
            return std::nullopt;
        }
    }
    auto* const picture = std::get_if<reader::Picture>(&scaled);
    if (picture == nullptr || picture->size == 0) {
        if (m_unscalable.size() >= kMaxKnown) {
            m_unscalable.clear();
        }
        m_unscalable.insert(original.hash);
        return std::nullopt;
    }
    make_room();
    const std::string name = name_of(original.hash, size);
    const int error = replace_file(m_folder + "/" + name, picture->bytes());
    if (error != 0) {
        log_line(LogLevel::warning, m_folder + "/" + name + ": " + std::strerror(error));
    }
    return Cover{std::move(picture->memory), picture->size, "image/jpeg", name, nullptr};
}

// Of the files that are kept the oldest go.
void Covers::make_room() {
    if (++m_kept_count <= kMaxKept) {
        return;
    }
    std::vector<std::pair<fs::file_time_type, fs::path>> files;
    std::error_code error;
    for (fs::directory_iterator it(m_folder, error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        std::error_code ignored;
        files.emplace_back(it->last_write_time(ignored), it->path());
    }
    std::ranges::sort(files);
    const size_t superfluous = files.size() / 4;
    for (size_t i = 0; i < superfluous; ++i) {
        fs::remove(files[i].second, error);
    }
    m_kept_count = files.size() - superfluous;
}

}  // namespace nuvio::controller
