// The body of POST /connect-to-nconnect: raw bytes in, a checked record out.
//
//   {"session_id": text, "jwt_api": {"endpoint": text, "jwt": text, "exp": number},
//    "jwt_nconnect": {the same}, "become_active": boolean}
//
// Pure: no state, no log, any thread. A request that is wrong comes back as the one log line that
// says why, never as a crash: the bytes come from anyone on the network.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>

#include "common/released_by.h"

struct connect_token {
    const char* endpoint;
    const char* jwt;
    uint64_t exp;  // seconds since the epoch; 0: not a number, negative or none
};

// The texts point into the document they were parsed from.
struct connect_request {
    const char* session_id;
    connect_token jwt_api;
    connect_token jwt_nconnect;
    bool become_active;
};

using json_ptr = std::unique_ptr<cJSON, nuvio::ReleasedBy<cJSON_Delete>>;

struct parsed_connect_request {
    json_ptr document;        // owns the texts of `request`
    connect_request request;  // all zero with an error
    const char* error;        // constant log line; null when the request is complete
};

// Parses a NUL-terminated body. What follows a complete JSON value is ignored, and so are unknown
// members; key case does not matter, and of equal keys the first counts. What nests deeper than
// kMaxJsonNesting is refused: CivetWeb's worker has a stack of 100 KiB.
parsed_connect_request parse_connect_request(const char* body);
