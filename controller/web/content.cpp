#include "controller/web/content.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "common/number.h"
#include "controller/web/byte_range.h"

namespace nuvio::controller {

namespace {

std::string etag_of(const struct stat& status) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "\"%llx-%llx-%lx\"",
                  static_cast<unsigned long long>(status.st_size),
                  static_cast<unsigned long long>(status.st_mtim.tv_sec),
                  static_cast<unsigned long>(status.st_mtim.tv_nsec));
    return text.data();
}

bool has_value(const char* header, const std::string& value) {
    return header != nullptr && header == value;
}

// None where none of the sizes is asked for.
std::optional<CoverSize> size_asked(const Exchange& exchange) {
    const std::string text = exchange.parameter("size");
    for (const CoverSize size : {CoverSize::list, CoverSize::screen}) {
        if (text == std::to_string(static_cast<uint32_t>(size))) {
            return size;
        }
    }
    return text.empty() ? std::optional(CoverSize::original) : std::nullopt;
}

// A file that has become shorter ends the connection early, which tells the peer.
void send(Exchange& exchange, const UniqueFd& file, ByteRange range) {
    std::array<char, 32768> buffer;
    while (exchange.method() != "HEAD" && range.first < range.end) {
        const size_t wanted = std::min(buffer.size(), static_cast<size_t>(range.end - range.first));
        const ssize_t got = pread(file.get(), buffer.data(), wanted, range.first);
        if (got <= 0 || !exchange.write(buffer.data(), static_cast<size_t>(got))) {
            break;
        }
        range.first += got;
    }
}

}  // namespace

int Content::serve(Exchange& exchange, std::string_view name) {
    const std::string_view token = exchange.bearer();
    if (m_house.sessions().device_of_token(token).empty()) {
        return exchange.fail(401, "a session's token is needed",
                             "WWW-Authenticate: Bearer realm=\"content\"\r\n");
    }
    const size_t dot = name.find('.');
    const std::string_view stem = name.substr(0, dot);
    if (dot != std::string_view::npos && name.substr(dot) == ".jspf") {
        const std::optional<std::string> playlist =
            m_house.sessions().playlist(std::string(stem), token);
        return playlist ? exchange.reply(200, "application/jspf+json", *playlist)
                        : exchange.fail(404, "no such session");
    }
    const std::optional<int64_t> id = to_number<int64_t>(stem);
    const std::optional<Library::File> file = id ? m_library.open_track(*id) : std::nullopt;
    if (!file) {
        return exchange.fail(404, "no such track");
    }
    const Places::Place place = m_being_sent.take(std::string(token));
    if (place == nullptr) {
        return exchange.fail_as_busy("too many at once");
    }
    // A device reads ahead and then not for long: it has a token, so it may.
    exchange.guarded().clear_deadline();
    return serve_file(exchange, *file);
}

int Content::serve_file(Exchange& exchange, const Library::File& file) {
    struct stat status {};
    if (fstat(file.fd.get(), &status) != 0) {
        return exchange.fail(404, "no such track");
    }
    const std::string etag = etag_of(status);
    const std::string headers =
        "ETag: " + etag + "\r\nAccept-Ranges: bytes\r\nCache-Control: private, no-cache\r\n";
    if (has_value(exchange.header("If-None-Match"), etag)) {
        return exchange.reply(304, {}, {}, headers);
    }
    ByteRange range{0, status.st_size};
    RangeKind kind = RangeKind::whole;
    const char* asked = exchange.header("Range");
    const char* condition = exchange.header("If-Range");
    if (asked != nullptr && (condition == nullptr || condition == etag)) {
        kind = parse_range(asked, status.st_size, &range);
    }
    if (kind == RangeKind::beyond) {
        return exchange.fail(416, "behind the file's end",
                             "Content-Range: bytes */" + std::to_string(status.st_size) + "\r\n");
    }
    const bool is_part = kind == RangeKind::part;
    exchange.begin(is_part ? 206 : 200, file.type, range.end - range.first,
                   is_part ? headers + "Content-Range: bytes " + std::to_string(range.first) + "-" +
                                 std::to_string(range.end - 1) + "/" +
                                 std::to_string(status.st_size) + "\r\n"
                           : headers);
    send(exchange, file.fd, range);
    return is_part ? 206 : 200;
}

int Content::serve_cover(Exchange& exchange, std::string_view id) {
    const std::optional<CoverSize> size = size_asked(exchange);
    if (!size) {
        return exchange.fail(400, "size is 320 or 1000");
    }
    const std::optional<int64_t> album = to_number<int64_t>(id);
    const Covers::Found found = album ? m_library.open_cover(*album, *size) : Covers::Found{};
    if (found.is_busy) {
        return exchange.fail_as_busy("too many covers at once");
    }
    if (!found.cover) {
        return exchange.fail(404, "no cover");
    }
    const std::string etag = "\"" + found.cover->tag + "\"";
    const std::string headers = "ETag: " + etag + "\r\nCache-Control: private, max-age=86400\r\n";
    if (has_value(exchange.header("If-None-Match"), etag)) {
        return exchange.reply(304, {}, {}, headers);
    }
    exchange.begin(200, found.cover->type, static_cast<int64_t>(found.cover->size), headers);
    send(exchange, found.cover->file, {0, static_cast<int64_t>(found.cover->size)});
    return 200;
}

}  // namespace nuvio::controller
