#include "controller/session/device_state.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include "common/number.h"
#include "common/utf8.h"
#include "controller/session/tracks.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxText = 300;
constexpr size_t kMaxUrl = 2048;
constexpr int64_t kMaxQueue = 20'000;
constexpr size_t kMaxQueueBytes = size_t{8} << 20U;
// A device's clock that was set: what was known of its lag counts for nothing then.
constexpr int64_t kClockWasSetMs = 5'000;
// A position that is told twice, so far apart at least, has not advanced.
constexpr std::chrono::seconds kStandsStill{3};
// Before the first of a track is heard it is opened.
constexpr std::chrono::seconds kOpensForLong{15};
constexpr std::array kPlaybacks{"stopped", "playing", "paused"};

std::string text_of(const cJSON* object, const char* key, size_t limit = kMaxText) {
    return std::string(beginning(text_member(object, key).value_or(""), limit));
}

int64_t count_of(const cJSON* object, const char* key) {
    return std::max<int64_t>(0, number_member(object, key).value_or(0));
}

// Of "http://here/content/17.flac" what is behind "here"; any other URL as it is.
std::string below_here(const std::string& url, const std::string& here) {
    return url.starts_with(here + "/content/") ? url.substr(here.size() + 1) : url;
}

// Of "http://here/cover/17?size=1000" what the page can ask for; nothing of a foreign one.
std::string own_cover(const std::string& url, const std::string& here) {
    const std::string own = here + "/cover/";
    if (!url.starts_with(own)) {
        return {};
    }
    const auto album =
        to_number<uint64_t>(std::string_view(url).substr(own.size(), url.find('?') - own.size()));
    return album ? "cover/" + std::to_string(*album) : "";
}

QueueItem item_of(const cJSON* entry, const std::string& here) {
    return {{below_here(text_of(entry, "url", kMaxUrl), here), text_of(entry, "title"),
             text_of(entry, "artist"), text_of(entry, "album"),
             own_cover(text_of(entry, "cover", kMaxUrl), here), count_of(entry, "duration_ms")},
            count_of(entry, "item")};
}

size_t bytes_of(const QueueItem& item) {
    return sizeof item + item.url.size() + item.title.size() + item.artist.size() +
           item.album.size() + item.cover.size();
}

// What the track is called where it is shown.
void add_track_id(cJSON* object, const QueueItem& item) {
    if (const int64_t id = track_id_of(item.url); id != 0) {
        add(object, "track_id", id);
    }
}

std::string title_of(const QueueItem& item) {
    return !item.title.empty() ? item.title : !item.url.empty() ? item.url : "Untitled";
}

}  // namespace

bool DeviceState::apply(const cJSON* message, Clock::time_point now, int64_t now_unix_ms) {
    const std::string type = text_member(message, "type").value_or("");
    return type == "state"    ? apply_state(message, now, now_unix_ms)
           : type == "track"  ? apply_track(message, now)
           : type == "played" ? apply_played(message)
           : type == "queue"  ? apply_queue(message)
           : type == "error"  ? apply_error(message)
                              : false;
}

// The position was heard a while before the message came. The two clocks need not agree: the
// quickest message so far tells by how much they differ.
bool DeviceState::apply_state(const cJSON* message, Clock::time_point now, int64_t now_unix_ms) {
    const auto* const playback = std::ranges::find(kPlaybacks, text_of(message, "playback"));
    if (playback == kPlaybacks.end()) {
        return false;
    }
    ++m_state_count;
    watch_position(count_of(message, "position_ms"), count_of(message, "seeks"), now);
    m_playback = static_cast<Playback>(playback - kPlaybacks.begin());
    m_is_active = bool_member(message, "active").value_or(false);
    m_item = number_member(message, "item");
    m_volume = number_member(message, "volume");
    m_is_muted = bool_member(message, "muted").value_or(false);
    m_is_shuffled = bool_member(message, "shuffle").value_or(false);
    const std::string loop = text_of(message, "loop");
    m_loop = loop == "one" || loop == "all" ? loop : "off";
    m_has_next = bool_member(message, "has_next").value_or(false);
    m_has_previous = bool_member(message, "has_previous").value_or(false);
    m_position_ms = count_of(message, "position_ms");
    const int64_t lag = now_unix_ms - number_member(message, "taken_ms").value_or(now_unix_ms);
    if (!m_least_lag_ms || lag < *m_least_lag_ms || lag > *m_least_lag_ms + kClockWasSetMs) {
        m_least_lag_ms = lag;
    }
    m_position_at = now - std::chrono::milliseconds(lag - *m_least_lag_ms);
    return true;
}

