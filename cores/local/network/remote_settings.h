// How the local core uses the network, as its environment says.
#pragma once

#include "local/network/http_source.h"

namespace local_core {

// A request without URL and token, from the environment as it is at the first call:
//   NUVIO_READ_AHEAD_KIB       kept in memory of each track (128 to 16384; 4096)
//   NUVIO_NETWORK_PATIENCE_S   without a byte for so long a track is passed over (1 to 3600; 60)
//   NUVIO_NETWORK_AUTHORITIES  file of the authorities to trust in the place of the system's
// Any thread.
const HttpRequest& remote_request_defaults();

// For what someone has just asked for and waits to hear: what was never there is given up soon.
HttpRequest asked_just_now(HttpRequest request);

}  // namespace local_core
