#include "local/decode_thread.h"

#include <pthread.h>

#include <algorithm>
#include <cinttypes>
#include <utility>

#include "common/signals_blocked.h"

namespace local_core {

namespace {

constexpr uint64_t kAheadMs = 5000;    // how far the pipe in front gets ahead of its reader
constexpr uint64_t kMaxBlockMs = 500;  // a block of a slow format is not filled
constexpr size_t kMaxBlocksInFront = 28;
constexpr size_t kMaxBlocksBehind = 4;

uint64_t bytes_of_ms(const TrackInfo& info, uint64_t ms) {
    return std::max<uint64_t>(info.format.sample_rate * ms / 1000, 1) * info.frame_bytes;
}

}  // namespace

class TrackPipe {
    friend class DecodeThread;

  public:
    explicit TrackPipe(Track track) : m_track(std::move(track)) {}

  private:
    // How many bytes go into a block, and how many blocks get the pipe kAheadMs ahead.
    void plan_blocks() {
        const TrackInfo& info = m_decoder->info();
        m_fill_bytes = static_cast<size_t>(
            std::min<uint64_t>(DecodeThread::kBlockBytes, bytes_of_ms(info, kMaxBlockMs)));
        m_blocks_ahead = static_cast<size_t>(
            std::clamp<uint64_t>(bytes_of_ms(info, kAheadMs) / m_fill_bytes, 2, kMaxBlocksInFront));
    }

    void push(const PcmBlock& block) {
        m_blocks[(m_first + m_count) % m_blocks.size()] = block;
        ++m_count;
    }
    PcmBlock pop() {
        const PcmBlock block = m_blocks[m_first];
        m_first = (m_first + 1) % m_blocks.size();
        --m_count;
        return block;
    }

    const Track m_track;

    // Decoding thread only; what the pointers lead to is constant once opening is over.
    std::unique_ptr<TrackDecoder> m_decoder;
    TrackTexts m_texts;
    std::string m_open_error;
    size_t m_fill_bytes = 0;
    size_t m_blocks_ahead = 0;
    uint64_t m_decoded_frames = 0;  // the place in the file

    // Guarded by the thread's mutex.
    DecodeThread::Opening m_opening = DecodeThread::Opening::in_progress;
    std::array<PcmBlock, DecodeThread::kPoolBlocks> m_blocks{};  // a ring
    size_t m_first = 0;
    size_t m_count = 0;
    bool m_filling = false;  // from nearly empty until as far ahead as it may
    bool m_reader_waits = false;
    bool m_is_closed = false;
    std::optional<uint64_t> m_seek_target;
    std::optional<uint64_t> m_seek_result;
    uint64_t m_seek_count = 0;  // what was decoded before the last seek is stale

    // Written under the mutex, read without.
    std::atomic<bool> m_decoded_wholly{false};
};

DecodeThread::DecodeThread(std::function<void()> on_news, nuv_audio_quality highest,
                           const Logger& logger)
    : m_on_news(std::move(on_news)),
      m_highest(highest),
      m_logger(logger),
      m_pool(new std::byte[kPoolBlocks * kBlockBytes]) {
    m_free_blocks.reserve(kPoolBlocks);
    for (size_t i = kPoolBlocks; i > 0; --i) {
        m_free_blocks.push_back(m_pool.get() + (i - 1) * kBlockBytes);
    }
    const nuvio::SignalsBlocked no_signals;
    m_thread = std::thread([this] { run(); });
    pthread_setname_np(m_thread.native_handle(), "nuv-decoder");
}

DecodeThread::~DecodeThread() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_work.notify_one();
    m_thread.join();
}

TrackPipePtr DecodeThread::open(Track track) {
    auto pipe = std::make_shared<TrackPipe>(std::move(track));
    {
        const std::lock_guard lock(m_mutex);
        m_pipes.push_back(pipe);
    }
    m_work.notify_one();
    return pipe;
}

