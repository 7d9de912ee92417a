#include "conformance/record.h"

#include <algorithm>

namespace nuvio::kit {

void Breaches::add(const std::string& rule, const std::string& seen) {
    const std::scoped_lock lock(m_mutex);
    Entry& entry = m_entries[rule];
    if (entry.count++ == 0) {
        entry.first = seen;
    }
}

std::string Breaches::of(const std::string& rule) const {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_entries.find(rule);
    if (found == m_entries.end()) {
        return {};
    }
    const auto& [first, count] = found->second;
    return count == 1 ? first : first + " (" + std::to_string(count) + " times)";
}

const Event* Record::find(const std::string& what, size_t since) const {
    const auto found =
        std::find_if(m_events.begin() + static_cast<std::ptrdiff_t>(since), m_events.end(),
                     [&](const Event& event) { return event.what == what; });
    return found == m_events.end() ? nullptr : &*found;
}

size_t Record::count(const std::string& what, size_t since) const {
    return static_cast<size_t>(
        std::count_if(m_events.begin() + static_cast<std::ptrdiff_t>(since), m_events.end(),
                      [&](const Event& event) { return event.what == what; }));
}

}  // namespace nuvio::kit
