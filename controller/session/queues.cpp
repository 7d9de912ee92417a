#include "controller/session/queues.h"

#include <algorithm>
#include <array>
#include <set>
#include <utility>

#include "controller/session/tracks.h"

namespace nuvio::controller {

namespace {

constexpr std::chrono::seconds kQueuePatience{3};
constexpr size_t kMaxItems = 500;  // of a command
constexpr char kRemove[] = "queue_remove";
constexpr char kNotKnown[] = "its queue is not known just now";

bool is_any(const QueueItem&) {
    return true;
}

JsonPtr items_argument(const std::vector<int64_t>& items) {
    JsonPtr array = new_array();
    for (const int64_t item : items) {
        append(array.get(), JsonPtr(cJSON_CreateNumber(static_cast<double>(item))));
    }
    JsonPtr arguments = new_object();
    add(arguments.get(), "items", std::move(array));
    return arguments;
}

std::set<int64_t> items_of(const cJSON* arguments) {
    std::set<int64_t> items;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, member(arguments, "items")) {
        items.insert(cJSON_IsNumber(item) != 0 ? static_cast<int64_t>(item->valuedouble) : -1);
    }
    return items;
}

ToldTracks told(const Taken::Run& run) {
    return {run.items.begin(), run.items.end()};
}

}  // namespace

Outcome Queues::play(const std::string& id, const std::vector<Playable>& items, Where where,
                     std::optional<size_t> start, const Sessions::Prepare& prepare) {
    std::optional<Taken> before = where == Where::now ? taken(id, is_any) : std::nullopt;
    return keep(id, std::move(before), m_sessions.play(id, items, where, start, prepare));
}

Outcome Queues::run(const std::string& id, const std::string& name, JsonPtr arguments) {
    std::optional<Taken> before;
    if (name == kRemove) {
        has_whole_queue(id, Commands::Clock::now() + kQueuePatience);
        before = taken(id, [items = items_of(arguments.get())](const QueueItem& item) {
            return items.contains(item.item);
        });
    } else if (name == "queue_replace") {
        before = taken(id, is_any);
    }
    return keep(id, std::move(before), m_commands.run(id, name, std::move(arguments)));
}

Outcome Queues::clear(const std::string& id) {
    const Time latest = Commands::Clock::now() + Sessions::kPatience;
    if (!has_whole_queue(id, Commands::Clock::now() + kQueuePatience)) {
        return {false, kNotKnown};
    }
    std::optional<int64_t> current;
    {
        const std::scoped_lock lock(m_house.mutex);
        const Device* const device = m_house.find(id);
        current = device != nullptr ? device->state.item() : std::nullopt;
    }
    std::optional<Taken> before =
        taken(id, [current](const QueueItem& item) { return item.item != current; });
    if (!current || !before) {
        return {false, "there is nothing in its queue but what plays"};
    }
    std::vector<int64_t> items;
    for (const Taken::Run& run : before->runs) {
        std::ranges::transform(run.items, std::back_inserter(items), &QueueItem::item);
    }
    for (size_t first = 0; first < items.size(); first += kMaxItems) {
        const auto begin = items.begin() + static_cast<std::ptrdiff_t>(first);
        const bool is_last = items.size() - first <= kMaxItems;
        const auto end = is_last ? items.end() : begin + kMaxItems;
        m_sessions.set_being_filled(id, !is_last);
        Outcome outcome =
            m_commands.run(id, kRemove, items_argument({begin, end}), latest,
                           is_last ? Commands::Until::effect : Commands::Until::answer);
        if (!outcome.is_ok) {
            m_sessions.set_being_filled(id, false);
            outcome.undo = first > 0 ? keep(id, std::move(before), {true, {}}).undo : 0;
            return outcome;
        }
    }
    return keep(id, std::move(before), {true, {}});
}

Outcome Queues::undo(const std::string& id, std::optional<int64_t> number) {
    const Time latest = Commands::Clock::now() + Sessions::kPatience;
    Taken before;
    {
        const std::scoped_lock lock(m_house.mutex);
        Device* const device = m_house.find(id);
        if (device == nullptr || !device->taken ||
            number.value_or(device->taken->number) != device->taken->number ||
            (!device->taken->is_all && device->taken->session != device->link_session)) {
            return {false, "there is nothing to undo any more"};
        }
        before = std::move(*device->taken);
        device->taken.reset();
    }
    Outcome outcome = before.is_all ? play_again(id, before) : put_back(id, before, latest);
    if (!outcome.is_ok) {
        keep_again(id, std::move(before));
    }
    return outcome;
}

