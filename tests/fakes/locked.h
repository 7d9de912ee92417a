// A fake's state, locked as long as this object lives.
#pragma once

#include <mutex>

namespace fakes {

template <typename State>
struct Locked {
    std::unique_lock<std::mutex> lock;
    State* state;
    State* operator->() const { return state; }
};

}  // namespace fakes
