#include "local_config/http_server.h"

#include <civetweb.h>
#include <cjson/cJSON.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "common/released_by.h"
#include "common/text.h"
#include "local_config/civetweb/loop_hand_off.h"
#include "local_config/civetweb/request_body.h"
#include "local_config/civetweb/web_server.h"
#include "local_config/connect_request.h"
#include "local_config/http_answers.h"
#include "utility/check.h"
#include "utility/log_delegate.h"
#include "utility/service_record.h"
#include "utility/uv_utilities.h"

namespace {

constexpr const char* kBaseServicePath = "/";
constexpr const char* kConnectEndpoint = "connect-to-nconnect";
using endpoint_path = std::array<char, 128>;
constexpr size_t kResponseSize = 2048;  // bytes, terminator included
constexpr long long kMaximumBodySize = 65'536;

using async_ptr = std::unique_ptr<uv_async_t, nuvio::ReleasedBy<uv_async_free>>;

struct get_endpoint {
    const char* name;
    async_ptr async{};
    char response[kResponseSize] = {};
    size_t response_length = 0;
};

struct connect_endpoint {
    async_ptr async;
    connect_request request;
};

}  // namespace

struct http_server {
    http_server(uv_loop_t* event_loop, uint16_t listen_on, struct device_info* info,
                struct audio_renderer* renderer);

    uint16_t port;
    struct device_info* device_info;
    struct audio_renderer* audio_renderer;
    const char* base_service_path = kBaseServicePath;
    nuv_connect* core = nullptr;
    std::mutex own_names_mutex;
    std::vector<std::string> own_names;  // the worker's and the loop's, under the mutex

    endpoint_path get_display_info_endpoint{};
    endpoint_path get_connect_info_endpoint{};
    endpoint_path connect_to_nconnect_endpoint{};

    // In the order of release, last to first.
    connect_endpoint connect_to_nconnect{};
    get_endpoint get_connect_info{.name = "get-connect-info"};
    get_endpoint get_display_info{.name = "get-display-info"};
    loop_hand_off shared_data{};
    web_server server;
};

