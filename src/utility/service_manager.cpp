#include "utility/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string_view>

#include "common/environment.h"
#include "common/number.h"
#include "common/unique_fd.h"

namespace {

uint64_t number_in(const char* name) {
    return nuvio::to_number<uint64_t>(nuvio::environment_text(name)).value_or(0);
}

}  // namespace

uint64_t service_manager_watchdog_us() {
    const uint64_t process = number_in("WATCHDOG_PID");
    const bool is_other = process != 0 && process != static_cast<uint64_t>(getpid());
    return is_other ? 0 : number_in("WATCHDOG_USEC");
}

void service_manager_notify(const char* lines) {
    const std::string path = nuvio::environment_text("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return;
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (path.front() == '@') {
        address.sun_path[0] = '\0';  // not in the file system
    }
    const nuvio::UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sendto(manager.get(), lines, std::strlen(lines), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size()));
}
