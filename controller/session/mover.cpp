#include "controller/session/mover.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

namespace nuvio::controller {

namespace {

using Clock = Commands::Clock;
using std::chrono::milliseconds;

// So much time the new device gets to have the music's place ready before the old one comes there.
constexpr milliseconds kLead{700};
// From the command to play until a device that has its place ready is heard.
constexpr milliseconds kBegins{30};
// Nearer to a track's end it is the next one's beginning that is waited for.
constexpr milliseconds kEnding = 2 * kLead;
constexpr milliseconds kGoesOn{1000};  // to the next track
constexpr int kMoveTries = 5;          // the old device may go elsewhere meanwhile

struct Failed {
    std::string reason;
};

void check(Outcome outcome) {
    if (!outcome.is_ok) {
        throw Failed{std::move(outcome.reason)};
    }
}

template <typename Value>
JsonPtr with(const char* key, const Value& value) {
    JsonPtr arguments = new_object();
    add(arguments.get(), key, value);
    return arguments;
}

std::optional<int64_t> item_at(const DeviceState& state, size_t place) {
    const auto found = state.queue().find(static_cast<int64_t>(place));
    return found != state.queue().end() ? std::optional(found->second.item) : std::nullopt;
}

}  // namespace

struct Mover::Music {
    std::string from, to;
    Clock::time_point latest;
    std::string left = {};  // the session of `from`
    FoundDevice found = {};
    std::string session = {};  // the one of `to`
    ToldTracks tracks = {};
    size_t place = 0;
    int64_t revision = 0;  // of the queue of `from`
    bool is_shuffled = false;
    std::string loop = {};
};

// Where the old device is.
struct Mover::Spot {
    size_t place = 0;
    Playback playback = Playback::stopped;
    int64_t position_ms = 0;
    int64_t left_ms = 0;  // of its track, where it is known to end
    bool is_seekable = false;
    Clock::time_point at;  // when it was there
};

Outcome Mover::move(const std::string& from, const std::string& to) {
    {
        const std::scoped_lock lock(m_house.mutex);
        if (from == to) {
            return {false, "it plays there already"};
        }
        if (m_busy.contains(from) || m_busy.contains(to)) {
            return {false, "music is just being moved there or away"};
        }
        m_busy.insert({from, to});
    }
    const auto done = [&](Mover*) {
        const std::scoped_lock lock(m_house.mutex);
        m_busy.erase(from);
        m_busy.erase(to);
    };
    const std::unique_ptr<Mover, decltype(done)> busy(this, done);

    Music music{.from = from, .to = to, .latest = Clock::now() + Sessions::kPatience};
    try {
        take_up(music);
        Sessions::HandedOver handed =
            m_sessions.hand_over(to, music.found, music.tracks, music.place, false, music.latest);
        music.session = handed.session;
        check(std::move(handed.outcome));
        carry_over(music);
        take_sleep_along(music);
    } catch (const Failed& failed) {
        give_up(music, failed.reason);
        return {false, failed.reason};
    }
    return leave(music);
}

// What is to be moved, once the whole queue is known.
void Mover::take_up(Music& music) {
    std::unique_lock lock(m_house.mutex);
    const Device* from = nullptr;
    m_house.on_change.wait_for(lock, Commands::kPatience, [&] {
        from = m_house.find(music.from);
        return m_house.is_closed || from == nullptr || from->link == nullptr ||
               (from->state.has_queue() && !from->is_being_filled);
    });
    Device* const to = m_house.find(music.to);
    if (from == nullptr || from->link == nullptr) {
        throw Failed{"nothing of this controller plays there"};
    }
    if (to == nullptr || !to->is_present) {
        throw Failed{"the other device is not on the network: is it switched on?"};
    }
    const DeviceState& state = from->state;
    const std::optional<int64_t> place = state.current_place();
    if (!place || static_cast<int64_t>(state.queue().size()) != state.queue_length()) {
        throw Failed{"its queue is not known yet, or too long to be moved"};
    }
    for (const auto& [at, item] : state.queue()) {
        music.tracks.push_back(item);
    }
    music.left = from->link_session;
    music.found = to->found;
    music.place = static_cast<size_t>(*place);
    music.revision = state.revision();
    music.is_shuffled = state.is_shuffled();
    music.loop = state.loop();
    to->ask_for({state.current_title(), {}, {}});
    m_house.change();
}

void Mover::carry_over(Music& music) {
    wait_for(music, [](const DeviceState& to) { return to.has_queue(); });
    note_joined(music);
    set_modes(music);
    bool is_opened = false;
    for (int tries = 0; tries < kMoveTries; ++tries) {
        const Spot spot = spot_of(music);
        jump(music, spot.place);
        if (spot.playback == Playback::stopped) {
            if (is_opened) {
                tell(music, "stop");
            }
            return;
        }
        if (!std::exchange(is_opened, true)) {
            tell(music, "play");
            tell(music, "pause");
        }
        wait_until_cued(music);
        if (join_in(music)) {
            return;
        }
    }
    throw Failed{"the music does not stay in its place; move it once more"};
}

// With the place ready. False: the old device is elsewhere by now.
bool Mover::join_in(const Music& music) {
    const Spot spot = spot_of(music);
    if (spot.place != music.place || spot.playback == Playback::stopped) {
        return false;
    }
    const auto seek = [&](milliseconds ahead) {
        if (spot.is_seekable) {
            tell(music, "seek", with("position_ms", spot.position_ms + ahead.count()));
        }
    };
    if (spot.playback == Playback::paused) {
        seek({});
        return true;
    }
    if (spot.left_ms > 0 && milliseconds(spot.left_ms) < kEnding) {
        stays(music, spot, spot.at + milliseconds(spot.left_ms) + kGoesOn);
        return false;
    }
    seek(kLead);
    if (!stays(music, spot, spot.at + kLead - kBegins)) {
        return false;
    }
    tell(music, "play");
    wait_for(music, [](const DeviceState& to) { return to.is_playing() && to.is_track_heard(); });
    return true;
}

// It waits there, and nothing is to be heard yet.
void Mover::note_joined(const Music& music) {
    const std::scoped_lock lock(m_house.mutex);
    if (Device* const to = m_house.find(music.to)) {
        to->put_off();
        m_house.change();
    }
}

void Mover::set_modes(const Music& music) {
    tell(music, "shuffle", with("shuffle", music.is_shuffled));
    tell(music, "loop", with("loop", music.loop));
}

// The old device may have gone on.
void Mover::jump(Music& music, size_t place) {
    music.place = place;
    int64_t item = 0;
    {
        const std::scoped_lock lock(m_house.mutex);
        const Device* const to = m_house.find(music.to);
        if (to == nullptr || to->state.current_place() == static_cast<int64_t>(place)) {
            return;
        }
        item = item_at(to->state, place).value_or(0);
    }
    tell(music, "queue_jump", with("item", item));
}

void Mover::tell(const Music& music, const char* command, JsonPtr arguments) {
    check(m_commands.run(music.to, command, std::move(arguments), music.latest,
                         Commands::Until::answer));
}

void Mover::wait_until_cued(const Music& music) {
    wait_for(music, [&](const DeviceState& to) {
        return to.playback() == Playback::paused && to.is_track_heard() &&
               to.track().item == item_at(to, music.place);
    });
}

// Of the new device.
void Mover::wait_for(const Music& music, const std::function<bool(const DeviceState&)>& has_come) {
    std::unique_lock lock(m_house.mutex);
    bool is_there = false;
    std::string problem;
    m_house.on_change.wait_until(lock, music.latest, [&] {
        const Device* const to = m_house.find(music.to);
        problem = to != nullptr ? to->problem : "";
        is_there = to != nullptr && to->link != nullptr && to->link_session == music.session &&
                   has_come(to->state);
        return m_house.is_closed || to == nullptr || is_there || !problem.empty();
    });
    if (!is_there) {
        throw Failed{problem.empty() ? "the other device does not begin to play" : problem};
    }
}

// Until `until`; false, and at once, where the old device goes elsewhere.
bool Mover::stays(const Music& music, const Spot& spot, Clock::time_point until) {
    std::unique_lock lock(m_house.mutex);
    return !m_house.on_change.wait_until(lock, until, [&] {
        const Device* const from = m_house.find(music.from);
        return m_house.is_closed || from == nullptr || from->link_session != music.left ||
               from->state.playback() != spot.playback ||
               from->state.current_place() != static_cast<int64_t>(spot.place);
    });
}

Mover::Spot Mover::spot_of(const Music& music) {
    const std::scoped_lock lock(m_house.mutex);
    const Device* const from = m_house.find(music.from);
    if (from == nullptr || from->link == nullptr || from->link_session != music.left) {
        throw Failed{"the device does not answer any more, or plays something else"};
    }
    const DeviceState& state = from->state;
    const std::optional<int64_t> place = state.current_place();
    if (!place || state.revision() != music.revision) {
        throw Failed{"the queue was changed meanwhile; move it once more"};
    }
    const Clock::time_point now = Clock::now();
    Spot spot{.place = static_cast<size_t>(*place), .playback = state.playback(), .at = now};
    if (state.is_track_heard()) {
        spot.position_ms = state.position_ms(now);
        spot.is_seekable = state.track().is_seekable;
        const int64_t duration_ms = state.track().duration_ms;
        spot.left_ms = duration_ms > 0 ? std::max<int64_t>(1, duration_ms - spot.position_ms) : 0;
    }
    return spot;
}

// The sleep timer is for who listens, not for a room.
void Mover::take_sleep_along(const Music& music) {
    const std::scoped_lock lock(m_house.mutex);
    std::optional<Sleep> sleep = m_house.sessions.wishes_of(music.from).sleep;
    const Device* const to = m_house.find(music.to);
    if (sleep && sleep->item && to != nullptr) {
        sleep->item = item_at(to->state, music.place);
    }
    m_house.sessions.set_sleep(music.from, std::nullopt);
    m_house.sessions.set_sleep(music.to, sleep);
}

// The old device. The music is where it was wanted, whatever becomes of this.
Outcome Mover::leave(const Music& music) {
    Outcome outcome = m_commands.run(music.from, "leave", new_object());
    if (outcome.is_ok) {
        return outcome;
    }
    const std::scoped_lock lock(m_house.mutex);
    const Device* const from = m_house.find(music.from);
    const std::string name = from != nullptr ? m_house.name_of(music.from, *from) : music.from;
    return {true, name + " was not to be told to leave, and may play on: " + outcome.reason};
}

// The new device is as free as it was, unless it was told something else meanwhile.
void Mover::give_up(const Music& music, const std::string& reason) {
    {
        const std::scoped_lock lock(m_house.mutex);
        m_commands.fail(music.to, reason);
        const Device* const to = m_house.find(music.to);
        if (to == nullptr || to->link == nullptr || to->link_session != music.session) {
            return;
        }
    }
    m_commands.run(music.to, "leave", new_object());
}

}  // namespace nuvio::controller
