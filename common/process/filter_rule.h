// One rule of a filter of system calls, before it is loaded.
#pragma once

#include <seccomp.h>

#include <cerrno>
#include <cstdint>
#include <vector>

namespace nuvio {

// What becomes of a call, where all of `where` is so. True, too, where this machine has no such
// call.
inline bool add_rule(scmp_filter_ctx filter, uint32_t action, int call,
                     const std::vector<scmp_arg_cmp>& where = {}) {
    const int failure = seccomp_rule_add_array(filter, action, call,
                                               static_cast<unsigned>(where.size()), where.data());
    return failure == 0 || failure == -EDOM;
}

}  // namespace nuvio
