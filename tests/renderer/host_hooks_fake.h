// The host's side of the hooks.
#pragma once

namespace fake_host {

// What host_allow_source answers; true at the start of each test.
inline bool allows_source = true;

}  // namespace fake_host
