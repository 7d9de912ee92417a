// What `serve` is told by its command line and, below that, by the environment.
#pragma once

#include <cstdint>
#include <optional>
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

// Reads what follows "serve". Returns the status with which the program is to end, as parse_options
// does; nothing where it is to serve.
std::optional<int> read_settings(const std::vector<std::string>& words, Settings* settings);

}  // namespace nuvio::controller
