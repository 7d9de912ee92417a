#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "tools/simcard/simcard.h"

// The memory that all processes using one card map (card.state), and the two files that wake them.
//
// Everything that changes is a lock-free atomic, so a process may die at any point and leaves
// nothing locked. A change that others must notice is stored first and then announced with
// Mapping::touch; whoever is woken compares sequence numbers with those it saw last, so a merged or
// superfluous wake-up does no harm.
namespace simcard {

inline constexpr std::uint32_t kStateMagic = 0x4e53494d;
inline constexpr std::uint32_t kStateVersion = 3;
inline constexpr unsigned kMaximumFormats = 8;
inline constexpr unsigned kMaximumRates = 32;
inline constexpr unsigned kElementChannels = 2;
inline constexpr unsigned kElementNameSize = 32;
// The clock's speed is kept in billionths.
inline constexpr double kSpeedUnit = 1e9;

template <typename T>
using Shared = std::atomic<T>;
static_assert(Shared<std::uint64_t>::is_always_lock_free);
static_assert(Shared<std::int64_t>::is_always_lock_free);
static_assert(Shared<std::uint32_t>::is_always_lock_free);

struct OpState {
    Shared<std::uint64_t> calls;
    Shared<std::uint64_t> faults;
    Shared<std::uint64_t> fault_first;  // number of the first call to fail; 0: none
    Shared<std::uint64_t> fault_times;
    Shared<std::uint32_t> fault_error;  // positive errno
    Shared<std::uint32_t> fault_ms;     // how long a call that fails takes
};

// Written once, before the file gets its name.
struct FixedState {
    std::uint32_t format_count;
    std::uint32_t formats[kMaximumFormats];
    std::uint32_t rate_count;  // 0: the range counts
    std::uint32_t rates[kMaximumRates];
    std::uint32_t minimum_rate, maximum_rate;
    std::uint32_t minimum_channels, maximum_channels;
    std::uint32_t maximum_periods, padding;
    std::uint32_t exclusive, impossible, patient;
    char element_name[kElementNameSize];
    std::uint32_t has_volume, has_switch, read_only;
    std::int64_t minimum_volume, maximum_volume;
};

// One control of the element: a value a channel, and how often that changed.
struct ControlState {
    Shared<std::int64_t> values[kElementChannels];
    Shared<std::uint64_t> changes;
};

struct ElementState {
    Shared<std::uint32_t> present;
    Shared<std::uint32_t> padding;
    Shared<std::uint64_t> presence_changes;
    ControlState volume;  // raw
    ControlState on;      // 1: on, 0: muted
};

struct StreamState {
    Shared<std::uint32_t> state, format, rate, channels;
    Shared<std::uint64_t> buffer_frames, period_frames, written, played;
};

struct TotalsState {
    Shared<std::uint64_t> polls_with_room;
    Shared<std::uint64_t> frames_written, frames_played, frames_dropped;
    Shared<std::uint64_t> drops, underruns, closes;
};

struct SharedState {
    std::uint32_t magic, version;
    FixedState fixed;

    OpState ops[kOpCount];
    OpState short_writes;  // fault_error is the number of frames taken

    Shared<std::uint32_t> plugged;
    Shared<std::uint32_t> recording;
    Shared<std::uint32_t> resume_mode;  // a Resume
    Shared<std::uint32_t> padding;
    Shared<std::uint64_t> unplugs;  // a handle lives as long as this stays as it was at its open
    Shared<std::uint64_t> underrun_commands;
    Shared<std::uint64_t> suspend_commands;
    Shared<std::uint64_t> speed;          // in kSpeedUnit
    Shared<std::uint64_t> manual_frames;  // frames moved by hand since the card's creation
    Shared<std::uint64_t> next_recording;

    ElementState element;
    StreamState stream;
    TotalsState totals;
};
// Processes of 32 and of 64 bits use one card.
static_assert(alignof(Shared<std::uint64_t>) == 8);
static_assert(offsetof(FixedState, minimum_volume) == 248);
static_assert(offsetof(SharedState, ops) == 272 && offsetof(SharedState, plugged) == 1152);
static_assert(offsetof(SharedState, stream) == 1280 && sizeof(SharedState) == 1384);

// Counts the call and returns 0, or the negative errno it must fail with, after the time it must
// take.
int begin_call(OpState& op);
int begin_call(SharedState& state, Op op);
void arm_fault(OpState& op, std::uint32_t error, std::uint64_t after, std::uint64_t times,
               std::uint32_t ms = 0);
void clear_fault(OpState& op);

// Which watchers to wake.
enum class Watchers { streams, controls };
const char* event_file_name(Watchers watchers);

// The mapped state of one card. Movable, owns the mapping and the descriptors it touches with.
class Mapping {
  public:
    // Maps <directory>/card.state; on failure nothing, errno says why.
    static std::optional<Mapping> open(const std::string& directory);

    SharedState* operator->() const { return m_state.get(); }
    SharedState& operator*() const { return *m_state; }
    const std::string& directory() const { return m_directory; }
    // Wakes every process that watches.
    void touch(Watchers watchers) const;
    // Takes the card for this mapping alone until it is closed; false if another has it.
    bool lock_exclusively() const;

  private:
    struct Unmap {
        void operator()(SharedState* state) const;
    };

    Mapping() = default;

    std::string m_directory;
    std::unique_ptr<SharedState, Unmap> m_state;
    nuvio::UniqueFd m_state_fd;
    nuvio::UniqueFd m_event_fds[2];  // by Watchers
};

// Stores one control's values; true if that changed any, and then its watchers have been woken.
bool store_control(const Mapping& card, ControlState& control,
                   const std::int64_t (&values)[kElementChannels]);

// A non-blocking, close-on-exec inotify descriptor that becomes readable when the watchers are
// touched; invalid on failure, errno says why.
nuvio::UniqueFd watch(const std::string& directory, Watchers watchers);
// Reads all that waits in it.
void drain_watch(const nuvio::UniqueFd& watch);

}  // namespace simcard
