#include "startup/network_state.h"

namespace android {

NetworkState& NetworkState::get() {
    // Left to the end of the process: a late notification must still find it.
    static auto* const state = new NetworkState;
    return *state;
}

}  // namespace android
