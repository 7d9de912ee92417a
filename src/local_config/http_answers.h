// What the endpoints answer with, and what they refuse before anything else. On the HTTP worker.
//
// Each send_... returns the status that was sent, for the handler to return. Refusals are logged,
// as "ENDPOINT: why".
#pragma once

#include <civetweb.h>

#include <cstddef>
#include <span>
#include <string>

int send_error(mg_connection* connection, int status, const char* text);
int send_internal_error(mg_connection* connection);
// 200; an empty body where `length` is 0.
int send_json(mg_connection* connection, const char* json, size_t length);

// Logs the reason, a whole line, and answers with the error.
int reject(mg_connection* connection, const char* reason, int status, const char* text);

// False, answered with 403, for what a web page of another site asks. `own_names`: see
// common/request_origin.h.
bool is_meant_for_controllers(mg_connection* connection, const char* endpoint,
                              std::span<const std::string> own_names);
// Logs the request. False, answered with 405, when its method is not the endpoint's.
bool accepts_method(mg_connection* connection, const char* endpoint, const char* expected);