namespace {

http_server* server_of(uv_async_t* async) {
    auto* self =
        static_cast<http_server*>(uv_handle_get_data(reinterpret_cast<uv_handle_t*>(async)));
    NUV_CHECK(self != NULL);
    return self;
}

std::vector<std::string> own_names_of(http_server* self) {
    const std::lock_guard<std::mutex> lock(self->own_names_mutex);
    return self->own_names;
}

// ---- The two GET endpoints ----------------------------------------------------------------------

int handle_get(mg_connection* connection, http_server* self, get_endpoint& endpoint) {
    const loop_hand_off::request running(self->shared_data);
    const request_body body(connection, self->server.listening_port());
    if (!accepts_method(connection, endpoint.name, "GET")) {
        return 405;
    }
    if (!is_meant_for_controllers(connection, endpoint.name, own_names_of(self))) {
        return 403;
    }
    if (!self->shared_data.hand_off(endpoint.async.get())) {
        return send_internal_error(connection);
    }
    return send_json(connection, endpoint.response, endpoint.response_length);
}

int http_server_on_civetweb_handle_get_display_info(mg_connection* connection, void* context) {
    auto* self = static_cast<http_server*>(context);
    return handle_get(connection, self, self->get_display_info);
}

int http_server_on_civetweb_handle_get_connect_info(mg_connection* connection, void* context) {
    auto* self = static_cast<http_server*>(context);
    return handle_get(connection, self, self->get_connect_info);
}

struct text_member {
    const char* key;
    const char* value;
};

// Loop thread: prints the members, compact, into the endpoint's response.
bool respond(get_endpoint& endpoint, std::span<const text_member> members) {
    const json_ptr document(cJSON_CreateObject());
    const bool is_complete = std::ranges::all_of(members, [&](const text_member& member) {
        return cJSON_AddStringToObject(document.get(), member.key, member.value) != nullptr;
    });
    if (!is_complete || cJSON_PrintPreallocated(document.get(), endpoint.response, kResponseSize,
                                                static_cast<cJSON_bool>(false)) == 0) {
        app_log(LOG_LEVEL_ERROR, "%s: Response does not fit in %zu bytes", endpoint.name,
                kResponseSize);
        return false;
    }
    endpoint.response_length = std::strlen(endpoint.response);
    return true;
}

bool compose_display_info(http_server* self) {
    const nuv_audio_quality quality =
        audio_renderer_get_maximum_supported_audio_quality(self->audio_renderer);
    const char* device_name = device_info_get_device_name(self->device_info);
    const nuv_device_type device_type = device_info_get_device_type(self->device_info);
    const char* manufacturer = device_info_get_manufacturer(self->device_info);
    const char* model = device_info_get_model(self->device_info);
    const char* serial_number = device_info_get_serial_number(self->device_info);
    NUV_CHECK(device_name != NULL);
    NUV_CHECK(manufacturer != NULL);
    NUV_CHECK(model != NULL);
    NUV_CHECK(serial_number != NULL);

    const std::array members{
        text_member{"friendly_name", device_name},
        text_member{"serial_number", serial_number},
        text_member{"brand_display_name", manufacturer},
        text_member{"model_display_name", model},
        text_member{"max_audio_quality", nuv_audio_quality_to_string(quality)},
        text_member{"type", nuv_device_type_to_string(device_type)},
    };
    return respond(self->get_display_info, members);
}

bool compose_connect_info(http_server* self) {
    NUV_CHECK(self->core != NULL);
    const char* app_id = device_info_get_app_id(self->device_info);
    const char* session_id = "";
    if (nuv_connect_get_session_id(self->core, &session_id) != NUV_ERROR_OK) {
        app_log(LOG_LEVEL_ERROR, "get-connect-info: Unable to retrieve current session ID");
        return false;
    }
    NUV_CHECK(app_id != NULL);
    NUV_CHECK(session_id != NULL);

    const std::array members{
        text_member{"app_id", app_id},
        text_member{"current_session_id", session_id},
    };
    return respond(self->get_connect_info, members);
}

void http_server_on_handle_get_display_info_synchronized(uv_async_t* async) {
    http_server* self = server_of(async);
    self->shared_data.answer(async, [self] { return compose_display_info(self); });
}

void http_server_on_handle_get_connect_info_synchronized(uv_async_t* async) {
    http_server* self = server_of(async);
    self->shared_data.answer(async, [self] { return compose_connect_info(self); });
}

// ---- POST connect-to-nconnect -------------------------------------------------------------------

void log_token(const char* title, const connect_token& token) {
    app_log(LOG_LEVEL_DEBUG, "%s:", title);
    app_log(LOG_LEVEL_DEBUG, "    Endpoint: %s", token.endpoint);
    app_log(LOG_LEVEL_DEBUG, "    JWT: %s", token.jwt);
    app_log(LOG_LEVEL_DEBUG, "    Exp: %" PRIu64, token.exp);
}

void log_request(const connect_request& request) {
    app_log(LOG_LEVEL_DEBUG, "Session ID: %s", request.session_id);
    log_token("JWT API", request.jwt_api);
    log_token("JWT NConnect", request.jwt_nconnect);
    app_log(LOG_LEVEL_DEBUG, "Become Active: %s", request.become_active ? "true" : "false");
}

int http_server_on_civetweb_handle_connect_to_nconnect(mg_connection* connection, void* context) {
    auto* self = static_cast<http_server*>(context);
    const loop_hand_off::request running(self->shared_data);
    request_body body(connection, self->server.listening_port());
    if (!accepts_method(connection, kConnectEndpoint, "POST")) {
        return 405;
    }
    if (!is_meant_for_controllers(connection, kConnectEndpoint, own_names_of(self))) {
        return 403;
    }
    if (body.length() < 0) {
        return reject(connection, "connect-to-nconnect: Missing content length", 411,
                      "Length Required");
    }
    if (body.length() > kMaximumBodySize) {
        return reject(connection, "connect-to-nconnect: Request body is too large", 413,
                      "Payload Too Large");
    }
    const auto bytes = body.read();
    if (!bytes) {
        app_log(LOG_LEVEL_ERROR, "connect-to-nconnect: Failed to read data");
        return 500;
    }
    // Owns the texts of the request until the loop has answered.
    const parsed_connect_request parsed = parse_connect_request(bytes->data());
    if (parsed.error != nullptr) {
        return reject(connection, parsed.error, 400, "Bad Request");
    }
    log_request(parsed.request);

    connect_endpoint& endpoint = self->connect_to_nconnect;
    endpoint.request = parsed.request;
    if (!self->shared_data.hand_off(endpoint.async.get())) {
        return send_internal_error(connection);
    }
    return send_json(connection, nullptr, 0);
}

bool connect_session(http_server* self) {
    NUV_CHECK(self->core != NULL);
    const connect_request& request = self->connect_to_nconnect.request;
    const bool taken =
        nuv_connect_connect(self->core, request.session_id, request.jwt_api.endpoint,
                            request.jwt_api.jwt, request.jwt_api.exp, request.jwt_nconnect.endpoint,
                            request.jwt_nconnect.jwt, request.jwt_nconnect.exp,
                            request.become_active) == NUV_ERROR_OK;
    if (taken) {
        service_record_session();
    }
    return taken;
}

void http_server_on_handle_connect_to_nconnect_synchronized(uv_async_t* async) {
    http_server* self = server_of(async);
    self->shared_data.answer(async, [self] { return connect_session(self); });
}

// ---- Starting and stopping, on the loop thread --------------------------------------------------

void format_endpoint(const http_server* self, const char* name, endpoint_path& path) {
    const int length =
        std::snprintf(path.data(), path.size(), "%s%s", self->base_service_path, name);
    NUV_CHECK(length > 0 && static_cast<size_t>(length) < path.size());
}

// Once the server runs.
void register_endpoints(mg_context* server, void* data) {
    auto* self = static_cast<http_server*>(data);
    format_endpoint(self, self->get_display_info.name, self->get_display_info_endpoint);
    format_endpoint(self, self->get_connect_info.name, self->get_connect_info_endpoint);
    format_endpoint(self, kConnectEndpoint, self->connect_to_nconnect_endpoint);
    mg_set_request_handler(server, self->get_display_info_endpoint.data(),
                           http_server_on_civetweb_handle_get_display_info, self);
    mg_set_request_handler(server, self->get_connect_info_endpoint.data(),
                           http_server_on_civetweb_handle_get_connect_info, self);
    mg_set_request_handler(server, self->connect_to_nconnect_endpoint.data(),
                           http_server_on_civetweb_handle_connect_to_nconnect, self);
}

void http_server_do_stop(http_server* self) {
    if (!self->server.is_started()) {
        app_log(LOG_LEVEL_TRACE, "Local configuration server is already stopped");
        return;
    }
    app_log(LOG_LEVEL_INFO, "Stopping Local configuration server");
    self->server.stop();
}

}  // namespace

