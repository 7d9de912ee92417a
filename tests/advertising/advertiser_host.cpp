// A device that only advertises: the real advertiser on a libuv loop, told what to do by lines on
// standard input. Ends with 0 when the input ends and everything was released.
//
//   port NUMBER | ipv6 0|1 | uuid [TEXT]     what is published from now on; no TEXT: the SDK fails
//   start NAME | stop                        what the SDK asks for
#include <unistd.h>
#include <uv.h>

#include <array>
#include <cstdlib>
#include <sstream>
#include <string>

#include "advertising/avahi_advertiser.h"
#include "device_info/device_info.h"
#include "fakes/fake_sdk.h"
#include "utility/log_delegate.h"

// Stands in for the real server, which needs a renderer.
struct http_server {
    uint16_t port = 8080;
    bool ipv6 = true;
};

bool http_server_supports_ipv6(const http_server* self) {
    return self->ipv6;
}
uint16_t http_server_get_port(const http_server* self) {
    return self->port;
}
const char* http_server_get_base_service_path(const http_server*) {
    return "/";
}
void http_server_add_own_names(http_server*, std::string_view names) {
    app_log(LOG_LEVEL_DEBUG, "Asked for by %.*s", static_cast<int>(names.size()), names.data());
}

// libdbus takes two of its locks in either order; on the loop's one thread that cannot deadlock.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return "deadlock:libdbus-1.so\n";
}

namespace {

struct Host {
    http_server server;
    nuv_advertising_delegate advertising{};
    std::string uuid;
    std::string input;
};

void execute(Host& self, const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    words >> verb >> std::ws;
    if (verb == "port") {
        words >> self.server.port;
    } else if (verb == "ipv6") {
        words >> self.server.ipv6;
    } else if (verb == "uuid") {
        std::getline(words, self.uuid);
        fake_sdk::Values values;
        values.uuid = self.uuid.c_str();
        fake_sdk::set_values(values);
        fake_sdk::set_result("get_device_uuid",
                             self.uuid.empty() ? NUV_ERROR_INTERNAL : NUV_ERROR_OK);
    } else if (verb == "start") {
        std::string name;
        std::getline(words, name);
        self.advertising.start(fake_sdk::core(), name.c_str(), "_nuvio-connect._tcp",
                               self.advertising.context);
    } else if (verb == "stop") {
        self.advertising.stop(fake_sdk::core(), self.advertising.context);
    }
}

void on_input(uv_poll_t* handle, int, int) {
    auto* self = static_cast<Host*>(handle->data);
    std::array<char, 4096> bytes;
    const ssize_t count = read(STDIN_FILENO, bytes.data(), bytes.size());
    if (count <= 0) {
        uv_close(reinterpret_cast<uv_handle_t*>(handle), nullptr);
        uv_stop(handle->loop);
        return;
    }
    self->input.append(bytes.data(), static_cast<size_t>(count));
    for (size_t end = 0; (end = self->input.find('\n')) != std::string::npos;) {
        execute(*self, self->input.substr(0, end));
        self->input.erase(0, end + 1);
    }
}

}  // namespace

int main() {
    uv_loop_t* loop = uv_default_loop();
    Host self;
    device_info* info =
        device_info_new("Host", NUV_DEVICE_TYPE_SPEAKER, "Maker", "Model", "00:00", "app", nullptr);
    avahi_advertiser* advertiser = avahi_advertiser_new(loop, info, &self.server);
    avahi_advertiser_set_core(advertiser, fake_sdk::core());
    self.advertising = avahi_advertiser_get_advertising_delegate(advertiser);

    uv_poll_t input;
    uv_poll_init(loop, &input, STDIN_FILENO);
    input.data = &self;
    uv_poll_start(&input, UV_READABLE, on_input);
    uv_run(loop, UV_RUN_DEFAULT);

    avahi_advertiser_free(advertiser);
    device_info_free(info);
    uv_run(loop, UV_RUN_DEFAULT);
    return uv_loop_close(loop) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
