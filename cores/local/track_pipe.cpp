#include "local/track_pipe.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "common/signals_blocked.h"
#include "local/cover.h"
#include "local/files.h"
#include "local/network/interruption.h"
#include "local/network/url.h"
#include "local/texts/display_text.h"

namespace local_core {

namespace {

constexpr uint64_t kAheadMs = 5000;    // how far a pipe gets ahead of its reader
constexpr uint64_t kMaxBlockMs = 500;  // a block of a slow format is not filled
constexpr uint64_t kMaxBlocksAhead = 28;
constexpr size_t kBlocksInHand = 2;                   // the decoder's and the reader's
constexpr size_t kMaxNewTexts = 16;                   // that wait for their block
constexpr std::chrono::milliseconds kCoverLook{200};  // while one is fetched
constexpr std::chrono::seconds kCoverPatience{20};

uint64_t bytes_of_ms(const TrackInfo& info, uint64_t ms) {
    return std::max<uint64_t>(info.format.sample_rate * ms / 1000, 1) * info.frame_bytes;
}

}  // namespace

// What the threads share with the core, and use without it when they are left behind.
struct DecodeCrew::Shared {
    nuv_audio_quality highest;
    std::shared_ptr<const Logger> logger;

    std::mutex mutex;  // guards what follows; also held while on_news is called
    std::condition_variable thread_ended;
    std::function<void()> on_news;
    int threads = 0;

    bool add_thread() {
        const std::lock_guard lock(mutex);
        return threads < kMaxThreads && ++threads > 0;
    }
    void remove_thread() {
        const std::lock_guard lock(mutex);
        --threads;
        thread_ended.notify_all();
    }
    void tell_news() {
        const std::lock_guard lock(mutex);
        if (on_news) {
            on_news();
        }
    }
};

// Belongs to the pipe and to its thread; the last of them frees it.
class TrackPipe::Work {
  public:
    using Clock = std::chrono::steady_clock;

    Work(Track track, std::shared_ptr<DecodeCrew::Shared> crew)
        : m_track(std::move(track)), m_crew(std::move(crew)) {}

    // ---- The thread's

    void run() {
        open();
        std::unique_lock lock(m_mutex);
        while (!m_is_closed && m_opening == Opening::ready) {
            if (m_is_given_up) {
                m_work.wait(lock);
            } else if (m_seek_target) {
                position(lock);
            } else if (wants_blocks() && !m_free_blocks.empty()) {
                decode_block(lock);
            } else if (m_cover_source) {
                m_work.wait_for(lock, kCoverLook);
                take_remote_cover(lock);
            } else {
                m_work.wait(lock);
            }
        }
        lock.unlock();
        // Here, not on the loop's thread: these may have to wait.
        m_decoder.reset();
        m_cover_source.reset();
        m_cover.reset();
    }

    void fail(std::string error) {
        const std::lock_guard lock(m_mutex);
        m_failure.reason = std::move(error);
        m_opening = Opening::failed;
    }

    // ---- The reader's, see TrackPipe

    Opening opening() const {
        const std::lock_guard lock(m_mutex);
        return m_opening;
    }

    const TrackInfo& info() const { return m_decoder->info(); }
    const TrackTexts& texts() const { return m_texts; }
    const std::string& open_error() const { return m_failure.reason; }
    bool is_decoded_wholly() const { return m_is_decoded_wholly.load(std::memory_order_acquire); }

    HttpFailure failure() const {
        const std::lock_guard lock(m_mutex);
        return m_failure.network;
    }

    Taken take(PcmBlock* block) {
        const std::lock_guard lock(m_mutex);
        if (!m_blocks.empty()) {
            *block = m_blocks.front();
            m_blocks.pop_front();
            ++m_taken_count;
            wake_if_wanted();
            return Taken::block;
        }
        if (m_is_decoded_wholly) {
            return Taken::end;
        }
        if (!std::exchange(m_reader_waits, true)) {
            m_waiting_since = Clock::now();
        }
        wake_if_wanted();
        return Taken::wait;
    }

    void give_back(const PcmBlock& block) {
        const std::lock_guard lock(m_mutex);
        m_free_blocks.push_back(block.data);
        wake_if_wanted();
    }

    std::optional<TrackTexts> take_new_texts() {
        const std::lock_guard lock(m_mutex);
        std::optional<TrackTexts> texts;
        while (!m_new_texts.empty() && m_new_texts.front().first <= m_taken_count) {
            texts = std::move(m_new_texts.front().second);
            m_new_texts.pop_front();
        }
        return texts;
    }

