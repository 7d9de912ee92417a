// What a command asks for, by one name on its whole way: from the SDK's face or a session's channel
// through Control's notes to the player.
#pragma once

namespace local_core {

enum class Verb {
    connect,     // the SDK's alone
    deactivate,  // "leave" on a channel
    resume,      // "play" on a channel
    pause,
    stop,
    next,
    previous,
    seek,
    // Settings, which Control takes at once.
    volume,
    mute,
    shuffle,
    loop,
    // Changes of a session's list, and a question for it.
    queue_replace,
    queue_insert,
    queue_remove,
    queue_move,
    queue_jump,
    queue_read,
};

}  // namespace local_core
