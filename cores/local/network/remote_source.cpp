#include "local/network/remote_source.h"

#include <algorithm>

namespace local_core {

namespace {

constexpr size_t kMaxTitles = 64;
constexpr size_t kMaxRuns = 64;
constexpr size_t kMaxNotes = 8;
constexpr uint64_t kMaxPosition = INT64_MAX;

}  // namespace

size_t RemoteSource::read(void* to, size_t size) {
    std::unique_lock lock(m_mutex);
    size_t done = 0;
    while (done < size && m_failure != HttpFailure::cancelled) {
        const size_t got = m_buffer.copy(m_position, static_cast<char*>(to) + done, size - done);
        m_position += got;
        done += got;
        on_moved();
        if (got == 0) {
            if (m_failure != HttpFailure::none || (m_length && m_position >= *m_length)) {
                break;
            }
            m_changed.wait(lock);
        }
    }
    return done;
}

size_t RemoteSource::look_ahead(void* to, size_t size) const {
    return locked([&] { return m_buffer.copy(m_position, to, size); });
}

bool RemoteSource::seek(uint64_t position) {
    const std::lock_guard lock(m_mutex);
    if (position > kMaxPosition ||
        (m_is_radio && (position < m_buffer.begin() || position > m_buffer.end()))) {
        return false;
    }
    m_position = position;
    return true;
}

uint64_t RemoteSource::position() const {
    return locked([&] { return m_position; });
}

std::optional<uint64_t> RemoteSource::length() const {
    return locked([&] { return m_length; });
}

bool RemoteSource::is_settled() const {
    return locked([&] { return m_failure != HttpFailure::none || is_complete(); });
}

HttpFailure RemoteSource::failure() const {
    return locked([&] { return m_failure; });
}

std::string RemoteSource::error() const {
    return locked([&] { return m_error; });
}

std::string RemoteSource::title_at(uint64_t position) const {
    const std::lock_guard lock(m_mutex);
    std::string title;
    for (const auto& [from, text] : m_titles) {
        if (from <= position) {
            title = text;
        }
    }
    return title;
}

void RemoteSource::note_title(std::string_view title) {
    if (m_titles.empty() || m_titles.back().second != title) {
        m_titles.emplace_back(m_buffer.end(), title);
    }
    if (m_titles.size() > kMaxTitles) {
        m_titles.pop_front();
    }
}

void RemoteSource::begin_run() {
    m_runs.push_back(m_buffer.end());
    if (m_runs.size() > kMaxRuns) {
        m_runs.pop_front();
    }
}

bool RemoteSource::begins_run(uint64_t position) const {
    return locked([&] { return std::ranges::find(m_runs, position) != m_runs.end(); });
}

std::optional<uint64_t> RemoteSource::run_behind(uint64_t position) const {
    const std::lock_guard lock(m_mutex);
    const auto next = std::ranges::upper_bound(m_runs, position);
    return next == m_runs.end() ? std::nullopt : std::optional(*next);
}

void RemoteSource::note(std::string text) {
    const std::lock_guard lock(m_mutex);
    if (m_notes.size() < kMaxNotes) {
        m_notes.push_back(std::move(text));
    }
}

std::optional<std::string> RemoteSource::take_note() {
    const std::lock_guard lock(m_mutex);
    if (m_notes.empty()) {
        return std::nullopt;
    }
    std::string text = std::move(m_notes.front());
    m_notes.pop_front();
    return text;
}

void RemoteSource::fail(HttpFailure failure, const std::string& error) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_failure == HttpFailure::none || failure == HttpFailure::cancelled) {
            m_failure = failure;
            m_error = error;
        }
    }
    m_changed.notify_all();
    on_failure();
}

bool RemoteSource::is_low() const {
    return m_position >= m_buffer.end() || m_buffer.end() - m_position < m_buffer.capacity() / 4;
}

}  // namespace local_core