    void seek(uint64_t frame) {
        {
            const std::lock_guard lock(m_mutex);
            drop_blocks();
            m_seek_target = frame;
            m_seek_result.reset();
            m_is_decoded_wholly = m_is_given_up;
            ++m_seek_count;
            m_waiting_since = Clock::now();
            if (m_is_given_up) {
                m_seek_result = m_decoder->info().frame_count;
            }
        }
        m_work.notify_one();
    }

    std::optional<uint64_t> seek_result() const {
        const std::lock_guard lock(m_mutex);
        return m_seek_result;
    }

    std::optional<Clock::time_point> waiting_since() const {
        const std::lock_guard lock(m_mutex);
        const bool waits = m_opening == Opening::in_progress || m_reader_waits ||
                           (m_seek_count > 0 && !m_seek_result);
        return waits && !m_track.remote && !m_is_given_up ? std::optional(m_waiting_since)
                                                          : std::nullopt;
    }

    void give_up() {
        const std::lock_guard lock(m_mutex);
        m_is_given_up = true;
        m_failure = {"its disk does not answer", HttpFailure::unreachable};
        if (m_opening == Opening::in_progress) {
            m_opening = Opening::failed;
            return;
        }
        drop_blocks();
        m_is_decoded_wholly = true;
        if (!m_seek_result) {
            m_seek_result = m_decoder->info().frame_count;
        }
        m_crew->logger->write(LogLevel::warning, kAudioDecoder, "%s ends early: %s", name().c_str(),
                              m_failure.reason.c_str());
    }

    void close() {
        m_interruption.interrupt();
        {
            const std::lock_guard lock(m_mutex);
            m_is_closed = true;
        }
        m_work.notify_one();
    }

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

    void open() {
        OpenFailure failure;
        m_decoder = TrackDecoder::open(m_track, m_crew->highest, m_interruption, &failure);
        if (m_decoder) {
            m_texts = describe_track(m_track, m_decoder->info());
            m_title = m_decoder->live_title();
            provide_cover();
            m_latest_texts = m_texts;
        }
        {
            const std::lock_guard lock(m_mutex);
            if (m_is_given_up) {
                return;
            }
            m_failure = std::move(failure);
            if (m_decoder) {
                provide_blocks();
            }
            m_opening = m_decoder ? Opening::ready : Opening::failed;
        }
        m_crew->tell_news();
    }

    // A cover inside the file becomes a file of its own; one that only the session's token opens is
    // fetched, others by whoever shows them.
    void provide_cover() {
        if (!m_track.remote && m_texts.album_art_url.empty()) {
            std::string error;
            nuvio::UniqueFd file = open_regular_file(m_track.location, &error);
            keep_cover(file ? embedded_cover(std::move(file)) : std::nullopt);
            m_texts.album_art_url = m_cover ? m_cover->url() : "";
        } else if (m_track.remote && !m_track.remote->token.empty() &&
                   same_origin(m_texts.album_art_url, m_track.remote->token_origin)) {
            HttpRequest request = m_track.request();
            request.url = std::exchange(m_texts.album_art_url, "");
            request.read_ahead_bytes = kMaxCoverBytes;
            request.give_up_after = kCoverPatience;
            m_cover_source = std::make_unique<HttpSource>(std::move(request));
            m_cover_until = std::chrono::steady_clock::now() + kCoverPatience;
        }
    }

    void keep_cover(const std::optional<CoverImage>& image) {
        m_cover = image ? KeptCover::keep(*image) : nullptr;
    }

    void take_remote_cover(std::unique_lock<std::mutex>& lock) {
        const bool is_there = m_cover_source->is_settled();
        if (!is_there && std::chrono::steady_clock::now() < m_cover_until) {
            return;
        }
        lock.unlock();
        CoverImage image;
        image.bytes.resize(is_there ? kMaxCoverBytes : 0);
        image.bytes.resize(m_cover_source->read(image.bytes.data(), image.bytes.size()));
        m_cover_source.reset();
        keep_cover(image);
        m_latest_texts.album_art_url = m_cover ? m_cover->url() : "";
        lock.lock();
        if (m_cover) {
            m_new_texts.emplace_back(m_taken_count, m_latest_texts);
        }
    }

