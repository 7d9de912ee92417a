#include "controller/web/exchange.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "common/bearer.h"
#include "common/number.h"
#include "common/percent_encoding.h"
#include "common/released_by.h"
#include "common/text.h"

namespace nuvio::controller {

namespace {

constexpr int64_t kMaxBody = int64_t{64} << 10;
// A value takes up to 150 bytes as long as its request waits for a device, and all but one have a
// comma at a side.
constexpr size_t kMaxValues = 6'000;

// blob: is what the page's own script has made, the silence that it plays (keys.ts).
constexpr char kSafeHeaders[] =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
    "img-src 'self'; media-src blob:; connect-src 'self'; manifest-src 'self'; worker-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n"
    "Connection: close\r\n";

// Fewer bytes are sent in one packet.
constexpr size_t kLeastZipped = 1400;

// As fast as that can be: of a long list a tenth is left and less. Empty: it can't be.
std::string gzipped(const std::string& text) {
    constexpr int kWindow = MAX_WBITS + 16, kMemory = 8;  // of gzip's kind
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, kWindow, kMemory, Z_DEFAULT_STRATEGY) !=
        Z_OK) {
        return {};
    }
    const std::unique_ptr<z_stream, ReleasedBy<deflateEnd>> end(&stream);
    std::string zipped(deflateBound(&stream, text.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(zipped.data());
    stream.avail_out = static_cast<uInt>(zipped.size());
    const bool is_whole = deflate(&stream, Z_FINISH) == Z_STREAM_END;
    zipped.resize(is_whole ? stream.total_out : 0);
    return zipped;
}

std::string path_behind(const std::string& base, const mg_connection* connection) {
    const char* path = mg_get_request_info(connection)->local_uri;
    return path != nullptr ? path + base.size() : "";
}

}  // namespace

Exchange::Exchange(mg_connection* connection, HttpGuard& guard, Places& bodies, std::string base)
    : m_connection(connection),
      m_guarded(guard, connection),
      m_bodies(bodies),
      m_method(mg_get_request_info(connection)->request_method),
      m_base(std::move(base)),
      m_encoded_path(path_behind(m_base, connection)),
      m_path(percent_decode_leniently(m_encoded_path)) {
    const bool has_body = mg_get_request_info(connection)->content_length > 0 ||
                          header("Transfer-Encoding") != nullptr;
    m_guarded.set_deadline(has_body ? kBodyPatience : kAnswerPatience);
}

std::string Exchange::parameter(const char* name) const {
    const char* query = mg_get_request_info(m_connection)->query_string;
    std::array<char, 1024> value{};
    const int size = query == nullptr ? -1
                                      : mg_get_var(query, std::string_view(query).size(), name,
                                                   value.data(), value.size());
    return size > 0 ? std::string(value.data(), static_cast<size_t>(size)) : std::string();
}

int64_t Exchange::number_parameter(const char* name, int64_t otherwise) const {
    const std::string text = parameter(name);
    return to_number<int64_t>(text).value_or(otherwise);
}

bool Exchange::is_of_type(std::string_view type) const {
    const char* given = header("Content-Type");
    const std::string_view text = given != nullptr ? given : "";
    return equals_ignoring_case(trim(text.substr(0, text.find(';'))), type);
}

bool Exchange::takes_gzip() const {
    const char* taken = header("Accept-Encoding");
    return taken != nullptr && std::string_view(taken).find("gzip") != std::string_view::npos;
}

std::string_view Exchange::bearer() const {
    return bearer_token(header("Authorization"));
}

JsonPtr Exchange::body() {
    const int64_t size = mg_get_request_info(m_connection)->content_length;
    if (size < 0 || size > kMaxBody) {
        fail(size < 0 ? 411 : 413, size < 0 ? "a body needs its length" : "at most 64 KiB");
        return nullptr;
    }
    Places::Place place = m_bodies.take(peer());
    if (place == nullptr) {
        fail_as_busy("too many bodies at once");
        return nullptr;
    }
    std::vector<char> text(static_cast<size_t>(size));
    size_t have = 0;
    while (have < text.size()) {
        const int got = mg_read(m_connection, text.data() + have, text.size() - have);
        if (got <= 0) {
            break;
        }
        have += static_cast<size_t>(got);
    }
    place.reset();
    m_guarded.set_deadline(kAnswerPatience);
    JsonPtr document = parse_json({text.data(), have}, kMaxValues);
    if (have < text.size() || cJSON_IsObject(document.get()) == 0) {
        fail(400, "the body is no JSON object, or has more than 6,000 values");
        return nullptr;
    }
    return document;
}

int Exchange::reply(int status, std::string_view type, std::string_view body,
                    const std::string& headers) {
    begin(status, type, static_cast<int64_t>(body.size()), headers);
    if (m_method != "HEAD") {
        write(body.data(), body.size());
    }
    return status;
}

int Exchange::reply_json(const JsonPtr& document) {
    const std::string text = print_json(document.get());
    const std::string zipped =
        text.size() >= kLeastZipped && takes_gzip() ? gzipped(text) : std::string();
    const std::string headers = "Cache-Control: no-store\r\nVary: Accept-Encoding\r\n";
    return zipped.empty()
               ? reply(200, "application/json", text, headers)
               : reply(200, "application/json", zipped, headers + "Content-Encoding: gzip\r\n");
}

int Exchange::fail(int status, std::string_view text, const std::string& headers,
                   JsonPtr document) {
    add(document.get(), "error", text);
    return reply(status, "application/json", print_json(document.get()),
                 "Cache-Control: no-store\r\n" + headers);
}

void Exchange::begin(int status, std::string_view type, int64_t size, const std::string& headers) {
    m_status = status;
    std::string head = "HTTP/1.1 " + std::to_string(status) + " " +
                       mg_get_response_code_text(m_connection, status) + "\r\n" + kSafeHeaders +
                       headers;
    if (status != 304) {
        head += "Content-Type: " + std::string(type) +
                "\r\nContent-Length: " + std::to_string(size) + "\r\n";
    }
    head += "\r\n";
    write(head.data(), head.size());
}

bool Exchange::write(const char* data, size_t size) {
    while (size > 0) {
        const int sent = mg_write(m_connection, data, size);
        if (sent <= 0) {
            return false;
        }
        data += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

}  // namespace nuvio::controller
