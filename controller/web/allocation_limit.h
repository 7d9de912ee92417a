// A bound for what CivetWeb allocates on behalf of a peer. It takes a WebSocket frame's announced
// length, up to 2 GB, and allocates it before a byte of the frame has come and before any handler
// of ours is asked; there is no setting against that.
//
// So the program's malloc, which needs glibc's behind it, refuses larger requests on threads that
// ask for it, and CivetWeb closes the connection. Without effect in builds with a sanitizer, which
// brings a malloc of its own.
#pragma once

#include <cstddef>

namespace nuvio::controller {

// From now on, on the calling thread; 0: no limit.
void limit_allocations(size_t bytes);

}  // namespace nuvio::controller