    // How many bytes go into a block, and how many blocks get the pipe kAheadMs ahead.
    void provide_blocks() {
        const TrackInfo& info = m_decoder->info();
        m_fill_bytes =
            static_cast<size_t>(std::min<uint64_t>(kBlockBytes, bytes_of_ms(info, kMaxBlockMs)));
        m_blocks_ahead = static_cast<size_t>(
            std::clamp<uint64_t>(bytes_of_ms(info, kAheadMs) / m_fill_bytes, 2, kMaxBlocksAhead));
        const size_t count = m_blocks_ahead + kBlocksInHand;
        // Always whole blocks: lossy samples are decoded in twice the room they need in the end.
        m_memory.reset(new std::byte[count * kBlockBytes]);
        m_blocks.resize(count);
        m_free_blocks.reserve(count);
        for (size_t i = count; i > 0; --i) {
            m_free_blocks.push_back(m_memory.get() + (i - 1) * kBlockBytes);
        }
    }

    bool wants_blocks() {
        if (m_opening != Opening::ready || m_is_decoded_wholly) {
            return false;
        }
        if (m_blocks.size() >= m_blocks_ahead) {
            m_is_filling = false;
        } else if (m_blocks.size() <= m_blocks_ahead / 4) {
            m_is_filling = true;
        }
        return m_is_filling;
    }

    void wake_if_wanted() {
        if (wants_blocks()) {
            m_work.notify_one();
        }
    }

    void position(std::unique_lock<std::mutex>& lock) {
        const uint64_t target = *std::exchange(m_seek_target, std::nullopt);
        const uint64_t end = m_decoder->info().frame_count;
        lock.unlock();
        const auto reached = target < end ? m_decoder->seek(target) : std::nullopt;
        if (target < end && !reached) {
            m_crew->logger->write(LogLevel::error, kAudioDecoder,
                                  "%s: can't go to frame %" PRIu64 ": %s", name().c_str(), target,
                                  m_decoder->last_error().c_str());
        }
        lock.lock();
        if (m_seek_target || m_is_given_up) {
            return;  // overtaken by a newer one, or nobody waits any more
        }
        m_decoded_frames = reached.value_or(end);
        m_is_decoded_wholly = !reached;
        m_seek_result = m_decoded_frames;
        lock.unlock();
        m_crew->tell_news();
        lock.lock();
    }

    void decode_block(std::unique_lock<std::mutex>& lock) {
        PcmBlock block{m_free_blocks.back(), 0};
        m_free_blocks.pop_back();
        const uint64_t seek_count = m_seek_count;
        const TrackInfo& info = m_decoder->info();
        lock.unlock();
        block.size_bytes = m_decoder->read(block.data, m_fill_bytes);
        const uint64_t decoded = m_decoded_frames + block.size_bytes / info.frame_bytes;
        const bool is_at_end = block.size_bytes == 0 || decoded >= info.frame_count;
        std::optional<TrackTexts> new_texts = texts_of_new_title();
        lock.lock();
        if (m_is_closed || m_is_given_up) {
            return;
        }
        if (block.size_bytes == 0 || m_seek_count != seek_count) {
            m_free_blocks.push_back(block.data);
        } else {
            m_blocks.push_back(block);
        }
        if (m_seek_count != seek_count) {
            return;
        }
        m_decoded_frames = decoded;
        m_failure.network = is_at_end ? m_decoder->failure() : HttpFailure::none;
        m_is_decoded_wholly = is_at_end;
        if (new_texts && m_new_texts.size() < kMaxNewTexts) {
            m_new_texts.emplace_back(m_taken_count + m_blocks.size(), std::move(*new_texts));
        }
        const bool tells = std::exchange(m_reader_waits, false);
        lock.unlock();
        const bool has_failed = m_decoder->failure() != HttpFailure::none;
        if (is_at_end && decoded < info.frame_count && (has_failed || !info.is_endless)) {
            log_early_end();
        }
        if (tells) {
            m_crew->tell_news();
        }
        lock.lock();
    }

    std::optional<TrackTexts> texts_of_new_title() {
        const std::string title = m_decoder->live_title();
        if (title.empty() || title == m_title) {
            return std::nullopt;
        }
        m_title = title;
        m_latest_texts.title = display_text(title);
        return m_latest_texts;
    }

    void drop_blocks() {
        for (; !m_blocks.empty(); m_blocks.pop_front()) {
            m_free_blocks.push_back(m_blocks.front().data);
        }
        m_reader_waits = false;
    }

    void log_early_end() const {
        const std::string reason = m_decoder->last_error();
        m_crew->logger->write(LogLevel::warning, kAudioDecoder, "%s ends early: %s", name().c_str(),
                              reason.empty() ? "the file is shorter than it says" : reason.c_str());
    }

    std::string name() const { return display_text(m_track.location); }

    const Track m_track;
    const std::shared_ptr<DecodeCrew::Shared> m_crew;
    Interruption m_interruption;

