// URLs of the network: of music, playlists and pictures (http, https), of a session's channel (ws,
// wss). Pure functions, any thread; input may be any bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nuvio {

struct Url {
    std::string scheme;     // http, https, ws or wss
    std::string host;       // a name or an address, the latter without brackets
    uint16_t port = 0;      // the scheme's own where the URL names none
    std::string path;       // with the query; at least "/"
    bool has_user = false;  // or a password
};

// Absolute; blanks and control characters are refused, a fragment is left out.
std::optional<Url> split_url(const std::string& url);

// `reference`, absolute or relative to `base` (an absolute URL; empty: `reference` has to be one),
// as an absolute URL without a fragment. None unless that is http or https with a host: nothing
// that comes from the network can name a local file. At most 4096 bytes.
std::optional<std::string> resolve_url(const std::string& base, std::string_view reference);

// Equal scheme, host and port. False when either is no URL.
bool same_origin(const std::string& a, const std::string& b);

// Begins as one of http or https does.
bool is_web_address(std::string_view text);

}  // namespace nuvio
