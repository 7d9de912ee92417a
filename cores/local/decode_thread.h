// The thread that decodes ahead of the audio, so that the loop's thread never waits for a file.
//
// A TrackPipe is one track on its way: opened, decoded block by block, positioned. The thread works
// on the pipes in the order they were opened. The earliest one that still has something to decode
// gets up to five seconds ahead of its reader, the ones behind it only a few blocks. It sleeps
// until a reader has used up most of what is ready, then fills it up again in one go.
//
// Memory: one pool of blocks, allocated once and shared by the pipes; the reader borrows a block
// and gives it back. Nothing is copied between decoder and reader, nothing allocated while
// decoding.
//
// Threads: every public call belongs to the loop's thread and returns at once, but for the
// destructor, which waits for the block or file that is being worked on. `on_news` is called on the
// decoding thread, without a lock held, when something that a reader waits for has happened.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "local/content.h"
#include "local/logger.h"
#include "local/track_decoder.h"
#include "local/track_texts.h"

namespace local_core {

// Whole frames in a block of the pool.
struct PcmBlock {
    std::byte* data = nullptr;
    size_t size_bytes = 0;
};

class TrackPipe;
using TrackPipePtr = std::shared_ptr<TrackPipe>;

class DecodeThread {
  public:
    static constexpr size_t kBlockBytes = size_t{64} << 10;
    static constexpr size_t kPoolBlocks = 32;

    // Throws std::system_error when no thread can be started.
    // Tracks above `highest` fail to open.
    DecodeThread(std::function<void()> on_news, nuv_audio_quality highest, const Logger& logger);
    ~DecodeThread();

    TrackPipePtr open(Track track);
    // The pipe's blocks that the reader still holds must have been given back.
    void close(TrackPipePtr pipe);

    enum class Opening { in_progress, ready, failed };
    Opening opening(const TrackPipe& pipe);
    // Once ready; valid as long as the pipe.
    static const TrackInfo& info(const TrackPipe& pipe);
    static const TrackTexts& texts(const TrackPipe& pipe);
    // Once failed.
    static const std::string& open_error(const TrackPipe& pipe);

    // The track's last frame is decoded, though not read yet.
    static bool decoded_wholly(const TrackPipe& pipe);

    enum class Taken { block, wait, end };
    // Takes the next block, to be given back. `wait`: news follow when there is one.
    Taken take(TrackPipe& pipe, PcmBlock* block);
    void give_back(const PcmBlock& block);

    // Drops what is decoded and goes on at `frame`. The blocks in hand must have been given back;
    // nothing is taken until the seek is done.
    void seek(TrackPipe& pipe, uint64_t frame);
    // The frame reached by the last seek (the end of a track that can't be positioned); none while
    // it is under way.
    std::optional<uint64_t> seek_result(TrackPipe& pipe);

  private:
    void run();
    TrackPipePtr next_job();
    bool wants_blocks(TrackPipe& pipe);
    void wake_if_wanted(TrackPipe& pipe);
    void open_file(TrackPipe& pipe, std::unique_lock<std::mutex>& lock);
    void position(TrackPipe& pipe, std::unique_lock<std::mutex>& lock);
    void decode_block(TrackPipe& pipe, std::unique_lock<std::mutex>& lock);
    void drop_blocks(TrackPipe& pipe);
    void log_early_end(const TrackPipe& pipe) const;

    const std::function<void()> m_on_news;
    const nuv_audio_quality m_highest;
    const Logger& m_logger;
    const std::unique_ptr<std::byte[]> m_pool;

    // Guards everything below and the pipes' shared state.
    std::mutex m_mutex;
    std::condition_variable m_work;
    std::vector<TrackPipePtr> m_pipes;   // in the order of opening
    std::vector<TrackPipePtr> m_closed;  // their files are closed on the decoding thread
    std::vector<std::byte*> m_free_blocks;
    bool m_pool_dry = false;  // decoding waits for a block
    bool m_stopping = false;

    std::thread m_thread;  // last: runs on the members above
};

}  // namespace local_core
