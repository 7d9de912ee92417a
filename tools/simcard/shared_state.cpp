#include "tools/simcard/shared_state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <iterator>
#include <thread>
#include <utility>

namespace simcard {

namespace {

constexpr const char* kOpNames[] = {
    "open",
    "hw_params",
    "prepare",
    "start",
    "write",
    "pointer",
    "delay",
    "pause",
    "resume",
    "drop",
    "drain",
    "poll_descriptor_count",
    "poll_descriptors",
    "poll_revents",
    "ctl_open",
    "ctl_list",
    "read_volume",
    "write_volume",
    "read_switch",
    "write_switch",
    "read_event",
};
static_assert(std::size(kOpNames) == kOpCount);

constexpr Watchers kAllWatchers[] = {Watchers::streams, Watchers::controls};

}  // namespace

const char* op_name(Op op) {
    return kOpNames[static_cast<std::size_t>(op)];
}

int begin_call(OpState& op) {
    const std::uint64_t number = op.calls.fetch_add(1) + 1;
    const std::uint64_t first = op.fault_first.load();
    if (first == 0 || number < first || number - first >= op.fault_times.load()) {
        return 0;
    }
    op.faults.fetch_add(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(op.fault_ms));
    return -static_cast<int>(op.fault_error.load());
}

int begin_call(SharedState& state, Op op) {
    return begin_call(state.ops[static_cast<std::size_t>(op)]);
}

void arm_fault(OpState& op, std::uint32_t error, std::uint64_t after, std::uint64_t times,
               std::uint32_t ms) {
    clear_fault(op);
    op.fault_error = error;
    op.fault_ms = ms;
    op.fault_times = times;
    op.fault_first = op.calls.load() + 1 + after;
}

void clear_fault(OpState& op) {
    op.fault_first = 0;
}

const char* event_file_name(Watchers watchers) {
    return watchers == Watchers::streams ? "pcm.event" : "ctl.event";
}

std::optional<Mapping> Mapping::open(const std::string& directory) {
    Mapping mapping;
    mapping.m_directory = directory;
    mapping.m_state_fd =
        nuvio::UniqueFd(::open((directory + "/card.state").c_str(), O_RDWR | O_CLOEXEC));
    struct stat file = {};
    if (!mapping.m_state_fd || fstat(mapping.m_state_fd.get(), &file) != 0) {
        return std::nullopt;
    }
    if (static_cast<std::uint64_t>(file.st_size) != sizeof(SharedState)) {
        errno = EINVAL;
        return std::nullopt;
    }
    void* const memory = mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED,
                              mapping.m_state_fd.get(), 0);
    if (memory == MAP_FAILED) {
        return std::nullopt;
    }
    mapping.m_state.reset(static_cast<SharedState*>(memory));
    if (mapping->magic != kStateMagic || mapping->version != kStateVersion) {
        errno = EINVAL;
        return std::nullopt;
    }
    for (const Watchers watchers : kAllWatchers) {
        const std::string path = directory + "/" + event_file_name(watchers);
        nuvio::UniqueFd& fd = mapping.m_event_fds[static_cast<int>(watchers)];
        fd = nuvio::UniqueFd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
        if (!fd) {
            return std::nullopt;
        }
    }
    return mapping;
}

void Mapping::Unmap::operator()(SharedState* state) const {
    munmap(state, sizeof(SharedState));
}

void Mapping::touch(Watchers watchers) const {
    const char byte = 0;
    // The event is the write, its success and the file's content don't matter.
    [[maybe_unused]] const ssize_t written =
        pwrite(m_event_fds[static_cast<int>(watchers)].get(), &byte, sizeof(byte), 0);
}

bool Mapping::lock_exclusively() const {
    return flock(m_state_fd.get(), LOCK_EX | LOCK_NB) == 0;
}

bool store_control(const Mapping& card, ControlState& control,
                   const std::int64_t (&values)[kElementChannels]) {
    bool changed = false;
    for (unsigned i = 0; i < kElementChannels; ++i) {
        changed |= control.values[i].exchange(values[i]) != values[i];
    }
    if (changed) {
        control.changes.fetch_add(1);
        card.touch(Watchers::controls);
    }
    return changed;
}

nuvio::UniqueFd watch(const std::string& directory, Watchers watchers) {
    nuvio::UniqueFd fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const std::string path = directory + "/" + event_file_name(watchers);
    if (fd && inotify_add_watch(fd.get(), path.c_str(), IN_MODIFY) < 0) {
        fd.reset();
    }
    return fd;
}

void drain_watch(const nuvio::UniqueFd& watch) {
    alignas(inotify_event) char buffer[4096];
    while (read(watch.get(), buffer, sizeof(buffer)) > 0) {
    }
}

}  // namespace simcard
