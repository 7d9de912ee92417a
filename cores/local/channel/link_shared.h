// What the two sides of a link share; for link.cpp and link_worker.cpp alone.
#pragma once

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "local/channel/link.h"

namespace local_core {

// What the loop and the link's thread share. The mutex is held for moves only, and while on_change
// is called, which must not call back. The log is called without it.
struct Link::Shared {
    static constexpr size_t kMaxWaitingCommands = 16;
    static constexpr size_t kMaxWaitingAnswers = 256;
    static constexpr size_t kMaxWaitingBytes = size_t{256} * 1024;

    explicit Shared(Log told) : log(std::move(told)) {}

    const Log log;
    mutable std::mutex mutex;
    std::function<void()> on_change;
    std::function<void()> wake_thread;  // null: the thread has not begun, or is ending
    bool closing = false;
    std::string goodbye;  // to be said

    uint64_t connection = 0;
    std::array<std::string, kSlots> slots;  // empty: nothing to say
    std::deque<std::string> answers;
    size_t answer_bytes = 0;
    std::deque<Incoming> inbox;
    bool reading = true;

    bool is_closing() const {
        const std::lock_guard lock(mutex);
        return closing;
    }

    bool has_room() const {
        return inbox.size() < kMaxWaitingCommands && answers.size() < kMaxWaitingAnswers &&
               answer_bytes < kMaxWaitingBytes;
    }

    // Has the link's thread look at what has changed.
    void wake() const {
        if (wake_thread) {
            wake_thread();
        }
    }

    void tell_change() const {
        if (on_change) {
            on_change();
        }
    }

    // A connection's beginning or end.
    void begin(uint64_t number) {
        const std::lock_guard lock(mutex);
        connection = number;
        slots.fill({});
        answers.clear();
        answer_bytes = 0;
        inbox.clear();
        tell_change();
    }

    // The next thing to say; empty when there is none.
    std::string next_text() {
        const std::lock_guard lock(mutex);
        std::string& hello = slots[static_cast<size_t>(Slot::hello)];
        if (!hello.empty()) {
            return std::exchange(hello, {});
        }
        if (!answers.empty()) {
            std::string text = std::move(answers.front());
            answers.pop_front();
            answer_bytes -= text.size();
            return text;
        }
        for (std::string& slot : slots) {
            if (!slot.empty()) {
                return std::exchange(slot, {});
            }
        }
        return std::exchange(goodbye, {});
    }

    bool has_text() const {
        const std::lock_guard lock(mutex);
        return !answers.empty() || !goodbye.empty() ||
               std::any_of(slots.begin(), slots.end(),
                           [](const auto& slot) { return !slot.empty(); });
    }
};

// What the module of the link's thread exports, under this name: all that the thread does.
using RunLink = void(std::shared_ptr<Link::Shared> shared, LinkTarget target);
inline constexpr char kRunLinkName[] = "nuvio_run_link";

}  // namespace local_core
