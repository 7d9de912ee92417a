#include "local/playback/session.h"

#include <algorithm>
#include <numeric>
#include <unordered_set>
#include <utility>

namespace local_core {

namespace {

size_t text_bytes(const Track& track) {
    return track.location.size() + track.title.size() + track.artist.size() + track.album.size() +
           track.album_art_url.size();
}

}  // namespace

Session::Session(std::string id, std::vector<Track> tracks, nuv_loop_mode loop_mode, bool shuffle,
                 std::optional<size_t> start)
    : m_id(std::move(id)),
      m_remote(tracks.front().remote),
      m_loop_mode(loop_mode),
      m_shuffle(shuffle) {
    m_list = take_in(std::move(tracks));
    begin_order(start);
    look_around();
}

// ---- Entries ----------------------------------------------------------------------------------

namespace {

template <typename Entries>
auto* find_in(Entries& entries, size_t number) {
    const auto place =
        std::lower_bound(entries.begin(), entries.end(), number,
                         [](const auto& entry, size_t wanted) { return entry.number < wanted; });
    return place != entries.end() && place->number == number ? &*place : nullptr;
}

}  // namespace

const Session::Entry* Session::find(size_t number) const {
    return find_in(m_entries, number);
}

Session::Entry* Session::find(size_t number) {
    return find_in(m_entries, number);
}

const Track& Session::track(size_t number) const {
    static const Track kGone;
    const Entry* const entry = find(number);
    return entry != nullptr ? entry->track : kGone;
}

std::vector<size_t> Session::take_in(std::vector<Track> tracks) {
    std::vector<size_t> numbers(tracks.size());
    std::iota(numbers.begin(), numbers.end(), m_next_number);
    for (Track& track : tracks) {
        m_entries.push_back({m_next_number++, std::move(track)});
    }
    return numbers;
}

// ---- The place in the order -------------------------------------------------------------------

void Session::move_to(size_t number) {
    const auto place = std::find(m_order.begin(), m_order.end(), number);
    if (place != m_order.end()) {
        m_position = static_cast<size_t>(place - m_order.begin());
        look_around();
    }
}

void Session::rewind() {
    const auto place = std::find_if(m_order.begin(), m_order.end(),
                                    [this](size_t number) { return !find(number)->unplayable; });
    m_position = place == m_order.end() ? 0 : static_cast<size_t>(place - m_order.begin());
    look_around();
}

void Session::mark_unplayable(size_t number) {
    if (Entry* const entry = find(number)) {
        entry->unplayable = true;
        look_around();
    }
}

void Session::set_modes(nuv_loop_mode loop_mode, bool shuffle) {
    m_loop_mode = loop_mode;
    if (std::exchange(m_shuffle, shuffle) != shuffle) {
        lay_order();
    }
    look_around();
}

void Session::begin_order(std::optional<size_t> start) {
    m_order = m_list;
    m_position = start.value_or(0);
    if (m_shuffle && start) {
        lay_order();
    } else if (m_shuffle) {
        std::shuffle(m_order.begin(), m_order.end(), m_random);
    }
}

void Session::lay_order() {
    const size_t playing = current();
    m_order = m_list;
    const auto place = std::find(m_order.begin(), m_order.end(), playing);
    m_position = static_cast<size_t>(place - m_order.begin());
    if (m_shuffle) {
        std::iter_swap(m_order.begin(), place);
        std::shuffle(m_order.begin() + 1, m_order.end(), m_random);
        m_position = 0;
    }
}

void Session::look_around() {
    m_next = search(true);
    m_previous = search(false);
    const bool repeats = m_loop_mode == NUV_LOOP_MODE_ONE && !find(current())->unplayable;
    m_follower = repeats ? std::optional<size_t>(current()) : m_next;
}

std::optional<size_t> Session::search(bool forward) const {
    const size_t count = m_order.size();
    const bool wraps = m_loop_mode == NUV_LOOP_MODE_ALL;
    const size_t reach = wraps ? count : forward ? count - 1 - m_position : m_position;
    for (size_t distance = 1; distance <= reach; ++distance) {
        const size_t step = forward ? distance : count - distance;
        const size_t number = m_order[(m_position + step) % count];
        if (!find(number)->unplayable) {
            return number;
        }
    }
    return std::nullopt;
}

// ---- Changes of the list ----------------------------------------------------------------------

nuv_error Session::edit(QueueEdit& edit) {
    const nuv_error error = check(edit);
    if (error != NUV_ERROR_OK) {
        return error;
    }
    switch (edit.verb) {
        case Verb::queue_replace:
            replace(edit);
            break;
        case Verb::queue_insert:
            insert(edit);
            break;
        case Verb::queue_remove:
            remove(edit);
            break;
        case Verb::queue_move:
            move(edit);
            break;
        default:
            jump(edit);
            break;
    }
    m_revision += edit.verb != Verb::queue_jump ? 1 : 0;
    look_around();
    return error;
}

nuv_error Session::check(const QueueEdit& edit) const {
    const auto is_unknown = [this](size_t number) { return find(number) == nullptr; };
    if (std::any_of(edit.items.begin(), edit.items.end(), is_unknown) ||
        (edit.before && is_unknown(*edit.before))) {
        return NUV_ERROR_NOT_FOUND;
    }
    if (edit.verb == Verb::queue_remove && edit.items.size() == m_list.size()) {
        return NUV_ERROR_INVALID_STATE;
    }
    const auto add = [](size_t sum, const Track& track) { return sum + text_bytes(track); };
    size_t count = edit.tracks.size();
    size_t bytes = std::accumulate(edit.tracks.begin(), edit.tracks.end(), size_t{0}, add);
    if (edit.verb == Verb::queue_insert) {
        count += m_list.size();
        bytes =
            std::accumulate(m_entries.begin(), m_entries.end(), bytes,
                            [&](size_t sum, const Entry& entry) { return add(sum, entry.track); });
    }
    return count > kMaxTracks || bytes > kMaxTextBytes ? NUV_ERROR_INVALID_ARGUMENT : NUV_ERROR_OK;
}

void Session::replace(QueueEdit& edit) {
    m_entries.clear();
    m_list = take_in(std::move(edit.tracks));
    begin_order(edit.start);
}

void Session::insert(QueueEdit& edit) {
    const std::vector<size_t> numbers = take_in(std::move(edit.tracks));
    put_into_list(numbers, edit.before);
    if (!m_shuffle) {
        lay_order();
        return;
    }
    const auto upcoming = m_order.begin() + static_cast<std::ptrdiff_t>(m_position) + 1;
    const auto named =
        edit.before ? std::find(upcoming, m_order.end(), *edit.before) : m_order.end();
    if (named != m_order.end()) {
        m_order.insert(named, numbers.begin(), numbers.end());
        return;
    }
    for (const size_t number : numbers) {
        std::uniform_int_distribution<size_t> place(m_position + 1, m_order.size());
        m_order.insert(m_order.begin() + static_cast<std::ptrdiff_t>(place(m_random)), number);
    }
}

void Session::remove(QueueEdit& edit) {
    const std::unordered_set<size_t> gone(edit.items.begin(), edit.items.end());
    const auto is_gone = [&](size_t number) { return gone.contains(number); };
    const auto before_current = std::count_if(
        m_order.begin(), m_order.begin() + static_cast<std::ptrdiff_t>(m_position), is_gone);
    std::erase_if(m_order, is_gone);
    std::erase_if(m_list, is_gone);
    std::erase_if(m_entries, [&](const Entry& entry) { return is_gone(entry.number); });
    m_position = std::min(m_position - static_cast<size_t>(before_current), m_order.size() - 1);
}

void Session::move(QueueEdit& edit) {
    const std::unordered_set<size_t> moved(edit.items.begin(), edit.items.end());
    // Those that stand in front of one of themselves stay in front of what follows it.
    if (edit.before) {
        auto place = std::find(m_list.begin(), m_list.end(), *edit.before);
        place = std::find_if(place, m_list.end(),
                             [&](size_t number) { return !moved.contains(number); });
        edit.before = place == m_list.end() ? std::nullopt : std::optional<size_t>(*place);
    }
    std::erase_if(m_list, [&](size_t number) { return moved.contains(number); });
    put_into_list(edit.items, edit.before);
    if (!m_shuffle) {
        lay_order();
    }
}

void Session::jump(QueueEdit& edit) {
    find(edit.items.front())->unplayable = false;  // once more
    move_to(edit.items.front());
}

void Session::put_into_list(const std::vector<size_t>& numbers, std::optional<size_t> before) {
    const auto place = before ? std::find(m_list.begin(), m_list.end(), *before) : m_list.end();
    m_list.insert(place, numbers.begin(), numbers.end());
}

}  // namespace local_core
