#include "reader/inside/input.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace nuvio::reader {

namespace {

constexpr uint64_t kMaxPosition = INT64_MAX;

}  // namespace

// ---- A file -------------------------------------------------------------------------------------

FileInput::FileInput(UniqueFd file)
    : m_file(std::move(file)),
      m_length(static_cast<uint64_t>(std::max<off_t>(lseek(m_file.get(), 0, SEEK_END), 0))) {}

size_t FileInput::read(void* to, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t got = pread(m_file.get(), static_cast<char*>(to) + done, size - done,
                                  static_cast<off_t>(m_position));
        m_has_failed = got < 0;
        if (got <= 0) {
            break;
        }
        done += static_cast<size_t>(got);
        m_position += static_cast<uint64_t>(got);
    }
    return done;
}

bool FileInput::seek(uint64_t position) {
    if (position > kMaxPosition) {
        return false;
    }
    m_position = position;
    return true;
}

// ---- Remote bytes -------------------------------------------------------------------------------

void RemoteInput::ask(uint64_t place, size_t size) {
    Answer question{};
    question.status = Status::wants_bytes;
    question.wanted = {place, static_cast<uint32_t>(std::min(size, kWindowBytes)), 0};
    m_bytes = m_parent.ask(question).bytes;
}

bool RemoteInput::has(uint64_t place) const {
    return place >= m_bytes.place && place - m_bytes.place < m_bytes.size;
}

size_t RemoteInput::read(void* to, size_t size) {
    size_t done = 0;
    while (done < size) {
        if (!has(m_position)) {
            ask(m_position, size - done);
            if (!has(m_position)) {
                break;
            }
        }
        if (is_at_next_run()) {
            break;
        }
        const size_t at = static_cast<size_t>(m_position - m_bytes.place);
        const size_t count = std::min(size - done, m_bytes.size - at);
        std::memcpy(static_cast<char*>(to) + done, m_window + at, count);
        done += count;
        m_position += count;
    }
    return done;
}

bool RemoteInput::is_at_next_run() const {
    return m_bytes.begins_run && m_position == m_bytes.place && m_position > m_run;
}

bool RemoteInput::next_run() {
    const bool is_there = is_at_next_run();
    m_run = is_there ? m_position : m_run;
    return is_there;
}

std::optional<uint64_t> RemoteInput::duration_us() const {
    return m_duration_us > 0 ? std::optional(m_duration_us) : std::nullopt;
}

std::optional<uint64_t> RemoteInput::go_to_time(uint64_t time_us) {
    Answer question{};
    question.status = Status::wants_bytes;
    question.wanted = {time_us, 0, 1};
    const Bytes said = m_parent.ask(question).bytes;
    if (!said.is_reached) {
        return std::nullopt;
    }
    m_bytes = said;
    m_run = m_position = said.place;
    return said.time_us;
}

bool RemoteInput::seek(uint64_t position) {
    if (position > kMaxPosition) {
        return false;
    }
    if (m_is_radio && position != m_position && !has(position)) {
        ask(position, 0);
        if (!m_bytes.is_reached) {
            return false;
        }
    }
    m_position = position;
    return true;
}

std::optional<uint64_t> RemoteInput::length() {
    if (m_bytes.length == Bytes::kUnknown && !m_bytes.has_failed && !m_is_radio) {
        ask(m_position, 0);
    }
    return m_bytes.length == Bytes::kUnknown ? std::nullopt : std::optional(m_bytes.length);
}

}  // namespace nuvio::reader
