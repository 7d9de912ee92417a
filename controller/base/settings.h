// What `serve` is told by its command line, below that by the environment, and, the password alone,
// below that by a credential of the service manager.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nuvio::controller {

struct Settings {
    std::vector<std::string> music;  // folders
    std::string address;             // to listen on; empty: all
    uint16_t port = 8090;
    std::string state_folder;
    std::string password;     // asked of pages; empty: none
    std::string base;         // "/music" before every path, for a proxy; possibly empty
    std::string public_name;  // the proxy's, "music.example.org"
};

// Reads what follows "serve". False, with *failure set, for what is not understood.
bool read_settings(const std::vector<std::string>& words, Settings* settings, std::string* failure);

// Its options, a line or more each.
std::string describe_settings();

}  // namespace nuvio::controller
