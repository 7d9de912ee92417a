#include "controller/session/taken.h"

#include <algorithm>
#include <utility>

namespace nuvio::controller {

namespace {

// The place behind the one in front of which a run stood.
int64_t end_of(const DeviceState& state, const Taken::Run& run) {
    const auto behind = std::ranges::find_if(
        state.queue(), [&](const auto& entry) { return entry.second.item == run.before; });
    return behind != state.queue().end() ? behind->first : std::ssize(state.queue());
}

// How many of a run's items stand in its place again.
std::ptrdiff_t count_put_back(const DeviceState& state, const Taken::Run& run, int64_t newest) {
    const auto& queue = state.queue();
    const auto end = queue.lower_bound(end_of(state, run));
    auto begin = end;
    while (begin != queue.begin() && std::prev(begin)->second.item > newest) {
        --begin;
    }
    const auto is_same = [](const QueueItem& item, const auto& entry) {
        return item.url == entry.second.url;
    };
    return std::mismatch(run.items.begin(), run.items.end(), begin, end, is_same).first -
           run.items.begin();
}

}  // namespace

std::optional<Taken> taken_of(const DeviceState& state,
                              const std::function<bool(const QueueItem&)>& is_meant,
                              DeviceState::Clock::time_point now) {
    if (!state.has_queue()) {
        return std::nullopt;
    }
    Taken taken;
    bool is_run = false;
    for (const auto& [place, item] : state.queue()) {
        if (!is_meant(item)) {
            if (is_run) {
                taken.runs.back().before = item.item;
            }
            is_run = false;
            continue;
        }
        if (!is_run) {
            taken.runs.emplace_back();
        }
        is_run = true;
        if (item.item == state.item()) {
            taken.current = {taken.runs.size() - 1, taken.runs.back().items.size()};
        }
        taken.runs.back().items.push_back(item);
    }
    taken.position_ms = state.position_ms(now);
    taken.playback = state.playback();
    return taken.runs.empty() ? std::nullopt : std::optional(std::move(taken));
}

std::vector<Taken::Run> missing_of(const DeviceState& state, Taken& taken) {
    std::vector<Taken::Run> missing;
    for (const Taken::Run& run : taken.runs) {
        missing.push_back({{}, run.before});
        for (const QueueItem& item : run.items) {
            if (state.find(item.item) == nullptr) {
                missing.back().items.push_back(item);
            } else {
                missing.back().before = item.item;
                missing.push_back({{}, run.before});
            }
        }
    }
    if (!taken.newest) {
        taken.newest = -1;
        for (const auto& [place, item] : state.queue()) {
            taken.newest = std::max(*taken.newest, item.item);
        }
    }
    for (Taken::Run& run : missing) {
        run.items.erase(run.items.begin(),
                        run.items.begin() + count_put_back(state, run, *taken.newest));
    }
    std::erase_if(missing, [](const Taken::Run& run) { return run.items.empty(); });
    return missing;
}

std::optional<int64_t> current_again(const DeviceState& state, const Taken& taken) {
    if (!taken.current) {
        return std::nullopt;
    }
    const Taken::Run& run = taken.runs[taken.current->run];
    const auto found = state.queue().find(end_of(state, run) - std::ssize(run.items) +
                                          static_cast<int64_t>(taken.current->at));
    return found != state.queue().end() ? std::optional(found->second.item) : std::nullopt;
}

}  // namespace nuvio::controller
