// The deleter of a handle that a function of one argument releases:
//   std::unique_ptr<uv_timer_t, nuvio::ReleasedBy<uv_timer_free>>
#pragma once

namespace nuvio {

template <auto release>
struct ReleasedBy {
    // The function's result, if it has one, is of no use to anyone then.
    template <typename Handle>
    void operator()(Handle* handle) const {
        static_cast<void>(release(handle));
    }
};

}  // namespace nuvio
