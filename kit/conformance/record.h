// What a run has seen: which rules are broken, and what has come in which order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace nuvio::kit {

// A rule that does not hold; what() says what was seen.
class Broken : public std::runtime_error {
    using std::runtime_error::runtime_error;
};
// It did not come to it.
class NotSeen : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What was seen of the rules that hold throughout, over all devices. Any thread.
class Breaches {
  public:
    void add(const std::string& rule, const std::string& seen);
    // "" for none; else the first one, and how many there were.
    std::string of(const std::string& rule) const;

  private:
    struct Entry {
        std::string first;
        int count = 0;
    };
    mutable std::mutex m_mutex;
    std::map<std::string, Entry> m_entries;  // guarded by m_mutex
};

struct Event {
    std::string what;    // e.g. "started", "pause"
    uint64_t id = 0;     // of the stream it is about
    uint64_t value = 0;  // position, state, volume, ...
};

// The loop thread's.
class Record {
  public:
    void add(Event event) { m_events.push_back(std::move(event)); }
    size_t mark() const { return m_events.size(); }
    const std::vector<Event>& events() const { return m_events; }
    // The first event of this name since the mark; null for none.
    const Event* find(const std::string& what, size_t since) const;
    size_t count(const std::string& what, size_t since) const;

  private:
    std::vector<Event> m_events;
};

}  // namespace nuvio::kit
