// A session offered to a device: the body of its POST connect-to-nconnect. Any thread.
#pragma once

#include <cstdint>
#include <string>

namespace nuvio::controller {

struct Offer {
    std::string session;  // its id
    std::string content;  // URL or path, as the device sees it
    std::string channel;  // URL
    std::string token;    // for both
    int64_t expires = 0;  // seconds since 1970
    bool plays = true;    // at once; else the device joins it and waits
};

std::string offer_body(const Offer& offer);

}  // namespace nuvio::controller
