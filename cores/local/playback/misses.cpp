#include "local/playback/misses.h"

#include <utility>

#include "local/texts/display_text.h"

namespace local_core {

namespace {

// So many tracks in a row that the renderer can't play are a renderer that can't play.
constexpr int kMaxRefused = 3;
// So many tracks in a row whose server is gone end the session.
constexpr int kMaxUnreachable = 3;
constexpr size_t kMaxFailures = 16;

}  // namespace

void Misses::begin_session() {
    m_refused_count = 0;  // the first of them was a track of the old session
    end_session();
}

void Misses::end_session() {
    m_unreachable_count = 0;
    m_gives_session_up = false;
}

void Misses::sound_flows() {
    m_refused_count = 0;
    m_has_begun_anew = false;
}

void Misses::consider(const StreamQueue::Stream& stream, const std::string& session_id) {
    if (stream.is_announced() && std::exchange(m_considered_stream, stream.id()) == stream.id()) {
        return;
    }
    const HttpFailure failure = stream.failure();
    m_unreachable_count = failure == HttpFailure::unreachable ? m_unreachable_count + 1 : 0;
    if (failure == HttpFailure::refused || m_unreachable_count == kMaxUnreachable) {
        m_gives_session_up = true;
        m_logger->write(LogLevel::warning, kCloudClient, "Session %s ends: %s",
                        display_text(session_id).c_str(),
                        failure == HttpFailure::refused ? "its token is not accepted any more"
                                                        : "its server or disk is gone");
    }
}

bool Misses::refused(size_t track, std::optional<size_t> next) {
    if (m_refused_count == 0) {
        m_first_refused = track;
    }
    if (++m_refused_count < kMaxRefused && next) {
        return true;
    }
    m_refused_count = 0;
    return false;
}

bool Misses::may_begin_anew() {
    return !std::exchange(m_has_begun_anew, true);
}

void Misses::note(Failure failure) {
    if (m_failures.size() < kMaxFailures) {
        m_failures.push_back(std::move(failure));
    }
}

std::optional<Failure> Misses::take() {
    if (m_failures.empty()) {
        return std::nullopt;
    }
    Failure failure = std::move(m_failures.front());
    m_failures.pop_front();
    return failure;
}

}  // namespace local_core
