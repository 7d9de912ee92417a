// How a device is, in one word: worked out here, from what is known of it, and nowhere else.
//
// Threads  pure functions, any thread.
#pragma once

#include <cstdint>

namespace nuvio::controller {

enum class Reach { asking, reached, failed };
enum class Owner { nobody, us, other };
enum class Playback { stopped, playing, paused };

enum class Condition : uint8_t {
    free,     // nobody's session
    other,    // the session of another controller
    asking,   // nothing is known of it yet
    asked,    // handed over or pressed; nothing heard of it nor any error yet
    opening,  // it plays, but no track is heard yet
    playing,
    paused,
    stopped,
    silent,  // it plays, as it says, but gets no further; or its channel is broken, and it plays on
    gone,    // it left the network, does not answer, or its channel fell silent
};

struct Known {
    bool is_linked = false;        // its channel stands
    bool is_present = false;       // it is announced
    bool has_gone_silent = false;  // its channel did, and nothing was heard of it since
    Reach reach = Reach::asking;
    Owner owner = Owner::nobody;
    bool is_asked = false;  // and nothing came of it yet
    Playback playback = Playback::stopped;
    bool is_track_heard = false;
    bool advances = true;  // its position does
};

Condition condition_of(const Known& known);
const char* name_of(Condition condition);
// Whose it is and whether it can be reached, in one word: "absent", "failed", "asking", "other",
// "free", "ours", "apart".
const char* status_of(const Known& known);

}  // namespace nuvio::controller
