#include "local/session.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace local_core {

Session::Session(std::string id, std::vector<Track> tracks, nuv_loop_mode loop_mode, bool shuffle)
    : m_id(std::move(id)),
      m_tracks(std::move(tracks)),
      m_unplayable(m_tracks.size(), false),
      m_order(m_tracks.size()),
      m_loop_mode(loop_mode),
      m_shuffle(shuffle) {
    std::iota(m_order.begin(), m_order.end(), size_t{0});
    if (shuffle) {
        std::shuffle(m_order.begin(), m_order.end(), m_random);
    }
    look_around();
}

void Session::move_to(size_t index) {
    const auto place = std::find(m_order.begin(), m_order.end(), index);
    m_position = static_cast<size_t>(place - m_order.begin());
    look_around();
}

void Session::rewind() {
    const auto place = std::find_if(m_order.begin(), m_order.end(),
                                    [this](size_t index) { return !m_unplayable[index]; });
    m_position = place == m_order.end() ? 0 : static_cast<size_t>(place - m_order.begin());
    look_around();
}

void Session::mark_unplayable(size_t index) {
    m_unplayable[index] = true;
    look_around();
}

void Session::set_modes(nuv_loop_mode loop_mode, bool shuffle) {
    m_loop_mode = loop_mode;
    if (std::exchange(m_shuffle, shuffle) != shuffle) {
        lay_order();
    }
    look_around();
}

void Session::lay_order() {
    const size_t playing = current();
    std::iota(m_order.begin(), m_order.end(), size_t{0});
    m_position = playing;
    if (m_shuffle) {
        std::swap(m_order.front(), m_order[playing]);
        std::shuffle(m_order.begin() + 1, m_order.end(), m_random);
        m_position = 0;
    }
}

void Session::look_around() {
    m_next = search(true);
    m_previous = search(false);
    const bool repeats = m_loop_mode == NUV_LOOP_MODE_ONE && !m_unplayable[current()];
    m_follower = repeats ? std::optional<size_t>(current()) : m_next;
}

std::optional<size_t> Session::search(bool forward) const {
    const size_t count = m_order.size();
    const bool wraps = m_loop_mode == NUV_LOOP_MODE_ALL;
    const size_t reach = wraps ? count : forward ? count - 1 - m_position : m_position;
    for (size_t distance = 1; distance <= reach; ++distance) {
        const size_t step = forward ? distance : count - distance;
        const size_t index = m_order[(m_position + step) % count];
        if (!m_unplayable[index]) {
            return index;
        }
    }
    return std::nullopt;
}

}  // namespace local_core
