// Which processes hold something open, as the kernel tells of them. Any thread.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

struct Holder {
    std::string name;
    std::string pid;

    // "mpd (process 4711)".
    std::string text() const { return name + " (process " + pid + ")"; }
    // A device like this one: which of them, where there are several, nobody can see from outside.
    bool is_service() const { return name == "nuvio-connect"; }
};

// The processes for whose folder of descriptors ("/proc/4711/fd") `holds` is true. Those of the
// caller's own account can be looked into; by root, all.
std::vector<Holder> find_holders(
    const std::function<bool(const std::filesystem::path& descriptors)>& holds);
