#include "utility/service_record.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <utility>

#include "utility/check.h"

namespace {

constexpr size_t kErrorBytes = 256;  // terminator included

constinit std::atomic<uint64_t> underruns{0};
constinit std::atomic<uint64_t> sessions{0};

constinit std::mutex record_mutex;
// Guarded by record_mutex.
constinit std::optional<service_output> output;
constinit std::array<char, kErrorBytes> last_error{};
constinit time_t last_error_time = 0;

}  // namespace

void service_record_output_opened(service_output opened) {
    const std::lock_guard lock(record_mutex);
    output = std::move(opened);
}

void service_record_output_closed() {
    const std::lock_guard lock(record_mutex);
    output.reset();
}

void service_record_underrun() {
    underruns.fetch_add(1, std::memory_order_relaxed);
}

void service_record_session() {
    sessions.fetch_add(1, std::memory_order_relaxed);
}

void service_record_error(const char* message) {
    NUV_CHECK(message != NULL);
    const time_t now = std::time(nullptr);
    const std::lock_guard lock(record_mutex);
    std::snprintf(last_error.data(), last_error.size(), "%s", message);
    last_error_time = now;
}

service_record service_record_read() {
    const std::lock_guard lock(record_mutex);
    return {output, underruns, sessions, last_error_time, last_error.data()};
}