void DecodeThread::close(TrackPipePtr pipe) {
    {
        const std::lock_guard lock(m_mutex);
        pipe->m_is_closed = true;
        drop_blocks(*pipe);
        std::erase(m_pipes, pipe);
        m_closed.push_back(std::move(pipe));
    }
    m_work.notify_one();
}

DecodeThread::Opening DecodeThread::opening(const TrackPipe& pipe) {
    const std::lock_guard lock(m_mutex);
    return pipe.m_opening;
}

const TrackInfo& DecodeThread::info(const TrackPipe& pipe) {
    return pipe.m_decoder->info();
}

const TrackTexts& DecodeThread::texts(const TrackPipe& pipe) {
    return pipe.m_texts;
}

const std::string& DecodeThread::open_error(const TrackPipe& pipe) {
    return pipe.m_open_error;
}

bool DecodeThread::decoded_wholly(const TrackPipe& pipe) {
    return pipe.m_decoded_wholly.load(std::memory_order_acquire);
}

DecodeThread::Taken DecodeThread::take(TrackPipe& pipe, PcmBlock* block) {
    const std::lock_guard lock(m_mutex);
    if (pipe.m_count > 0) {
        *block = pipe.pop();
        wake_if_wanted(pipe);
        return Taken::block;
    }
    if (pipe.m_decoded_wholly) {
        return Taken::end;
    }
    pipe.m_reader_waits = true;
    wake_if_wanted(pipe);
    return Taken::wait;
}

void DecodeThread::give_back(const PcmBlock& block) {
    const std::lock_guard lock(m_mutex);
    m_free_blocks.push_back(block.data);
    if (std::exchange(m_pool_dry, false)) {
        m_work.notify_one();
    }
}

void DecodeThread::seek(TrackPipe& pipe, uint64_t frame) {
    {
        const std::lock_guard lock(m_mutex);
        drop_blocks(pipe);
        pipe.m_seek_target = frame;
        pipe.m_seek_result.reset();
        pipe.m_decoded_wholly = false;
        ++pipe.m_seek_count;
    }
    m_work.notify_one();
}

std::optional<uint64_t> DecodeThread::seek_result(TrackPipe& pipe) {
    const std::lock_guard lock(m_mutex);
    return pipe.m_seek_result;
}

void DecodeThread::run() {
    std::unique_lock lock(m_mutex);
    while (!m_stopping) {
        if (!m_closed.empty()) {
            auto closed = std::exchange(m_closed, {});
            lock.unlock();
            closed.clear();
            lock.lock();
            continue;
        }
        // Shared: the loop's thread may close the pipe while it is worked on.
        const TrackPipePtr pipe = next_job();
        if (!pipe) {
            m_work.wait(lock);
        } else if (pipe->m_opening == Opening::in_progress) {
            open_file(*pipe, lock);
        } else if (pipe->m_seek_target) {
            position(*pipe, lock);
        } else {
            decode_block(*pipe, lock);
        }
    }
}

TrackPipePtr DecodeThread::next_job() {
    for (const TrackPipePtr& pipe : m_pipes) {
        if (pipe->m_opening == Opening::in_progress || pipe->m_seek_target) {
            return pipe;
        }
        if (!wants_blocks(*pipe)) {
            continue;
        }
        if (!m_free_blocks.empty()) {
            return pipe;
        }
        m_pool_dry = true;
    }
    return nullptr;
}

bool DecodeThread::wants_blocks(TrackPipe& pipe) {
    if (pipe.m_opening != Opening::ready || pipe.m_decoded_wholly) {
        return false;
    }
    const auto in_front = std::find_if(m_pipes.begin(), m_pipes.end(),
                                       [](const auto& other) { return !other->m_decoded_wholly; });
    const size_t limit = in_front->get() == &pipe ? pipe.m_blocks_ahead
                                                  : std::min(pipe.m_blocks_ahead, kMaxBlocksBehind);
    if (pipe.m_count >= limit) {
        pipe.m_filling = false;
    } else if (pipe.m_count <= limit / 4) {
        pipe.m_filling = true;
    }
    return pipe.m_filling;
}

