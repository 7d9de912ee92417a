// One track on its way to the renderer: decoded ahead of the loop by a process of its own, which a
// thread of its own opens, serves and positions, so that the loop never waits for a file or a
// server, and no track for another one's.
//
// The reader gets up to five seconds ahead of the loop. Then it sleeps until the loop has used up
// most of what is ready, and fills it up again in one go. The blocks are memory that both processes
// see: the loop borrows one and gives it back; nothing is copied between decoder and loop, nothing
// allocated while decoding.
//
// A thread whose file hangs while it is opened is left to itself when its pipe goes: it touches
// nothing but its own track then, and ends when the disk answers.
//
// Threads: every public call belongs to the loop's thread and returns at once, but for the crew's
// destructor.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "local/base/logger.h"
#include "local/track/content.h"
#include "local/track/track_decoder.h"
#include "local/track/track_texts.h"
#include "local/track/verification.h"

namespace local_core {

// Whole frames in a block of a pipe's.
struct PcmBlock {
    std::byte* data = nullptr;
    size_t size_bytes = 0;
};

class TrackWork;
struct CrewShared;

class TrackPipe {
  public:
    static constexpr size_t kBlockBytes = size_t{64} << 10;

    // The blocks that the loop still holds must have been given back.
    ~TrackPipe();
    TrackPipe(const TrackPipe&) = delete;
    TrackPipe& operator=(const TrackPipe&) = delete;

    enum class Opening { in_progress, ready, failed };
    Opening opening() const;
    // Once ready; valid as long as the pipe.
    const TrackInfo& info() const;
    const TrackTexts& texts() const;
    // Once failed.
    const std::string& open_error() const;

    // The track's last frame is decoded, though not read yet, or no more of it will come.
    bool is_decoded_wholly() const;
    // Why no more of it will come, or why it could not be opened; `none` for a reason that has
    // nothing to do with the network. Once failed or decoded wholly.
    HttpFailure failure() const;

    enum class Taken { block, wait, end };
    // Takes the next block, to be given back. `wait`: it is told when there is one.
    Taken take(PcmBlock* block);
    void give_back(const PcmBlock& block);
    // Other texts that belong to the sound from the block taken last on; each is told of once.
    std::optional<TrackTexts> take_new_texts();

    // What the output has taken of a block, in turn.
    void add_taken(const std::byte* samples, size_t bytes);
    // Whether that was the file's, all of it where the track is `played_out`; once, told in the
    // log too. Of a track that could be opened.
    Verdict conclude(bool is_played_out);

    // Drops what is decoded and goes on at `frame`. The blocks in hand must have been given back;
    // nothing is taken until the seek is done.
    void seek(uint64_t frame);
    // The frame reached by the last seek (the end of a track that can't be positioned); none while
    // it is under way.
    std::optional<uint64_t> seek_result() const;

    // Since when the loop has been waiting for the disk of a track of this machine.
    std::optional<std::chrono::steady_clock::time_point> waiting_since() const;
    // Waits no longer: it fails to open, or ends here. Its thread is left to itself.
    void give_up();

  private:
    friend class DecodeCrew;
    explicit TrackPipe(std::shared_ptr<TrackWork> work);

    const std::shared_ptr<TrackWork> m_work;
};

// The threads of one core's pipes. Pipes must be gone before it.
class DecodeCrew {
  public:
    // Threads at work at a time, those that hang included.
    static constexpr int kMaxThreads = 16;
    static constexpr std::chrono::seconds kPatience{1};

    // `on_change` is called on the pipes' threads when something that the loop waits for has
    // happened, never after the destructor. Tracks that the output
    // does not take fail to open.
    DecodeCrew(std::function<void()> on_change, const Output& output,
               std::shared_ptr<const Logger> logger);
    // Waits for the threads, which may have to finish a block, but no longer than kPatience.
    ~DecodeCrew();
    DecodeCrew(const DecodeCrew&) = delete;
    DecodeCrew& operator=(const DecodeCrew&) = delete;

    // One that fails to open where there is no thread for it.
    std::unique_ptr<TrackPipe> open(Track track);

  private:
    const std::shared_ptr<CrewShared> m_shared;
};

}  // namespace local_core
