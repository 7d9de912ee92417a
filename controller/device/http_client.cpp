#include "controller/device/http_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "common/released_by.h"

namespace nuvio::controller {

namespace {

using Clock = std::chrono::steady_clock;

constexpr long kMaxConnectMs = 3'000;
constexpr size_t kMaxDeviceAnswer = size_t{64} << 10U;

std::atomic<bool> is_over{false};

// libcurl asks once a second at least, also while nothing comes, and ends the request at once with
// CURLE_ABORTED_BY_CALLBACK.
int on_progress(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return is_over ? 1 : 0;
}

// libcurl takes 0 for no limit.
long ms_until(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return std::max<long>(1, static_cast<long>(left.count()));
}

struct Body {
    std::string& text;
    size_t limit;
};

// A count other than `size` ends the request with CURLE_WRITE_ERROR; it is not called again.
size_t on_data(const char* data, size_t, size_t size, void* context) {
    const auto* body = static_cast<Body*>(context);
    if (body->text.size() + size > body->limit) {
        return 0;
    }
    body->text.append(data, size);
    return size;
}

// "[fe80::1%25eth0]:8000" is how a URL has it.
std::string host_of(const std::string& address, uint16_t port) {
    std::string host = address;
    if (address.find(':') != std::string::npos) {
        const size_t scope = host.find('%');
        host = "[" + (scope == std::string::npos ? host : host.replace(scope, 1, "%25")) + "]";
    }
    return host + ":" + std::to_string(port);
}

}  // namespace

void start_http() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
}

void end_http() {
    is_over = true;
}

HttpAnswer ask(const HttpRequest& request) {
    const std::unique_ptr<CURL, ReleasedBy<curl_easy_cleanup>> curl(curl_easy_init());
    const std::unique_ptr<curl_slist, ReleasedBy<curl_slist_free_all>> headers(
        curl_slist_append(nullptr, "Content-Type: application/json"));
    HttpAnswer answer;
    if (curl == nullptr || headers == nullptr) {
        answer.failure = "no memory";
        return answer;
    }
    CURL* const handle = curl.get();
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, request.connect_ms);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, request.timeout_ms);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, on_progress);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, on_data);
    Body body{answer.body, request.max_answer};
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
    if (std::string_view(request.method) == "POST") {
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body.c_str());
    }
    if (!request.user.empty()) {
        curl_easy_setopt(handle, CURLOPT_USERPWD, request.user.c_str());
    }
    const CURLcode code = curl_easy_perform(handle);
    long status = 0;
    curl_off_t connected_us = 0;
    const char* local = nullptr;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(handle, CURLINFO_LOCAL_IP, &local);
    curl_easy_getinfo(handle, CURLINFO_CONNECT_TIME_T, &connected_us);
    answer.is_connected = connected_us > 0;
    if (code == CURLE_OK) {
        answer.status = static_cast<int>(status);
        answer.local_address = local != nullptr ? local : "";
    } else {
        answer.failure = curl_easy_strerror(code);
    }
    return answer;
}

HttpAnswer ask_device(const FoundDevice& device, const char* method, const std::string& endpoint,
                      const std::string& body, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    auto addresses_left = static_cast<long>(device.addresses.size());
    HttpAnswer answer;
    answer.failure = "no address is known";
    for (const std::string& address : device.addresses) {
        const long left_ms = ms_until(deadline);
        answer = ask({.url = "http://" + host_of(address, device.port) + device.path +
                             (device.path.ends_with('/') ? "" : "/") + endpoint,
                      .method = method,
                      .body = body,
                      .user = {},
                      .timeout_ms = left_ms,
                      .connect_ms = std::clamp<long>(left_ms / addresses_left--, 1, kMaxConnectMs),
                      .max_answer = kMaxDeviceAnswer});
        if (answer.is_connected) {
            break;
        }
    }
    return answer;
}

}  // namespace nuvio::controller