void DecodeThread::wake_if_wanted(TrackPipe& pipe) {
    if (wants_blocks(pipe)) {
        m_work.notify_one();
    }
}

void DecodeThread::open_file(TrackPipe& pipe, std::unique_lock<std::mutex>& lock) {
    lock.unlock();
    pipe.m_decoder = TrackDecoder::open(pipe.m_track.path, m_highest, &pipe.m_open_error);
    if (pipe.m_decoder) {
        pipe.m_texts = describe_track(pipe.m_track, pipe.m_decoder->info());
        pipe.plan_blocks();
    }
    lock.lock();
    pipe.m_opening = pipe.m_decoder ? Opening::ready : Opening::failed;
    lock.unlock();
    m_on_news();
    lock.lock();
}

void DecodeThread::position(TrackPipe& pipe, std::unique_lock<std::mutex>& lock) {
    const uint64_t target = *std::exchange(pipe.m_seek_target, std::nullopt);
    const uint64_t end = pipe.m_decoder->info().frame_count;
    lock.unlock();
    const auto reached = target < end ? pipe.m_decoder->seek(target) : std::nullopt;
    if (target < end && !reached) {
        m_logger.write(LogLevel::error, kAudioDecoder, "%s: can't go to frame %" PRIu64 ": %s",
                       pipe.m_track.path.c_str(), target, pipe.m_decoder->last_error().c_str());
    }
    lock.lock();
    if (pipe.m_seek_target) {
        return;  // overtaken by a newer one
    }
    pipe.m_decoded_frames = reached.value_or(end);
    pipe.m_decoded_wholly = !reached;
    pipe.m_seek_result = pipe.m_decoded_frames;
    lock.unlock();
    m_on_news();
    lock.lock();
}

void DecodeThread::decode_block(TrackPipe& pipe, std::unique_lock<std::mutex>& lock) {
    PcmBlock block{m_free_blocks.back(), 0};
    m_free_blocks.pop_back();
    const uint64_t seek_count = pipe.m_seek_count;
    const TrackInfo& info = pipe.m_decoder->info();
    lock.unlock();
    block.size_bytes = pipe.m_decoder->read(block.data, pipe.m_fill_bytes);
    const uint64_t decoded = pipe.m_decoded_frames + block.size_bytes / info.frame_bytes;
    const bool early_end = block.size_bytes == 0 && decoded < info.frame_count;
    if (early_end) {
        log_early_end(pipe);
    }
    lock.lock();
    if (block.size_bytes == 0 || pipe.m_is_closed || pipe.m_seek_count != seek_count) {
        m_free_blocks.push_back(block.data);
    } else {
        pipe.push(block);
    }
    if (pipe.m_seek_count != seek_count) {
        return;
    }
    pipe.m_decoded_frames = decoded;
    pipe.m_decoded_wholly = block.size_bytes == 0 || decoded >= info.frame_count;
    if (std::exchange(pipe.m_reader_waits, false)) {
        lock.unlock();
        m_on_news();
        lock.lock();
    }
}

void DecodeThread::drop_blocks(TrackPipe& pipe) {
    while (pipe.m_count > 0) {
        m_free_blocks.push_back(pipe.pop().data);
    }
    pipe.m_reader_waits = false;
    if (std::exchange(m_pool_dry, false)) {
        m_work.notify_one();
    }
}

void DecodeThread::log_early_end(const TrackPipe& pipe) const {
    const std::string reason = pipe.m_decoder->last_error();
    m_logger.write(LogLevel::warning, kAudioDecoder, "%s ends early: %s", pipe.m_track.path.c_str(),
                   reason.empty() ? "the file is shorter than it says" : reason.c_str());
}

}  // namespace local_core
