#include "local/network/remote_settings.h"

#include <algorithm>

#include "common/environment.h"
#include "common/number.h"

namespace local_core {

namespace {

constexpr std::chrono::milliseconds kUnansweredPatience = std::chrono::seconds(2);

// The variable's number, kept within the bounds; `otherwise` where it is none.
unsigned number_from(const char* variable, unsigned lowest, unsigned highest, unsigned otherwise) {
    const auto number = nuvio::to_number<unsigned>(nuvio::environment_text(variable));
    return number ? std::clamp(*number, lowest, highest) : otherwise;
}

}  // namespace

const HttpRequest& remote_request_defaults() {
    // Never destroyed: a thread that hangs may outlive the process's end of the rest.
    static const auto* const defaults = new HttpRequest([] {
        HttpRequest request;
        request.read_ahead_bytes =
            size_t{number_from("NUVIO_READ_AHEAD_KIB", 128, 16384, 4096)} * 1024;
        request.give_up_after =
            std::chrono::seconds(number_from("NUVIO_NETWORK_PATIENCE_S", 1, 3600, 60));
        request.stalled_after =
            std::min(request.stalled_after,
                     std::chrono::ceil<std::chrono::seconds>(request.give_up_after / 3));
        request.authorities = nuvio::environment_text("NUVIO_NETWORK_AUTHORITIES");
        return request;
    }());
    return *defaults;
}

HttpRequest asked_just_now(HttpRequest request) {
    request.give_up_unanswered_after = std::min(request.give_up_after, kUnansweredPatience);
    return request;
}

}  // namespace local_core
