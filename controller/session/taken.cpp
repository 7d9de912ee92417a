#include "controller/session/taken.h"

#include <algorithm>

namespace nuvio::controller {

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

std::optional<int64_t> current_again(const DeviceState& state, const Taken& taken) {
    if (!taken.current) {
        return std::nullopt;
    }
    const Taken::Run& run = taken.runs[taken.current->run];
    const auto behind = std::ranges::find_if(
        state.queue(), [&](const auto& entry) { return entry.second.item == run.before; });
    const int64_t end = behind != state.queue().end() ? behind->first : std::ssize(state.queue());
    const auto found =
        state.queue().find(end - std::ssize(run.items) + static_cast<int64_t>(taken.current->at));
    return found != state.queue().end() ? std::optional(found->second.item) : std::nullopt;
}

}  // namespace nuvio::controller