    // The thread's alone; what the pointers lead to is constant once opening is over.
    std::unique_ptr<TrackDecoder> m_decoder;
    TrackTexts m_texts;
    TrackTexts m_latest_texts;  // of what is decoded
    std::string m_title;        // of a radio, as known last
    std::shared_ptr<const KeptCover> m_cover;
    std::unique_ptr<HttpSource> m_cover_source;  // as long as it is fetched
    std::chrono::steady_clock::time_point m_cover_until;
    std::unique_ptr<std::byte[]> m_memory;
    size_t m_fill_bytes = 0;
    uint64_t m_decoded_frames = 0;  // the place in the file

    mutable std::mutex m_mutex;  // guards what follows
    std::condition_variable m_work;
    Opening m_opening = Opening::in_progress;
    OpenFailure m_failure;
    size_t m_blocks_ahead = 0;
    Blocks m_blocks;
    std::vector<std::byte*> m_free_blocks;
    uint64_t m_taken_count = 0;
    // With the count of blocks that are taken before them.
    std::deque<std::pair<uint64_t, TrackTexts>> m_new_texts;
    bool m_is_filling = false;  // from nearly empty until as far ahead as it may
    bool m_reader_waits = false;
    Clock::time_point m_waiting_since = Clock::now();  // of the last wait
    bool m_is_closed = false;
    bool m_is_given_up = false;  // by the reader: the thread does nothing more
    std::optional<uint64_t> m_seek_target;
    std::optional<uint64_t> m_seek_result;
    uint64_t m_seek_count = 0;  // what was decoded before the last seek is stale

    // Written under the mutex, read without.
    std::atomic<bool> m_is_decoded_wholly{false};
};

// ---- The pipe -----------------------------------------------------------------------------------

TrackPipe::TrackPipe(std::shared_ptr<Work> work) : m_work(std::move(work)) {}

TrackPipe::~TrackPipe() {
    m_work->close();
}

TrackPipe::Opening TrackPipe::opening() const {
    return m_work->opening();
}

const TrackInfo& TrackPipe::info() const {
    return m_work->info();
}

const TrackTexts& TrackPipe::texts() const {
    return m_work->texts();
}

const std::string& TrackPipe::open_error() const {
    return m_work->open_error();
}

bool TrackPipe::is_decoded_wholly() const {
    return m_work->is_decoded_wholly();
}

HttpFailure TrackPipe::failure() const {
    return m_work->failure();
}

TrackPipe::Taken TrackPipe::take(PcmBlock* block) {
    return m_work->take(block);
}

void TrackPipe::give_back(const PcmBlock& block) {
    m_work->give_back(block);
}

std::optional<TrackTexts> TrackPipe::take_new_texts() {
    return m_work->take_new_texts();
}

void TrackPipe::seek(uint64_t frame) {
    m_work->seek(frame);
}

std::optional<uint64_t> TrackPipe::seek_result() const {
    return m_work->seek_result();
}

std::optional<std::chrono::steady_clock::time_point> TrackPipe::waiting_since() const {
    return m_work->waiting_since();
}

void TrackPipe::give_up() {
    m_work->give_up();
}

// ---- The crew -----------------------------------------------------------------------------------

DecodeCrew::DecodeCrew(std::function<void()> on_news, nuv_audio_quality highest,
                       std::shared_ptr<const Logger> logger)
    : m_shared(std::make_shared<Shared>()) {
    m_shared->highest = highest;
    m_shared->logger = std::move(logger);
    m_shared->on_news = std::move(on_news);
}

DecodeCrew::~DecodeCrew() {
    std::unique_lock lock(m_shared->mutex);
    m_shared->on_news = nullptr;
    m_shared->thread_ended.wait_for(lock, kPatience, [this] { return m_shared->threads == 0; });
}

std::unique_ptr<TrackPipe> DecodeCrew::open(Track track) {
    auto work = std::make_shared<TrackPipe::Work>(std::move(track), m_shared);
    std::unique_ptr<TrackPipe> pipe(new TrackPipe(work));
    if (!m_shared->add_thread()) {
        work->fail("too many tracks before it still wait for their disks");
        return pipe;
    }
    try {
        const nuvio::SignalsBlocked no_signals;
        std::thread thread([crew = m_shared, work]() mutable {
            work->run();
            work.reset();
            crew->remove_thread();
        });
        pthread_setname_np(thread.native_handle(), "nuv-decoder");
        thread.detach();
    } catch (const std::system_error& error) {
        m_shared->remove_thread();
        work->fail(error.what());
    }
    return pipe;
}

}  // namespace local_core
