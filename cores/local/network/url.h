// URLs as the network's content has them. Pure functions, any thread; input may be any bytes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace local_core {

// `reference`, absolute or relative to `base` (an absolute URL; empty: `reference` has to be one),
// as an absolute URL without a fragment. None unless that is http or https with a host: nothing
// that comes from the network can name a local file. At most 4096 bytes.
std::optional<std::string> resolve_url(const std::string& base, std::string_view reference);

// Equal scheme, host and port. False when either is no URL.
bool same_origin(const std::string& a, const std::string& b);

}  // namespace local_core
