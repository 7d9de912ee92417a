#include "local/network/http_response.h"

#include <algorithm>
#include <array>
#include <utility>

#include "common/number.h"
#include "common/text.h"

namespace local_core {

namespace {

constexpr size_t kMaxValueBytes = 4096;
// Stations use 8 to 64 KiB; anything beyond is no interval.
constexpr size_t kMaxIcyInterval = size_t{16} * 1024 * 1024;

template <auto member>
void take_text(HttpResponse& response, std::string_view value) {
    response.*member = value;
}

void take_length(HttpResponse& response, std::string_view value) {
    response.content_length = nuvio::to_number<uint64_t>(value);
}

// "bytes 100-199/1000", "bytes */1000", "bytes 100-199/*"
void take_range(HttpResponse& response, std::string_view value) {
    constexpr std::string_view kUnit = "bytes ";
    const size_t slash = value.find('/');
    if (!nuvio::starts_with_ignoring_case(value, kUnit) || slash == std::string_view::npos) {
        return;
    }
    const std::string_view range = value.substr(0, slash).substr(kUnit.size());
    response.range_first = nuvio::to_number<uint64_t>(range.substr(0, range.find('-')));
    response.range_total = nuvio::to_number<uint64_t>(value.substr(slash + 1));
}

void take_interval(HttpResponse& response, std::string_view value) {
    const size_t interval = nuvio::to_number<size_t>(value).value_or(0);
    response.icy_interval = interval <= kMaxIcyInterval ? interval : 0;
}

HttpVerdict verdict_of(HttpVerdict::Kind kind) {
    HttpVerdict verdict;
    verdict.kind = kind;
    return verdict;
}

HttpVerdict refuse(HttpFailure failure, std::string reason) {
    HttpVerdict verdict = verdict_of(HttpVerdict::Kind::failed);
    verdict.failure = failure;
    verdict.reason = std::move(reason);
    return verdict;
}

HttpVerdict changed() {
    return refuse(HttpFailure::changed, "the file changed meanwhile");
}

// A server without ranges begins anew: that is of use where it is the same file.
HttpVerdict judge_whole_file(const HttpResponse& first, uint64_t asked_from) {
    const bool is_known =
        first.file_length() || !first.etag.empty() || !first.last_modified.empty();
    if (asked_from > 0 && !is_known) {
        return refuse(HttpFailure::missing, "the server can't go on from where it broke");
    }
    HttpVerdict verdict = verdict_of(HttpVerdict::Kind::accepted);
    verdict.skip = asked_from;
    return verdict;
}

// Also how a file ends that is shorter than was told at first.
HttpVerdict judge_range_beyond_end(const HttpResponse& response, const HttpResponse* first,
                                   uint64_t asked_from) {
    const uint64_t total = response.range_total.value_or(asked_from);
    if (first != nullptr && first->file_length() && total != asked_from) {
        return changed();
    }
    HttpVerdict verdict = verdict_of(HttpVerdict::Kind::at_end);
    verdict.length = std::min(total, asked_from);
    return verdict;
}

constexpr struct {
    std::string_view name;
    void (*take)(HttpResponse& response, std::string_view value);
} kFields[] = {
    {"content-type", take_text<&HttpResponse::content_type>},
    {"location", take_text<&HttpResponse::location>},
    {"etag", take_text<&HttpResponse::etag>},
    {"last-modified", take_text<&HttpResponse::last_modified>},
    {"content-length", take_length},
    {"content-range", take_range},
    {"icy-name", take_text<&HttpResponse::station>},
    {"icy-metaint", take_interval},
};

}  // namespace

void HttpResponse::take_line(std::string_view line) {
    if (line.starts_with("HTTP/") || line.starts_with("ICY ")) {
        *this = {};
        is_radio = line.starts_with("ICY ");
        const size_t blank = line.find(' ');
        const std::string_view code = nuvio::trim(line.substr(std::min(blank, line.size())));
        status = nuvio::to_number<int>(code.substr(0, 3)).value_or(0);
        return;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || line.size() > kMaxValueBytes) {
        return;
    }
    const std::string_view name = line.substr(0, colon);
    is_radio = is_radio || nuvio::starts_with_ignoring_case(name, "icy-");
    for (const auto& field : kFields) {
        if (nuvio::equals_ignoring_case(name, field.name)) {
            field.take(*this, nuvio::trim(line.substr(colon + 1)));
        }
    }
}

bool HttpResponse::is_redirect() const {
    constexpr std::array kRedirects = {301, 302, 303, 307, 308};
    return std::ranges::find(kRedirects, status) != kRedirects.end();
}

std::optional<uint64_t> HttpResponse::file_length() const {
    if (is_radio) {
        return std::nullopt;
    }
    return status == 200 ? content_length : range_total;
}

bool HttpResponse::differs_from(const HttpResponse& first) const {
    const auto differ = [](const std::string& a, const std::string& b) {
        return !a.empty() && !b.empty() && a != b;
    };
    const auto length = file_length();
    const auto first_length = first.file_length();
    return differ(etag, first.etag) || differ(last_modified, first.last_modified) ||
           (length && first_length && *length != *first_length);
}

const std::string& HttpResponse::strong_validator() const {
    return etag.empty() || etag.starts_with("W/") ? last_modified : etag;
}

bool HttpResponse::is_passing() const {
    constexpr std::array kPassing = {408, 425, 429};
    return status >= 500 || std::ranges::find(kPassing, status) != kPassing.end();
}

HttpVerdict judge(const HttpResponse& response, const HttpResponse* first, uint64_t asked_from) {
    const int status = response.status;
    if (response.is_redirect()) {
        return verdict_of(HttpVerdict::Kind::redirected);
    }
    if (status == 416 && asked_from > 0) {
        return judge_range_beyond_end(response, first, asked_from);
    }
    if (status == 200 || status == 206) {
        if (first != nullptr && !first->is_radio && response.differs_from(*first)) {
            return changed();
        }
        if (status == 200) {
            return judge_whole_file(first != nullptr ? *first : response, asked_from);
        }
        return response.range_first == asked_from
                   ? verdict_of(HttpVerdict::Kind::accepted)
                   : refuse(HttpFailure::missing, "the server sent another range than asked");
    }
    std::string reason = "the server answers " + std::to_string(status);
    const bool is_refused = status == 401 || status == 403;
    // A station that loses its server has no address there until it is back.
    const bool is_off_air = first != nullptr && first->is_radio && !is_refused;
    if (response.is_passing() || is_off_air) {
        HttpVerdict verdict = verdict_of(HttpVerdict::Kind::try_again);
        verdict.reason = std::move(reason);
        return verdict;
    }
    return refuse(is_refused ? HttpFailure::refused : HttpFailure::missing, std::move(reason));
}

}  // namespace local_core
