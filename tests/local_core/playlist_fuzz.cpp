// Fuzzes what is read from a playlist before a file is touched.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "local/playlist.h"
#include "local/text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMaxEntries = 100;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto entries = local_core::parse_playlist(text, kMaxEntries);
    if (entries.size() > kMaxEntries) {
        std::abort();
    }
    for (const local_core::PlaylistEntry& entry : entries) {
        // What is fit for display stays as it is.
        const std::string title = local_core::display_text(entry.title);
        if (entry.location.empty() || local_core::display_text(title) != title) {
            std::abort();
        }
        local_core::path_from_file_url(entry.location);
    }
    return 0;
}
