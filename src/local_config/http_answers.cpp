#include "local_config/http_answers.h"

#include <cstring>

#include "common/request_origin.h"
#include "utility/log_delegate.h"

int send_error(mg_connection* connection, int status, const char* text) {
    mg_send_http_error(connection, status, "%s", text);
    return status;
}

int send_internal_error(mg_connection* connection) {
    return send_error(connection, 500, "Internal Server Error");
}

int send_json(mg_connection* connection, const char* json, size_t length) {
    mg_send_http_ok(connection, "application/json", static_cast<long long>(length));
    if (length > 0) {
        mg_write(connection, json, length);
    }
    return 200;
}

int reject(mg_connection* connection, const char* reason, int status, const char* text) {
    app_log(LOG_LEVEL_ERROR, "%s", reason);
    return send_error(connection, status, text);
}

bool is_meant_for_controllers(mg_connection* connection, const char* endpoint,
                              std::span<const std::string> own_names) {
    const char* foreign = nuvio::foreign_header(
        mg_get_header(connection, "Host"), mg_get_header(connection, "Origin"),
        mg_get_header(connection, "Sec-Fetch-Site"), own_names);
    if (foreign == nullptr) {
        return true;
    }
    app_log(LOG_LEVEL_ERROR, "%s: Refused: %s is '%.200s', none of this device's", endpoint,
            foreign, mg_get_header(connection, foreign));
    send_error(connection, 403, "Forbidden");
    return false;
}

bool accepts_method(mg_connection* connection, const char* endpoint, const char* expected) {
    app_log(LOG_LEVEL_INFO, "API endpoint invoked: %s", endpoint);
    const char* method = mg_get_request_info(connection)->request_method;
    if (std::strcmp(method, expected) == 0) {
        return true;
    }
    app_log(LOG_LEVEL_ERROR, "%s: Method not allowed: '%s'", endpoint, method);
    send_error(connection, 405, "Method Not Allowed");
    return false;
}