// `m_playback` and `m_position_ms` are those of the message before.
void DeviceState::watch_position(int64_t position_ms, int64_t seeks, Clock::time_point now) {
    if (!is_playing() || position_ms != m_position_ms || seeks != m_seeks) {
        m_advanced_at = now;
    }
    m_seeks = seeks;
    m_advances = now - m_advanced_at < (is_track_heard() ? kStandsStill : kOpensForLong);
}

void DeviceState::freeze(Clock::time_point at) {
    m_position_ms = position_ms(at);
    m_is_frozen = true;
}

bool DeviceState::apply_track(const cJSON* message, Clock::time_point now) {
    m_advanced_at = now;
    m_track = {};
    m_track.item = number_member(message, "item");
    if (m_track.item) {
        const cJSON* format = member(message, "format");
        m_track.title = text_of(message, "title");
        m_track.artist = text_of(message, "artist");
        m_track.album = text_of(message, "album");
        m_track.duration_ms = count_of(message, "duration_ms");
        m_track.is_seekable = bool_member(message, "seekable").value_or(false);
        m_track.rate_hz = count_of(format, "rate_hz");
        m_track.channels = count_of(format, "channels");
        m_track.bits = count_of(format, "bits");
        m_track.changed = text_of(message, "why");
    }
    return true;
}

bool DeviceState::apply_played(const cJSON* message) {
    const QueueItem* about = find(count_of(message, "item"));
    m_played = {about != nullptr ? title_of(*about) : "", text_of(message, "verified")};
    return true;
}

bool DeviceState::apply_queue(const cJSON* message) {
    const cJSON* items = member(message, "items");
    if (cJSON_IsArray(items) == 0) {
        return false;
    }
    const int64_t revision = count_of(message, "revision");
    const int64_t length = std::min(count_of(message, "length"), kMaxQueue);
    if (revision != m_revision || length != m_length) {
        m_queue.clear();
        m_queue_bytes = 0;
    }
    m_revision = revision;
    m_length = length;
    int64_t place = count_of(message, "first");
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, items) {
        QueueItem item = item_of(entry, m_here);
        const size_t bytes = bytes_of(item);
        if (place >= m_length || m_queue_bytes + bytes > kMaxQueueBytes) {
            break;
        }
        if (m_queue.emplace(place++, std::move(item)).second) {
            m_queue_bytes += bytes;
        }
    }
    return true;
}

bool DeviceState::apply_error(const cJSON* message) {
    m_problem = text_of(message, "reason");
    const std::optional<int64_t> item = number_member(message, "item");
    if (const QueueItem* about = item ? find(*item) : nullptr) {
        m_problem = title_of(*about) + ": " + m_problem;
    }
    return true;
}

int64_t DeviceState::position_ms(Clock::time_point now) const {
    const int64_t since =
        is_playing() && is_track_heard() && m_advances && !m_is_frozen
            ? std::chrono::duration_cast<std::chrono::milliseconds>(now - m_position_at).count()
            : 0;
    const int64_t position = m_position_ms + since;
    return m_track.duration_ms > 0 ? std::min(position, m_track.duration_ms) : position;
}

std::optional<int64_t> DeviceState::missing_place() const {
    int64_t place = 0;
    for (const auto& [at, item] : m_queue) {
        if (at != place) {
            break;
        }
        ++place;
    }
    return place < m_length && m_queue_bytes + kMaxUrl < kMaxQueueBytes ? std::optional(place)
                                                                        : std::nullopt;
}

