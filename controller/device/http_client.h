// Requests of the controller's own, by libcurl: to devices, and of the command line to a running
// controller. Plain HTTP, no proxy, no redirects; an answer of more than 4 MiB is none.
//
// Threads  any; each call waits for its answer. `start_http` once, before other threads.
#pragma once

#include <chrono>
#include <string>

#include "controller/discovery/discovery.h"

namespace nuvio::controller {

void start_http();
// For good: what is under way fails within a second, what is asked later at once.
void end_http();

struct HttpRequest {
    std::string url;
    const char* method = "GET";
    std::string body;                      // JSON, where the method is POST
    std::string user;                      // "name:password"; empty: none
    long timeout_ms = 10'000;              // for all of it
    long connect_ms = 3'000;               // of it, for the connection
    size_t max_answer = size_t{4} << 20U;  // bytes; a longer one is none
};

struct HttpAnswer {
    int status = 0;  // 0: none came
    std::string body;
    std::string failure;        // why none came
    bool is_connected = false;  // the peer took the connection, also where no answer came
    std::string local_address;  // of this machine, as the peer sees it
};

HttpAnswer ask(const HttpRequest& request);

// By the first of the device's addresses that takes the connection; `timeout` is for all of them
// together. An answer has 64 KiB: as JSON it can take 40 times as much.
HttpAnswer ask_device(const FoundDevice& device, const char* method, const std::string& endpoint,
                      const std::string& body = {},
                      std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace nuvio::controller
