// The head of one HTTP response, as far as it matters to a source of bytes, and what follows from
// it. Pure; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "local/network/http_failure.h"

namespace local_core {

struct HttpResponse {
    int status = 0;
    std::string content_type;  // with its parameters
    std::string location;
    std::string etag;
    std::string last_modified;
    std::optional<uint64_t> content_length;
    // From Content-Range: the first byte sent, the whole file's length.
    std::optional<uint64_t> range_first;
    std::optional<uint64_t> range_total;
    bool is_radio = false;  // any "icy-" line, or "ICY" in the place of "HTTP/1.0"
    std::string station;    // icy-name
    size_t icy_interval = 0;

    // One line of the head, in the order of arrival; a status line begins anew. Long values are
    // passed over.
    void take_line(std::string_view line);

    // The head of the answer itself is still to come. A radio has but one.
    bool is_interim() const { return status < 200 && !is_radio; }
    bool is_redirect() const;
    // The length of the whole file, where the response tells it.
    std::optional<uint64_t> file_length() const;
    // Another state of the file than `first` came from, by the validators both have.
    bool differs_from(const HttpResponse& first) const;
    // What If-Range may carry; empty without a strong validator.
    const std::string& strong_validator() const;
    // Worth another try later: the server, not the request, is to blame.
    bool is_passing() const;
};

// What a response's head leads to.
struct HttpVerdict {
    enum class Kind { none, accepted, redirected, at_end, try_again, failed };
    Kind kind = Kind::none;
    HttpFailure failure = HttpFailure::none;  // of `failed`
    std::string reason;                       // of `failed` and `try_again`, for people
    uint64_t skip = 0;    // of `accepted`: the body's bytes before what was asked
    uint64_t length = 0;  // of `at_end`: the file's
};

// `first` is the response that the content was begun with, null while this is it; `asked_from` the
// first byte that was asked for.
HttpVerdict judge(const HttpResponse& response, const HttpResponse* first, uint64_t asked_from);

}  // namespace local_core
