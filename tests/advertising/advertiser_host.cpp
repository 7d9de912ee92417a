// A device that only advertises: the real advertiser on a libuv loop, told what to do by lines on
// standard input. Ends with 0 when the input ends and everything was released.
//
//   port NUMBER | ipv6 on|off | uuid TEXT     what is published from now on; no TEXT: the SDK fails
//   start NAME | stop                         what the SDK asks for
#include <uv.h>

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>

#include "advertising/avahi_advertiser.h"
#include "device_info/device_info.h"
#include "fakes/fake_sdk.h"
#include "utility/check.h"

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

namespace {

struct host {
    http_server server;
    std::string uuid = fake_sdk::Values().uuid;
    std::string input;
    std::array<char, 4096> read_buffer{};
    nuv_advertising_delegate delegate{};
};

void set_uuid(host& self, const std::string& uuid) {
    self.uuid = uuid;
    fake_sdk::set_result("get_device_uuid", uuid.empty() ? NUV_ERROR_INTERNAL : NUV_ERROR_OK);
    fake_sdk::Values values = fake_sdk::values();
    values.uuid = self.uuid.c_str();
    fake_sdk::set_values(values);
}

struct command {
    std::string_view name;
    void (*run)(host& self, const std::string& argument);
};

constexpr std::array kCommands = {
    command{"port",
            [](host& self, const std::string& argument) {
                self.server.port = static_cast<uint16_t>(std::atoi(argument.c_str()));
            }},
    command{"ipv6",
            [](host& self, const std::string& argument) { self.server.ipv6 = argument == "on"; }},
    command{"uuid", set_uuid},
    command{"start",
            [](host& self, const std::string& argument) {
                self.delegate.start(fake_sdk::core(), argument.c_str(), "_nuvio-connect._tcp",
                                    self.delegate.context);
            }},
    command{"stop",
            [](host& self, const std::string&) {
                self.delegate.stop(fake_sdk::core(), self.delegate.context);
            }},
};

void execute(host& self, const std::string& line) {
    const std::string name = line.substr(0, line.find(' '));
    const std::string argument = name.size() < line.size() ? line.substr(name.size() + 1) : "";
    for (const command& row : kCommands) {
        if (row.name == name) {
            row.run(self, argument);
            return;
        }
    }
    NUV_CHECK(!"unknown command");
}

void on_allocate(uv_handle_t* handle, size_t, uv_buf_t* buffer) {
    auto& read_buffer = static_cast<host*>(handle->data)->read_buffer;
    *buffer = uv_buf_init(read_buffer.data(), static_cast<unsigned>(read_buffer.size()));
}

void on_input(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
    auto* self = static_cast<host*>(stream->data);
    if (count < 0) {
        uv_close(reinterpret_cast<uv_handle_t*>(stream), nullptr);
        uv_stop(stream->loop);
        return;
    }
    self->input.append(buffer->base, static_cast<size_t>(count));
    for (size_t end = 0; (end = self->input.find('\n')) != std::string::npos;) {
        const std::string line = self->input.substr(0, end);
        self->input.erase(0, end + 1);
        execute(*self, line);
    }
}

}  // namespace

int main() {
    uv_loop_t* loop = uv_default_loop();
    host self;
    device_info* info = device_info_new("Host", NUV_DEVICE_TYPE_SPEAKER, "Maker", "Model",
                                        "00:00:00:00:00:00", "app", nullptr);
    avahi_advertiser* advertiser = avahi_advertiser_new(loop, info, &self.server);
    avahi_advertiser_set_core(advertiser, fake_sdk::core());
    self.delegate = avahi_advertiser_get_advertising_delegate(advertiser);

    uv_pipe_t input;
    uv_pipe_init(loop, &input, 0);
    input.data = &self;
    uv_pipe_open(&input, 0);
    uv_read_start(reinterpret_cast<uv_stream_t*>(&input), on_allocate, on_input);
    uv_run(loop, UV_RUN_DEFAULT);

    avahi_advertiser_free(advertiser);
    device_info_free(info);
    uv_run(loop, UV_RUN_DEFAULT);
    return uv_loop_close(loop) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