// ---- Parts of them ------------------------------------------------------------------------------

bool Queues::has_whole_queue(const std::string& id, Time latest) {
    std::unique_lock lock(m_house.mutex);
    const Device* device = nullptr;
    m_house.on_change.wait_until(lock, latest, [&] {
        device = m_house.find(id);
        return m_house.is_closed || device == nullptr || device->link == nullptr ||
               device->state.has_queue();
    });
    return device != nullptr && device->link != nullptr && device->state.has_queue();
}

std::optional<Taken> Queues::taken(const std::string& id, const Meant& is_meant) {
    const std::scoped_lock lock(m_house.mutex);
    const Device* const device = m_house.find(id);
    if (device == nullptr || device->owner != Owner::us) {
        return std::nullopt;
    }
    std::optional<Taken> taken = taken_of(device->state, is_meant, Commands::Clock::now());
    if (taken) {
        taken->session = device->link_session;
        taken->is_all = std::ssize(taken->runs.front().items) == device->state.queue_length();
    }
    return taken;
}

Outcome Queues::keep(const std::string& id, std::optional<Taken> taken, Outcome outcome) {
    const std::scoped_lock lock(m_house.mutex);
    Device* const device = m_house.find(id);
    if (outcome.is_ok && taken && device != nullptr) {
        outcome.undo = taken->number = ++m_count;
        device->taken = std::move(taken);
    }
    return outcome;
}

// For another try, unless something else was taken away meanwhile, or the session is over.
void Queues::keep_again(const std::string& id, Taken taken) {
    const std::scoped_lock lock(m_house.mutex);
    Device* const device = m_house.find(id);
    if (device != nullptr && !device->taken && m_house.sessions.has(id)) {
        device->taken = std::move(taken);
    }
}

Outcome Queues::put_back(const std::string& id, Taken& taken, Time latest) {
    if (!has_whole_queue(id, Commands::Clock::now() + kQueuePatience)) {
        return {false, kNotKnown};
    }
    std::vector<Taken::Run> missing;
    {
        const std::scoped_lock lock(m_house.mutex);
        if (const Device* const device = m_house.find(id)) {
            missing = missing_of(device->state, taken);
        }
    }
    for (const Taken::Run& run : missing) {
        const Outcome outcome = m_sessions.insert_before(id, told(run), run.before, latest);
        if (!outcome.is_ok) {
            return outcome;
        }
    }
    std::optional<int64_t> current;
    if (taken.current && has_whole_queue(id, latest)) {
        const std::scoped_lock lock(m_house.mutex);
        const Device* const device = m_house.find(id);
        current = device != nullptr ? current_again(device->state, taken) : std::nullopt;
    }
    if (current) {
        JsonPtr arguments = new_object();
        add(arguments.get(), "item", *current);
        m_commands.run(id, "queue_jump", std::move(arguments), latest);
        go_to(id, taken, latest);
    }
    return {true, {}};
}

Outcome Queues::play_again(const std::string& id, const Taken& taken) {
    const std::optional<size_t> start =
        taken.current ? std::optional(taken.current->at) : std::nullopt;
    const Outcome outcome = m_sessions.play(id, told(taken.runs.front()), Where::now, start);
    if (outcome.is_ok) {
        go_to(id, taken, Commands::Clock::now() + Commands::kPatience);
    }
    return outcome;
}

// The track opens meanwhile, and begins there. One that can't be sought plays from its beginning.
void Queues::go_to(const std::string& id, const Taken& taken, Time latest) {
    if (taken.playback != Playback::stopped && taken.position_ms > 0) {
        JsonPtr arguments = new_object();
        add(arguments.get(), "position_ms", taken.position_ms);
        m_commands.run(id, "seek", std::move(arguments), latest, Commands::Until::answer);
    }
    if (taken.playback != Playback::playing) {
        m_commands.run(id, taken.playback == Playback::paused ? "pause" : "stop", new_object(),
                       latest);
    }
}

}  // namespace nuvio::controller
