#include "conformance/core_services.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <utility>

namespace nuvio::kit {

namespace {

// A core may look whether the device's server really listens before it announces it.
UniqueFd listening_socket() {
    UniqueFd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(server.get(), reinterpret_cast<const sockaddr*>(&here), sizeof here) != 0 ||
        listen(server.get(), 1) != 0) {
        server.reset();
    }
    return server;
}

}  // namespace

void Services::install(nuv_connect_config& config) {
    config.advertising_delegate = {this, Delegate<&Services::on_advertise>::call,
                                   Delegate<&Services::on_stop_advertising>::call};
    config.local_config_server_delegate = {this, Delegate<&Services::on_server_start>::call,
                                           Delegate<&Services::on_server_stop>::call};
}

void Services::on_server_start() {
    m_record.add({"server"});
    m_server = listening_socket();
    if (std::exchange(m_serving, true)) {
        m_breaches.add("services", "the server is started twice");
    }
}

void Services::on_server_stop() {
    m_serving = false;
    m_server.reset();
}

void Services::on_advertise(const char* name, const char* service) {
    m_record.add({"advertise"});
    if (std::exchange(m_advertising, true)) {
        m_breaches.add("services", "the advertising is started twice without a stop");
    }
    if (name == nullptr || *name == '\0' || service == nullptr || *service == '\0') {
        m_breaches.add("services", "advertised without a name or a type");
    }
}

void Services::on_stop_advertising() {
    m_record.add({"stop advertising"});
    m_advertising = false;
}

}  // namespace nuvio::kit
