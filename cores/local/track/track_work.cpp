#include "local/track/track_work.h"

#include <algorithm>
#include <cinttypes>
#include <new>
#include <utility>

namespace local_core {

namespace {

constexpr uint64_t kAheadMs = 5000;    // how far a pipe gets ahead of its reader
constexpr uint64_t kMaxBlockMs = 500;  // a block of a slow format is not filled
constexpr uint64_t kMaxBlocksAhead = 28;
constexpr size_t kBlocksInHand = 2;                   // the decoder's and the reader's
constexpr size_t kMaxNewTexts = 16;                   // that wait for their block
constexpr std::chrono::milliseconds kCoverLook{200};  // while one is fetched

uint64_t bytes_of_ms(const TrackInfo& info, uint64_t ms) {
    return std::max<uint64_t>(info.format.sample_rate * ms / 1000, 1) * info.frame_bytes;
}

}  // namespace

void TrackWork::run() {
    open();
    std::unique_lock lock(m_mutex);
    while (!m_is_closed && m_opening == Opening::ready) {
        work_or_wait(lock);
    }
    lock.unlock();
    // Here, not on the loop's thread: these may have to wait.
    m_decoder.reset();
    m_cover.reset();
}

void TrackWork::fail(std::string error) {
    const std::lock_guard lock(m_mutex);
    m_failure.reason = std::move(error);
    m_opening = Opening::failed;
}

TrackPipe::Opening TrackWork::opening() const {
    const std::lock_guard lock(m_mutex);
    return m_opening;
}

HttpFailure TrackWork::failure() const {
    const std::lock_guard lock(m_mutex);
    return m_failure.network;
}

TrackPipe::Taken TrackWork::take(PcmBlock* block) {
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

void TrackWork::give_back(const PcmBlock& block) {
    const std::lock_guard lock(m_mutex);
    m_free_blocks.push_back(block.data);
    wake_if_wanted();
}

std::optional<TrackTexts> TrackWork::take_new_texts() {
    const std::lock_guard lock(m_mutex);
    std::optional<TrackTexts> texts;
    while (!m_new_texts.empty() && m_new_texts.front().first <= m_taken_count) {
        texts = std::move(m_new_texts.front().second);
        m_new_texts.pop_front();
    }
    return texts;
}

void TrackWork::seek(uint64_t frame) {
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

std::optional<TrackWork::Clock::time_point> TrackWork::waiting_since() const {
    const std::lock_guard lock(m_mutex);
    const bool waits =
        m_opening == Opening::in_progress || m_reader_waits || (m_seek_count > 0 && !m_seek_result);
    return waits && !m_track.remote && !m_is_given_up ? std::optional(m_waiting_since)
                                                      : std::nullopt;
}

void TrackWork::give_up() {
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

void TrackWork::close() {
    m_interruption.interrupt();
    {
        const std::lock_guard lock(m_mutex);
        m_is_closed = true;
    }
    m_work.notify_one();
}

void TrackWork::work_or_wait(std::unique_lock<std::mutex>& lock) {
    const bool is_to_work = !m_is_given_up;
    if (is_to_work && m_seek_target) {
        position(*m_seek_target, lock);
    } else if (is_to_work && wants_blocks() && !m_free_blocks.empty()) {
        decode_block(lock);
    } else if (is_to_work && m_cover.is_fetching()) {
        m_work.wait_for(lock, kCoverLook);
        take_fetched_cover(lock);
    } else {
        m_work.wait(lock);
    }
}

void TrackWork::take_fetched_cover(std::unique_lock<std::mutex>& lock) {
    lock.unlock();
    const auto url = m_cover.take_fetched();
    if (url) {
        m_latest_texts.album_art_url = *url;
    }
    lock.lock();
    if (url) {
        m_new_texts.emplace_back(m_taken_count, m_latest_texts);
    }
}

void TrackWork::open() {
    OpenFailure failure;
    m_decoder = TrackDecoder::open(m_track, m_crew->highest, m_interruption, &failure);
    if (m_decoder) {
        m_texts = describe_track(m_track, m_decoder->info());
        m_title = m_decoder->live_title();
        if (const std::string failed = m_cover.find(m_track, &m_texts); !failed.empty()) {
            m_crew->logger->write(LogLevel::warning, kAudioDecoder, "%s: no picture: %s",
                                  name().c_str(), failed.c_str());
        }
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
    m_crew->tell_change();
}

void TrackWork::provide_blocks() {
    const TrackInfo& info = m_decoder->info();
    m_fill_bytes = static_cast<size_t>(
        std::min<uint64_t>(TrackPipe::kBlockBytes, bytes_of_ms(info, kMaxBlockMs)));
    m_blocks_ahead = static_cast<size_t>(
        std::clamp<uint64_t>(bytes_of_ms(info, kAheadMs) / m_fill_bytes, 2, kMaxBlocksAhead));
    const size_t count = m_blocks_ahead + kBlocksInHand;
    // Always whole blocks: lossy samples are decoded in twice the room they need in the end.
    const size_t bytes = count * TrackPipe::kBlockBytes;
    void* const memory =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    m_memory = {static_cast<std::byte*>(memory), Unmap{bytes}};
    m_blocks.resize(count);
    m_free_blocks.reserve(count);
    for (size_t i = count; i > 0; --i) {
        m_free_blocks.push_back(m_memory.get() + (i - 1) * TrackPipe::kBlockBytes);
    }
}

bool TrackWork::wants_blocks() {
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

void TrackWork::wake_if_wanted() {
    if (wants_blocks()) {
        m_work.notify_one();
    }
}

void TrackWork::position(uint64_t target, std::unique_lock<std::mutex>& lock) {
    m_seek_target.reset();
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
    m_crew->tell_change();
    lock.lock();
}

void TrackWork::decode_block(std::unique_lock<std::mutex>& lock) {
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
        m_crew->tell_change();
    }
    lock.lock();
}

std::optional<TrackTexts> TrackWork::texts_of_new_title() {
    const std::string title = m_decoder->live_title();
    if (title.empty() || title == m_title) {
        return std::nullopt;
    }
    m_title = title;
    m_latest_texts.title = display_text(title);
    if (const auto& artist = m_decoder->live_artist()) {
        m_latest_texts.artist = display_text(*artist);
    }
    return m_latest_texts;
}

void TrackWork::drop_blocks() {
    for (; !m_blocks.empty(); m_blocks.pop_front()) {
        m_free_blocks.push_back(m_blocks.front().data);
    }
    m_reader_waits = false;
}

void TrackWork::log_early_end() const {
    const std::string reason = m_decoder->last_error();
    m_crew->logger->write(LogLevel::warning, kAudioDecoder, "%s ends early: %s", name().c_str(),
                          reason.empty() ? "the file is shorter than it says" : reason.c_str());
}

}  // namespace local_core
