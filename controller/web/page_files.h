// The page's files, built into the program as they are and compressed. Constant; any thread.
#pragma once

#include <string_view>

namespace nuvio::controller {

struct PageFile {
    std::string_view path;  // "/" is the page itself
    std::string_view type;
    std::string_view data;
    std::string_view gzipped;
};

// Null: no such file.
const PageFile* page_file(std::string_view path);

}  // namespace nuvio::controller
