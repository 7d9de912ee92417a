#include "common/url/url.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "common/number.h"
#include "common/percent_encoding.h"
#include "common/text.h"

namespace nuvio {

namespace {

constexpr size_t kMaxUrlBytes = 4096;

constexpr struct {
    std::string_view scheme;
    uint16_t port;
} kSchemes[] = {{"http", 80}, {"https", 443}, {"ws", 80}, {"wss", 443}};

// What no URL has: blanks and control characters.
bool is_refused(char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == 0x7f;
}

bool is_letter_or_digit(char c) {
    return (c >= '0' && c <= '9') || (to_lower(c) >= 'a' && to_lower(c) <= 'z');
}

// Of a name; one beyond ASCII is for whoever looks it up.
bool is_of_a_name(char c) {
    return is_letter_or_digit(c) || std::string_view("-._~").find(c) != std::string_view::npos ||
           static_cast<unsigned char>(c) > 0x7f;
}

// Up to the ':' that is the first sign of its kind; empty: it has none, and is relative.
std::string_view scheme_of(std::string_view text) {
    const auto* const end = std::ranges::find_if_not(text, [](char c) {
        return is_letter_or_digit(c) || std::string_view("+-.").find(c) != std::string_view::npos;
    });
    return end != text.end() && *end == ':' ? std::string_view(text.begin(), end)
                                            : std::string_view();
}

// A whole URL: the parts that were asked for, and the rest as it is written.
struct Whole {
    Url url;
    std::string authority;
    std::string text() const { return url.scheme + "://" + authority + url.path; }
};

// "[ADDRESS]", "[ADDRESS%25ZONE]" or "[ADDRESS%ZONE]", without its brackets.
std::string address_in(std::string_view text) {
    const size_t sign = std::min(text.find('%'), text.size());
    std::string address(text.substr(0, sign));
    in6_addr bytes{};
    if (inet_pton(AF_INET6, address.c_str(), &bytes) != 1) {
        return {};
    }
    std::string_view zone = text.substr(sign);
    if (zone.empty()) {
        return address;
    }
    zone.remove_prefix(zone.starts_with("%25") ? 3 : 1);
    return !zone.empty() && std::ranges::all_of(zone, is_of_a_name)
               ? address + "%" + std::string(zone)
               : std::string();
}

std::string name_in(std::string_view text) {
    std::string name = percent_decode(text).value_or("");
    return std::ranges::all_of(name, is_of_a_name) ? name : std::string();
}

// "USER@HOST:PORT", all but the host left out or not. False: there is no such host or port.
bool read_authority(std::string_view text, Url* url) {
    const size_t at = text.find('@');
    url->has_user = at != std::string_view::npos;
    text.remove_prefix(url->has_user ? at + 1 : 0);
    size_t end = text.find(':');
    if (text.starts_with('[')) {
        const size_t bracket = text.find(']');
        if (bracket == std::string_view::npos) {
            return false;
        }
        end = bracket + 1;
        url->host = address_in(text.substr(1, bracket - 1));
    } else {
        url->host = name_in(text.substr(0, end));
    }
    text.remove_prefix(std::min(end, text.size()));
    if (text.size() > 1) {
        url->port = text[0] == ':' ? to_number<uint16_t>(text.substr(1)).value_or(0) : 0;
    }
    return !url->host.empty() && url->port != 0 && (text.empty() || text[0] == ':');
}

// `path` begins with '/'.
std::string without_dots(std::string_view path) {
    std::string plain;
    while (!path.empty()) {
        const size_t end = std::min(path.find('/', 1), path.size());
        const std::string_view step = path.substr(0, end);
        path.remove_prefix(end);
        const bool is_up = step == "/..";
        if (is_up || step == "/.") {
            plain.resize(is_up && !plain.empty() ? plain.rfind('/') : plain.size());
            plain += path.empty() ? "/" : "";
        } else {
            plain += step;
        }
    }
    return plain;
}

std::optional<Whole> take_apart(std::string_view text) {
    Whole whole;
    const std::string_view scheme = scheme_of(text);
    std::ranges::transform(scheme, std::back_inserter(whole.url.scheme), to_lower);
    const auto* const known = std::ranges::find_if(
        kSchemes, [&](const auto& row) { return row.scheme == whole.url.scheme; });
    text = text.substr(0, text.find('#'));
    text.remove_prefix(scheme.size());
    if (known == std::end(kSchemes) || !text.starts_with("://") ||
        std::ranges::any_of(text, is_refused)) {
        return std::nullopt;
    }
    text.remove_prefix(3);
    const std::string_view authority = text.substr(0, text.find_first_of("/?"));
    text.remove_prefix(authority.size());
    const std::string_view path = text.substr(0, text.find('?'));
    whole.authority = authority;
    whole.url.port = known->port;
    whole.url.path = without_dots(path.empty() ? "/" : path);
    whole.url.path += text.substr(path.size());
    return read_authority(authority, &whole.url) ? std::optional(std::move(whole)) : std::nullopt;
}

// Blanks and letters beyond ASCII, as playlists written by hand have them.
std::string with_plain_bytes(std::string_view reference) {
    std::string plain;
    for (const char c : reference) {
        const bool is_plain = c > ' ' && c < 0x7f;
        plain += is_plain ? std::string(1, c) : percent_encode(std::string_view(&c, 1));
    }
    return plain;
}

// As RFC 3986 has it; `reference` has no scheme and no fragment.
std::string join(const Whole& base, const std::string& reference) {
    const std::string top = base.url.scheme + "://";
    const std::string_view path = base.url.path;
    const std::string_view file = path.substr(0, path.find('?'));
    const size_t kept = reference.empty()            ? path.size()
                        : reference.starts_with('/') ? 0
                        : reference.starts_with('?') ? file.size()
                                                     : file.rfind('/') + 1;
    return reference.starts_with("//")
               ? base.url.scheme + ":" + reference
               : top + base.authority + std::string(path.substr(0, kept)) + reference;
}

}  // namespace

std::optional<Url> split_url(const std::string& url) {
    auto whole = take_apart(url);
    return whole ? std::optional(std::move(whole->url)) : std::nullopt;
}

std::optional<std::string> resolve_url(const std::string& base, std::string_view reference) {
    reference = trim(reference);
    if (reference.empty() || reference.size() > kMaxUrlBytes) {
        return std::nullopt;
    }
    std::string plain = with_plain_bytes(reference.substr(0, reference.find('#')));
    if (scheme_of(plain).empty()) {
        const auto from = take_apart(base);
        plain = from ? join(*from, plain) : "";
    }
    const auto whole = take_apart(plain);
    if (!whole || !is_web_address(plain)) {
        return std::nullopt;
    }
    std::string url = whole->text();
    return url.size() > kMaxUrlBytes ? std::nullopt : std::optional(std::move(url));
}

bool same_origin(const std::string& a, const std::string& b) {
    const auto first = split_url(a);
    const auto second = split_url(b);
    return first && second && first->scheme == second->scheme && first->port == second->port &&
           equals_ignoring_case(first->host, second->host);
}

bool is_web_address(std::string_view text) {
    return starts_with_ignoring_case(text, "http://") ||
           starts_with_ignoring_case(text, "https://");
}

}  // namespace nuvio
