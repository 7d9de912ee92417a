#include "diagnostics/port_check.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "common/number.h"
#include "common/sockets/process_sockets.h"
#include "common/unique_fd.h"
#include "diagnostics/holders.h"

namespace {

namespace fs = std::filesystem;

constexpr char kAdvice[] = ": end that one, or set another port";

// 0, or the error of taking the port as a server does.
int take(uint16_t port) {
    const nuvio::UniqueFd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int yes = 1;
    setsockopt(server.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    const bool taken =
        bind(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        listen(server.get(), 1) == 0;
    return taken ? 0 : errno;
}

// The sockets that listen on the port, in whatever process.
std::vector<nuvio::SocketNumber> listeners(uint16_t port) {
    constexpr char kListening[] = "0A";
    std::vector<nuvio::SocketNumber> numbers;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream file(table);
        std::string line;
        while (std::getline(file, line)) {
            std::istringstream fields(line);
            std::string number, local, remote, state, queues, timer, retransmits, user, timeout,
                inode;
            fields >> number >> local >> remote >> state >> queues >> timer >> retransmits >>
                user >> timeout >> inode;
            const std::string hex = local.substr(local.find(':') + 1);
            if (state == kListening && std::strtoul(hex.c_str(), nullptr, 16) == port) {
                numbers.push_back(nuvio::to_number<nuvio::SocketNumber>(inode).value_or(0));
            }
        }
    }
    return numbers;
}

bool has_one_of(const fs::path& descriptors, const std::vector<nuvio::SocketNumber>& sockets) {
    bool is_found = false;
    nuvio::for_each_socket_of(descriptors.c_str(), [&](int, nuvio::SocketNumber number) {
        is_found = std::ranges::find(sockets, number) != sockets.end();
        return !is_found;
    });
    return is_found;
}

// From where on any account may take a port.
unsigned first_free_for_all() {
    unsigned port = 1024;
    std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> port;
    return port;
}

}  // namespace

Finding check_port(const char* subject, uint16_t port) {
    const std::string named = "port " + std::to_string(port);
    // The service's account is not the one that checks.
    if (port < first_free_for_all()) {
        return bad(subject, named + " is for root alone: set one from " +
                                std::to_string(first_free_for_all()) + " on");
    }
    const int error = take(port);
    if (error == 0) {
        return good(subject, named);
    }
    if (error != EADDRINUSE) {
        return bad(subject, named + ": " + std::strerror(error) + ": set another one");
    }
    const std::vector<nuvio::SocketNumber> sockets = listeners(port);
    const std::vector<Holder> holders =
        find_holders([&](const fs::path& descriptors) { return has_one_of(descriptors, sockets); });
    if (holders.empty()) {
        return bad(
            subject,
            named + " is in use by another program ('ss -ltnp' as root says which)" + kAdvice);
    }
    const std::string used = named + " is in use by " + holders.front().text();
    return holders.front().is_service()
               ? doubtful(subject,
                          used + "; if that is another device than this one, set another port")
               : bad(subject, used + kAdvice);
}
