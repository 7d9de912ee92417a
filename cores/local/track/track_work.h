// What a pipe and its thread share: the inside of track_pipe.h, for its two sources alone.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "local/network/interruption.h"
#include "local/texts/display_text.h"
#include "local/track/track_cover.h"
#include "local/track/track_pipe.h"
#include "local/track/verification.h"

namespace local_core {

// What the threads share with the core, and use without it when they are left behind.
struct CrewShared {
    Output output;
    std::shared_ptr<const Logger> logger;

    std::mutex mutex;  // guards what follows; also held while on_change is called
    std::condition_variable thread_ended;
    std::function<void()> on_change;
    int threads = 0;

    bool add_thread() {
        const std::lock_guard lock(mutex);
        return threads < DecodeCrew::kMaxThreads && ++threads > 0;
    }
    // How many are left.
    int remove_thread() {
        const std::lock_guard lock(mutex);
        thread_ended.notify_all();
        return --threads;
    }
    void tell_change() {
        const std::lock_guard lock(mutex);
        if (on_change) {
            on_change();
        }
    }
};

// Belongs to the pipe and to its thread; the last of them frees it.
class TrackWork {
  public:
    using Clock = std::chrono::steady_clock;
    using Opening = TrackPipe::Opening;
    using Taken = TrackPipe::Taken;

    TrackWork(Track track, std::shared_ptr<CrewShared> crew)
        : m_track(std::move(track)), m_crew(std::move(crew)) {}

    // ---- The thread's

    void run();
    // Instead of run().
    void fail(std::string error);

    // ---- The loop's, see TrackPipe

    Opening opening() const;
    const TrackInfo& info() const { return m_decoder->info(); }
    const TrackTexts& texts() const { return m_texts; }
    const std::string& open_error() const { return m_failure.reason; }
    bool is_decoded_wholly() const { return m_is_decoded_wholly.load(std::memory_order_acquire); }

    HttpFailure failure() const;
    Taken take(PcmBlock* block);
    void give_back(const PcmBlock& block);
    std::optional<TrackTexts> take_new_texts();
    Verification& verification() { return *m_verification; }
    Verdict conclude(bool is_played_out);
    void seek(uint64_t frame);
    std::optional<uint64_t> seek_result() const {
        const std::lock_guard lock(m_mutex);
        return m_seek_result;
    }

    std::optional<Clock::time_point> waiting_since() const;
    void give_up();
    void close();

  private:
    // A queue in memory that is taken once.
    class Blocks {
      public:
        void resize(size_t capacity) { m_ring.resize(capacity); }
        bool empty() const { return m_count == 0; }
        size_t size() const { return m_count; }
        const PcmBlock& front() const { return m_ring[m_first]; }
        void push_back(const PcmBlock& block) {
            m_ring[(m_first + m_count++) % m_ring.size()] = block;
        }
        void pop_front() {
            m_first = (m_first + 1) % m_ring.size();
            --m_count;
        }

      private:
        std::vector<PcmBlock> m_ring;
        size_t m_first = 0;
        size_t m_count = 0;
    };

    // Under the lock, which they give back for what may take time.
    void work_or_wait(std::unique_lock<std::mutex>& lock);
    void take_fetched_cover(std::unique_lock<std::mutex>& lock);
    void open();

    // How many bytes go into a block, and how many blocks get the pipe kAheadMs ahead.
    void provide_blocks();
    void position(uint64_t target, std::unique_lock<std::mutex>& lock);
    void decode(std::unique_lock<std::mutex>& lock);
    void begin_read();
    void end_read();
    void give(std::byte* block);
    void collect();
    void wake_if_low();
    std::chrono::milliseconds take_news();
    void note_live_title(const std::string& title);
    void note_title(const std::string& title, const std::string* artist);
    void drop_blocks();
    void end_here();
    void log_notes() const;
    void log_early_end() const;
    std::string name() const { return display_location(m_track.location); }

    const Track m_track;
    const std::shared_ptr<CrewShared> m_crew;
    Interruption m_interruption;

    // The thread's alone; what the pointers lead to is constant once opening is over.
    std::unique_ptr<TrackDecoder> m_decoder;
    TrackTexts m_texts;
    TrackCover m_cover;
    std::unique_ptr<Verification> m_verification;  // the loop's once opening is over

    mutable std::mutex m_mutex;  // guards what follows
    std::condition_variable m_work;
    Opening m_opening = Opening::in_progress;
    OpenFailure m_failure;
    size_t m_blocks_ahead = 0, m_low_blocks = 0;
    size_t m_fill_bytes = 0;
    Blocks m_blocks;
    std::vector<std::byte*> m_free_blocks;
    uint64_t m_decoded_frames = 0;  // the place in the file
    // What the decoder is at: the blocks that it was given and that are not collected, in turn.
    struct Read {
        bool is_under_way = false;
        bool is_awake = false;  // told that it may go on, and nothing has come since
        Blocks blocks;
        size_t collected = 0;  // so far
        uint64_t seek_count = 0;
    } m_read;
    uint64_t m_taken_count = 0;
    TrackTexts m_latest_texts;  // of what is decoded
    std::string m_title;        // of a radio, as known last
    std::string m_live_title;   // its server's
    // With the count of blocks that are taken before them.
    std::deque<std::pair<uint64_t, TrackTexts>> m_new_texts;
    bool m_loop_waits = false;
    Clock::time_point m_waiting_since = Clock::now();  // of the last wait
    bool m_is_closed = false;
    bool m_is_given_up = false;  // by the loop: the thread does nothing more
    std::optional<uint64_t> m_seek_target;
    std::optional<uint64_t> m_seek_result;
    uint64_t m_seek_count = 0;  // what was decoded before the last seek is stale

    // Written under the mutex, read without.
    std::atomic<bool> m_is_decoded_wholly{false};
};

}  // namespace local_core
