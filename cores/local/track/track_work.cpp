#include "local/track/track_work.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

namespace local_core {

namespace {

// What is written at once. PulseAudio's own pieces of memory are 64 KiB with a head in them: what
// does not fit takes a second one.
constexpr uint64_t kFillBytes = TrackPipe::kBlockBytes - 1024;
constexpr uint64_t kAheadMs = 5000;    // how far a pipe gets ahead of the loop
constexpr uint64_t kMaxBlockMs = 500;  // a block of a slow format is not filled
constexpr uint64_t kLowMs = 300;       // more than an output takes at once
constexpr size_t kBlocksInHand = 1;    // the loop's
constexpr uint64_t kMaxBlocksAhead = nuvio::reader::kMaxBlocks - kBlocksInHand;
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
    collect();
    if (m_blocks.empty() && !m_is_decoded_wholly) {
        m_decoder->await_block();
        collect();  // what came between the two
    }
    if (!m_blocks.empty()) {
        m_loop_waits = false;
        *block = m_blocks.front();
        m_blocks.pop_front();
        ++m_taken_count;
        wake_if_low();
        return Taken::block;
    }
    if (m_is_decoded_wholly) {
        return Taken::end;
    }
    if (!std::exchange(m_loop_waits, true)) {
        m_waiting_since = Clock::now();
    }
    wake_if_low();
    return Taken::wait;
}

void TrackWork::give_back(const PcmBlock& block) {
    const std::lock_guard lock(m_mutex);
    give(block.data);
    wake_if_low();
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

Verdict TrackWork::conclude(bool is_played_out) {
    const Verdict verdict = m_verification->conclude(is_played_out);
    const LogLevel level = verdict == Verdict::verified  ? LogLevel::info
                           : verdict == Verdict::differs ? LogLevel::error
                                                         : LogLevel::debug;
    m_crew->logger->write(level, kAudioDecoder, "%s: %s%s", name().c_str(),
                          verdict == Verdict::verified ? "" : "not verified: ", text_of(verdict));
    return verdict;
}

void TrackWork::seek(uint64_t frame) {
    m_verification->seek(frame);
    {
        const std::lock_guard lock(m_mutex);
        m_decoder->stop();
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
        m_opening == Opening::in_progress || m_loop_waits || (m_seek_count > 0 && !m_seek_result);
    // A server may take its time: of a remote track it is the reader that may hang.
    const bool is_blamed = !m_track.remote || (m_opening == Opening::ready && m_loop_waits &&
                                               !m_decoder->is_fetching());
    return waits && is_blamed && !m_is_given_up ? std::optional(m_waiting_since) : std::nullopt;
}

void TrackWork::give_up() {
    {
        const std::lock_guard lock(m_mutex);
        m_is_given_up = true;
        m_failure = {"its disk does not answer", HttpFailure::unreachable};
        if (m_opening == Opening::in_progress) {
            m_opening = Opening::failed;
        } else {
            end_here();
        }
    }
    m_interruption.interrupt();
}

void TrackWork::end_here() {
    drop_blocks();
    m_is_decoded_wholly = true;
    if (!m_seek_result) {
        m_seek_result = m_decoder->info().frame_count;
    }
    m_crew->logger->write(LogLevel::warning, kAudioDecoder, "%s ends early: %s", name().c_str(),
                          m_failure.reason.c_str());
}

// In this order: a read that ends of it is not told as a fault.
void TrackWork::close() {
    {
        const std::lock_guard lock(m_mutex);
        m_is_closed = true;
    }
    m_work.notify_one();
    m_interruption.interrupt();
}

void TrackWork::work_or_wait(std::unique_lock<std::mutex>& lock) {
    const bool is_to_work = !m_is_given_up;
    if (is_to_work && m_seek_target) {
        position(*m_seek_target, lock);
    } else if (is_to_work && !m_is_decoded_wholly) {
        decode(lock);
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
    lock.lock();
    if (url) {
        m_latest_texts.album_art_url = *url;
        m_new_texts.emplace_back(m_taken_count, m_latest_texts);
    }
}

void TrackWork::open() {
    OpenFailure failure;
    m_decoder = TrackDecoder::open(m_track, m_crew->output, m_interruption, &failure);
    if (m_decoder) {
        m_texts = describe_track(m_track, m_decoder->info());
        m_title = m_live_title = m_decoder->info().live_title;
        if (const std::string failed = m_cover.find(m_track, &m_texts); !failed.empty()) {
            m_crew->logger->write(LogLevel::warning, kAudioDecoder, "%s: no picture: %s",
                                  name().c_str(), failed.c_str());
        }
        m_latest_texts = m_texts;
        m_verification =
            std::make_unique<Verification>(m_decoder->info(), m_crew->output.verifies_all);
        if (const std::string done = m_decoder->info().conversion(); !done.empty()) {
            m_crew->logger->write(LogLevel::info, kAudioDecoder, "%s: %s", name().c_str(),
                                  done.c_str());
        }
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
    m_fill_bytes = static_cast<size_t>(std::min(kFillBytes, bytes_of_ms(info, kMaxBlockMs)));
    m_blocks_ahead = static_cast<size_t>(
        std::clamp<uint64_t>(bytes_of_ms(info, kAheadMs) / m_fill_bytes, 2, kMaxBlocksAhead));
    m_low_blocks =
        std::max(m_blocks_ahead / 4, static_cast<size_t>(bytes_of_ms(info, kLowMs) / m_fill_bytes));
    const size_t count = m_blocks_ahead + kBlocksInHand;
    m_blocks.resize(count);
    m_read.blocks.resize(count);
    m_free_blocks.reserve(count);
    for (size_t i = count; i > 0; --i) {
        m_free_blocks.push_back(m_decoder->block(i - 1));
    }
}

// The reader fills up what it was given in one go, and rests until most of it is used up.
void TrackWork::wake_if_low() {
    if (m_blocks.size() <= m_low_blocks && !m_read.blocks.empty() && !m_read.is_awake) {
        m_read.is_awake = true;
        m_decoder->wake();
    }
}

void TrackWork::position(uint64_t target, std::unique_lock<std::mutex>& lock) {
    m_seek_target.reset();
    const uint64_t end = m_decoder->info().most_frames();
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

// ---- What the reader decodes --------------------------------------------------------------------

void TrackWork::give(std::byte* block) {
    if (m_read.is_under_way) {
        m_read.blocks.push_back({block, 0});
        m_decoder->give(static_cast<size_t>(block - m_decoder->block(0)) / TrackPipe::kBlockBytes);
    } else {
        m_free_blocks.push_back(block);
    }
}

void TrackWork::begin_read() {
    m_read.is_under_way = true;
    m_read.is_awake = false;
    m_read.collected = 0;
    m_read.seek_count = m_seek_count;
    m_decoder->begin_read();
    for (; !m_free_blocks.empty(); m_free_blocks.pop_back()) {
        give(m_free_blocks.back());
    }
}

// Takes what there is.
void TrackWork::collect() {
    if (!m_read.is_under_way) {
        return;
    }
    const TrackInfo& info = m_decoder->info();
    const bool is_stale = m_is_given_up || m_read.seek_count != m_seek_count;
    for (; m_read.collected < m_decoder->done(); ++m_read.collected) {
        const PcmBlock block{m_read.blocks.front().data,
                             m_decoder->bytes_of(m_read.collected, m_fill_bytes)};
        m_read.blocks.pop_front();
        m_read.is_awake = false;
        if (is_stale || block.size_bytes == 0) {
            m_free_blocks.push_back(block.data);
            continue;
        }
        m_blocks.push_back(block);
        m_decoded_frames += block.size_bytes / info.frame_bytes;
        note_live_title(m_decoder->live_title(m_read.collected));
    }
    if (!is_stale && !info.is_guess && m_decoded_frames >= info.frame_count) {
        m_is_decoded_wholly = true;
        m_decoder->stop();
    }
}

void TrackWork::end_read() {
    collect();
    for (; !m_read.blocks.empty(); m_read.blocks.pop_front()) {
        m_free_blocks.push_back(m_read.blocks.front().data);
    }
    m_read.is_under_way = false;
}

void TrackWork::decode(std::unique_lock<std::mutex>& lock) {
    begin_read();
    lock.unlock();
    const bool is_over = m_decoder->read(m_fill_bytes, [this] { return take_news(); });
    log_notes();
    lock.lock();
    end_read();
    if (m_is_closed || m_is_given_up || m_read.seek_count != m_seek_count) {
        return;
    }
    if (const auto texts = m_decoder->take_own_texts()) {
        note_title(texts->title, &texts->artist);
    }
    const TrackInfo& info = m_decoder->info();
    const bool is_whole =
        info.is_guess ? is_over && !m_decoder->is_broken() : m_decoded_frames >= info.frame_count;
    m_is_decoded_wholly = is_whole || is_over || m_decoder->has_lied() || m_read.collected == 0;
    m_failure.network = m_is_decoded_wholly ? m_decoder->failure() : HttpFailure::none;
    const bool ends_early = m_is_decoded_wholly && !is_whole;
    const bool tells = std::exchange(m_loop_waits, false);
    lock.unlock();
    const bool is_told = m_decoder->is_broken() || !m_decoder->last_error().empty();
    if (ends_early && (is_told || !info.is_endless)) {
        log_early_end();
    }
    if (tells) {
        m_crew->tell_change();
    }
    lock.lock();
}

// On the way through a read: when to look again.
std::chrono::milliseconds TrackWork::take_news() {
    log_notes();
    std::unique_lock lock(m_mutex);
    collect();
    m_waiting_since = m_track.remote ? Clock::now() : m_waiting_since;
    const bool tells = m_loop_waits && !m_blocks.empty();
    m_loop_waits = m_loop_waits && !tells;
    if (m_cover.is_fetching()) {
        take_fetched_cover(lock);
    }
    lock.unlock();
    if (tells) {
        m_crew->tell_change();
    }
    return m_cover.is_fetching() ? kCoverLook : std::chrono::milliseconds(-1);
}

// What the server says, where that is something new: the sound may say it otherwise.
void TrackWork::note_live_title(const std::string& title) {
    if (title != m_live_title) {
        m_live_title = title;
        note_title(title, nullptr);
    }
}

// Of a radio: what it plays from the block decoded last on.
void TrackWork::note_title(const std::string& title, const std::string* artist) {
    if (title.empty() || title == m_title) {
        return;
    }
    m_title = title;
    m_latest_texts.title = display_text(title);
    if (artist != nullptr) {
        m_latest_texts.artist = display_text(*artist);
    }
    if (m_new_texts.size() < kMaxNewTexts) {
        m_new_texts.emplace_back(m_taken_count + m_blocks.size(), m_latest_texts);
    }
}

void TrackWork::drop_blocks() {
    for (; !m_blocks.empty(); m_blocks.pop_front()) {
        give(m_blocks.front().data);
    }
    m_loop_waits = false;
}

void TrackWork::log_notes() const {
    while (const auto note = m_decoder->take_note()) {
        m_crew->logger->write(LogLevel::warning, kAudioDecoder, "%s: %s", name().c_str(),
                              display_text(*note).c_str());
    }
}

void TrackWork::log_early_end() const {
    const std::string reason = m_decoder->last_error();
    m_crew->logger->write(LogLevel::warning, kAudioDecoder, "%s ends early: %s", name().c_str(),
                          reason.empty() ? "the file is shorter than it says" : reason.c_str());
}

}  // namespace local_core
