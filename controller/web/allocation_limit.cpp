#include "controller/web/allocation_limit.h"

#include <cerrno>

#ifdef NUVIO_SANITIZED

void nuvio::controller::limit_allocations(size_t) {}

#else

namespace {

thread_local size_t t_largest = 0;

}  // namespace

void nuvio::controller::limit_allocations(size_t bytes) {
    t_largest = bytes;
}

extern "C" {

// glibc's own name for the malloc that this one stands before.
void* __libc_malloc(size_t size);

__attribute__((visibility("default"))) void* malloc(size_t size) {
    if (t_largest != 0 && size > t_largest) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}
}

#endif
