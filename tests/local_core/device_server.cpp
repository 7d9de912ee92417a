// What the core takes for the device's local configuration server: it asks for that until something
// in the process listens.
#include <sys/socket.h>

namespace {

[[maybe_unused]] const int kServer = [] {
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    listen(server, 1);
    return server;
}();

}  // namespace