const QueueItem* DeviceState::find(int64_t item) const {
    const auto found = std::ranges::find_if(
        m_queue, [item](const auto& entry) { return entry.second.item == item; });
    return found == m_queue.end() ? nullptr : &found->second;
}

std::optional<int64_t> DeviceState::current_place() const {
    const auto at = std::ranges::find_if(
        m_queue, [this](const auto& entry) { return entry.second.item == m_item; });
    return at == m_queue.end() ? std::nullopt : std::optional(at->first);
}

std::optional<int64_t> DeviceState::item_after_current() const {
    const auto place = current_place();
    if (!place) {
        return std::nullopt;
    }
    const auto next = m_queue.upper_bound(*place);
    return next == m_queue.end() ? std::nullopt : std::optional(next->second.item);
}

std::optional<int64_t> DeviceState::first_item() const {
    return m_queue.empty() ? std::nullopt : std::optional(m_queue.begin()->second.item);
}

std::string DeviceState::current_title() const {
    const QueueItem* const current = m_item ? find(*m_item) : nullptr;
    return current != nullptr ? title_of(*current) : "";
}

void DeviceState::describe(cJSON* object, Clock::time_point now) const {
    add(object, "playback", kPlaybacks[static_cast<size_t>(m_playback)]);
    add(object, "active", m_is_active);
    add(object, "position_ms", position_ms(now));
    if (m_item) {
        add(object, "item", *m_item);
    }
    if (m_volume) {
        add(object, "volume", *m_volume);
    }
    add(object, "muted", m_is_muted);
    add(object, "shuffle", m_is_shuffled);
    add(object, "loop", m_loop);
    add(object, "has_next", m_has_next);
    add(object, "has_previous", m_has_previous);
    add(object, "queue_revision", m_revision);
    add(object, "queue_length", m_length);
    if (m_played) {
        JsonPtr played = new_object();
        add(played.get(), "title", m_played->title);
        add(played.get(), "verified", m_played->verified);
        add(object, "played", std::move(played));
    }
    const QueueItem* found = m_item ? find(*m_item) : nullptr;
    const bool is_heard = is_track_heard();
    if (!is_heard && found == nullptr) {
        return;
    }
    const QueueItem queued = found != nullptr ? *found : QueueItem();
    JsonPtr track = new_object();
    add_track_id(track.get(), queued);
    const auto text = [&](const char* key, const std::string& heard, const std::string& asked) {
        add(track.get(), key, heard.empty() ? asked : heard);
    };
    text("title", m_track.title, title_of(queued));
    text("artist", m_track.artist, queued.artist);
    text("album", m_track.album, queued.album);
    add(track.get(), "cover", queued.cover);
    add(track.get(), "duration_ms", is_heard ? m_track.duration_ms : queued.duration_ms);
    add(track.get(), "seekable", m_track.is_seekable);
    add(track.get(), "rate_hz", m_track.rate_hz);
    add(track.get(), "channels", m_track.channels);
    add(track.get(), "bits", m_track.bits);
    add(track.get(), "changed", m_track.changed);
    add(object, "track", std::move(track));
}

JsonPtr DeviceState::describe_queue() const {
    JsonPtr queue = new_object();
    JsonPtr items = new_array();
    for (const auto& [place, item] : m_queue) {
        JsonPtr entry = new_object();
        add(entry.get(), "item", item.item);
        add(entry.get(), "title", title_of(item));
        add(entry.get(), "artist", item.artist);
        add(entry.get(), "album", item.album);
        add(entry.get(), "cover", item.cover);
        add_track_id(entry.get(), item);
        add(entry.get(), "duration_ms", item.duration_ms);
        append(items.get(), std::move(entry));
    }
    add(queue.get(), "revision", m_revision);
    add(queue.get(), "length", m_length);
    add(queue.get(), "items", std::move(items));
    return queue;
}

}  // namespace nuvio::controller
