#include "controller/session/condition.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace nuvio::controller {

namespace {

template <typename Value>
struct Row {
    Value value;
    bool (*holds)(const Known& known);
};

bool is_away(const Known& known) {
    return !known.is_linked &&
           (known.has_gone_silent || !known.is_present || known.reach == Reach::failed);
}

bool says_it_plays(const Known& known) {
    return known.is_linked && known.playback == Playback::playing;
}

// The first row that holds counts.
constexpr Row<Condition> kConditions[] = {
    {Condition::gone, is_away},
    {Condition::opening,
     [](const Known& known) {
         return says_it_plays(known) && !known.is_track_heard && (known.advances || known.is_asked);
     }},
    {Condition::asked, [](const Known& known) { return known.is_asked; }},
    {Condition::asking,
     [](const Known& known) { return !known.is_linked && known.reach == Reach::asking; }},
    {Condition::other, [](const Known& known) { return known.owner == Owner::other; }},
    {Condition::free, [](const Known& known) { return known.owner == Owner::nobody; }},
    {Condition::silent,
     [](const Known& known) {
         return !known.is_linked || (says_it_plays(known) && !known.advances);
     }},
    {Condition::playing, says_it_plays},
    {Condition::paused, [](const Known& known) { return known.playback == Playback::paused; }},
    {Condition::stopped, [](const Known&) { return true; }},
};

// What is connected plays here, whatever else is heard of it.
constexpr Row<const char*> kStatuses[] = {
    {"absent", [](const Known& known) { return !known.is_linked && !known.is_present; }},
    {"failed", [](const Known& known) { return !known.is_linked && known.reach == Reach::failed; }},
    {"asking", [](const Known& known) { return !known.is_linked && known.reach == Reach::asking; }},
    {"other", [](const Known& known) { return known.owner == Owner::other; }},
    {"free", [](const Known& known) { return known.owner == Owner::nobody; }},
    {"ours", [](const Known& known) { return known.is_linked; }},
    {"apart", [](const Known&) { return true; }},
};

template <typename Table>
auto first_that_holds(const Table& table, const Known& known) {
    return std::ranges::find_if(table, [&](const auto& row) { return row.holds(known); })->value;
}

}  // namespace

Condition condition_of(const Known& known) {
    return first_that_holds(kConditions, known);
}

const char* name_of(Condition condition) {
    constexpr std::array kNames{"free",    "other",  "asking",  "asked",  "opening",
                                "playing", "paused", "stopped", "silent", "gone"};
    return kNames[static_cast<size_t>(condition)];
}

const char* status_of(const Known& known) {
    return first_that_holds(kStatuses, known);
}

}  // namespace nuvio::controller