http_server::http_server(uv_loop_t* event_loop, uint16_t listen_on, struct device_info* info,
                         struct audio_renderer* renderer)
    : port(listen_on),
      device_info(info),
      audio_renderer(renderer),
      server(event_loop, listen_on, shared_data, register_endpoints, this) {}

http_server* http_server_new(uv_loop_t* event_loop, uint16_t port, device_info* info,
                             audio_renderer* renderer) {
    NUV_CHECK(event_loop != NULL);
    NUV_CHECK(info != NULL);
    NUV_CHECK(renderer != NULL);
    auto* self = new http_server(event_loop, port, info, renderer);
    self->get_display_info.async.reset(
        uv_async_new(event_loop, http_server_on_handle_get_display_info_synchronized, self));
    self->get_connect_info.async.reset(
        uv_async_new(event_loop, http_server_on_handle_get_connect_info_synchronized, self));
    self->connect_to_nconnect.async.reset(
        uv_async_new(event_loop, http_server_on_handle_connect_to_nconnect_synchronized, self));
    return self;
}

void http_server_free(http_server* self) {
    NUV_CHECK(self != NULL);
    if (self->server.is_started()) {
        http_server_do_stop(self);
    }
    delete self;
}

void http_server_set_core(http_server* self, nuv_connect* core) {
    NUV_CHECK(self != NULL);
    self->core = core;
}

void http_server_add_own_names(http_server* self, std::string_view names) {
    NUV_CHECK(self != NULL);
    const std::lock_guard<std::mutex> lock(self->own_names_mutex);
    while (!names.empty()) {
        const size_t end = std::min(names.find(','), names.size());
        const std::string_view name = nuvio::trim(names.substr(0, end));
        if (std::ranges::find(self->own_names, name) == self->own_names.end()) {
            self->own_names.emplace_back(name);
        }
        names.remove_prefix(std::min(end + 1, names.size()));
    }
}

nuv_local_config_server_delegate http_server_get_local_config_server_delegate(http_server* self) {
    NUV_CHECK(self != NULL);
    return {.context = self,
            .start = http_server_on_start_local_config_server,
            .stop = http_server_on_stop_local_config_server};
}

void http_server_on_start_local_config_server(nuv_connect* core, void* context) {
    auto* self = static_cast<http_server*>(context);
    NUV_CHECK(self != NULL);
    NUV_CHECK(core == self->core);
    if (self->server.is_started()) {
        app_log(LOG_LEVEL_TRACE, "Local configuration server is already running");
        return;
    }
    app_log(LOG_LEVEL_INFO, "Starting Local configuration server");
    self->server.start();
}

void http_server_on_stop_local_config_server(nuv_connect* core, void* context) {
    auto* self = static_cast<http_server*>(context);
    NUV_CHECK(self != NULL);
    NUV_CHECK(core == self->core);
    http_server_do_stop(self);
}

bool http_server_supports_ipv6(const http_server* self) {
    NUV_CHECK(self != NULL);
    return mg_check_feature(MG_FEATURES_IPV6) == MG_FEATURES_IPV6;
}

uint16_t http_server_get_port(const http_server* self) {
    NUV_CHECK(self != NULL);
    return self->port;
}

const char* http_server_get_base_service_path(const http_server* self) {
    NUV_CHECK(self != NULL);
    return self->base_service_path;
}
