#include "common/url/url.h"

#include <uriparser/Uri.h>

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

// A text taken apart, which has to outlive it.
struct Parts : UriUriA {
    Parts() : UriUriA{} {}
    ~Parts() { uriFreeUriMembersA(this); }
    Parts(const Parts&) = delete;
    Parts& operator=(const Parts&) = delete;
};

std::string text_of(const UriTextRangeA& range) {
    return range.first != nullptr ? std::string(range.first, range.afterLast) : std::string();
}

bool is_one_of(char c, std::string_view signs) {
    return signs.find(c) != std::string_view::npos;
}

bool is_letter_or_digit(char c) {
    return (c >= '0' && c <= '9') || (to_lower(c) >= 'a' && to_lower(c) <= 'z');
}

// Of a host's name; one beyond ASCII is for whoever looks it up.
bool is_of_a_name(char c) {
    return is_letter_or_digit(c) || is_one_of(c, "-._~") || static_cast<unsigned char>(c) > 0x7f;
}

bool is_blank(char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == 0x7f;
}

// Of "SCHEME://AUTHORITY/PATH" or "//AUTHORITY"; empty: there is none.
std::string_view authority_in(std::string_view text) {
    const size_t slash = std::min(text.find_first_of("/?"), text.size());
    const bool is_there = text.substr(slash, 2) == "//" && (slash == 0 || text[slash - 1] == ':');
    text.remove_prefix(is_there ? slash + 2 : text.size());
    return text.substr(0, text.find_first_of("/?"));
}

// "%ZONE" or "%25ZONE" of an address in brackets, which is no part of a URL for the library.
std::string take_zone(std::string* text) {
    const std::string_view authority = authority_in(*text);
    const size_t begin = authority.find('%', authority.find('['));
    const size_t end = authority.find(']');
    if (begin >= end || end == std::string_view::npos) {
        return {};
    }
    const size_t at = static_cast<size_t>(authority.data() - text->data()) + begin;
    std::string zone = text->substr(at, end - begin);
    text->erase(at, end - begin);
    return zone;
}

// As playlists written by hand have it: what no URL has is escaped, and so are stray '%'; of a host
// its letters beyond ASCII alone.
std::string escaped(std::string_view text) {
    const std::string_view authority = authority_in(text);
    std::string plain;
    for (const char& c : text) {
        const bool is_in_authority =
            &c >= authority.data() && &c < authority.data() + authority.size();
        const bool stays =
            is_in_authority ? static_cast<unsigned char>(c) <= 0x7f
                            : is_letter_or_digit(c) || is_one_of(c, "-._~!$&'()*+,;=:@/?") ||
                                  escaped_byte(text.substr(static_cast<size_t>(&c - text.data())));
        plain += stays ? std::string(1, c) : percent_encode(std::string_view(&c, 1));
    }
    return plain;
}

// A URL, and as it is written.
struct Whole {
    Url url;
    std::string text;
};

// False: it has no host, or none that can be.
bool read_host(const UriUriA& parts, std::string_view zone, Whole* whole) {
    const std::string text = text_of(parts.hostText);
    if (parts.hostData.ip6 == nullptr) {
        whole->url.host = percent_decode(text).value_or("");
        whole->text += text;
        return zone.empty() && !whole->url.host.empty() &&
               std::ranges::all_of(whole->url.host, is_of_a_name);
    }
    whole->url.host = text;
    whole->text += "[" + text;
    if (!zone.empty()) {
        zone.remove_prefix(zone.starts_with("%25") ? 3 : 1);
        whole->url.host += "%" + std::string(zone);
        whole->text += "%25" + std::string(zone);
    }
    whole->text += "]";
    return whole->url.host.back() != '%' && std::ranges::all_of(zone, is_of_a_name);
}

std::optional<Whole> whole_of(const UriUriA& parts, std::string_view zone) {
    Whole whole;
    const std::string scheme = text_of(parts.scheme);
    std::ranges::transform(scheme, std::back_inserter(whole.url.scheme), to_lower);
    const auto* const known = std::ranges::find_if(
        kSchemes, [&](const auto& row) { return row.scheme == whole.url.scheme; });
    if (known == std::end(kSchemes)) {
        return std::nullopt;
    }
    whole.text = whole.url.scheme + "://";
    whole.url.has_user = parts.userInfo.first != nullptr;
    whole.text += whole.url.has_user ? text_of(parts.userInfo) + "@" : "";
    const bool has_host = read_host(parts, zone, &whole);
    const std::string port = text_of(parts.portText);
    whole.url.port = port.empty() ? known->port : to_number<uint16_t>(port).value_or(0);
    whole.text += port.empty() ? "" : ":" + port;
    for (const auto* step = parts.pathHead; step != nullptr; step = step->next) {
        whole.url.path += "/" + text_of(step->text);
    }
    whole.url.path += whole.url.path.empty() ? "/" : "";
    whole.url.path += parts.query.first != nullptr ? "?" + text_of(parts.query) : "";
    whole.text += whole.url.path;
    return has_host && whole.url.port != 0 ? std::optional(std::move(whole)) : std::nullopt;
}

bool parse(const std::string& text, Parts* parts) {
    return uriParseSingleUriExA(parts, text.data(), text.data() + text.size(), nullptr) ==
           URI_SUCCESS;
}

// Beside this only what is absolute is a URL of the network.
constexpr char kNoBase[] = "none:";

// `reference` beside `base`, which is absolute.
std::optional<Whole> take_apart(std::string_view reference, const std::string& base) {
    std::string text = escaped(reference.substr(0, reference.find('#')));
    std::string base_text = base;
    const std::string zone = take_zone(&text);
    const std::string zone_of_base = take_zone(&base_text);
    Parts parts;
    Parts of_base;
    Parts resolved;
    const bool is_resolved =
        parse(text, &parts) && parse(base_text, &of_base) &&
        uriAddBaseUriExA(&resolved, &parts, &of_base, URI_RESOLVE_STRICTLY) == URI_SUCCESS;
    return is_resolved ? whole_of(resolved, parts.hostText.first != nullptr ? zone : zone_of_base)
                       : std::nullopt;
}

}  // namespace

std::optional<Url> split_url(const std::string& url) {
    auto whole = std::ranges::any_of(url, is_blank) ? std::nullopt : take_apart(url, kNoBase);
    return whole ? std::optional(std::move(whole->url)) : std::nullopt;
}

std::optional<std::string> resolve_url(const std::string& base, std::string_view reference) {
    reference = trim(reference);
    const auto from = take_apart(base, kNoBase);
    auto whole = reference.empty() || reference.size() > kMaxUrlBytes
                     ? std::nullopt
                     : take_apart(reference, from ? from->text : kNoBase);
    const bool is_taken =
        whole && is_web_address(whole->text) && whole->text.size() <= kMaxUrlBytes;
    return is_taken ? std::optional(std::move(whole->text)) : std::nullopt;
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
