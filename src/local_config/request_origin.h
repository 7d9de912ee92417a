// Whether a request comes from a controller or from a web page that a browser in the house shows.
// Pure; any thread.
#pragma once

// True for what only a browser on another site's behalf sends: an `Origin` that is not the device's
// own, a `Sec-Fetch-Site` of "cross-site", or a `Host` that a name server outside of the house
// could have given out, as after DNS rebinding. Addresses, names without a dot, the machine's own
// name and names in domains that no public name server knows (.local, .lan, ...) are the device's.
// Null: the header is absent, as in a controller's request.
bool is_from_a_foreign_page(const char* host, const char* origin, const char* fetch_site);
