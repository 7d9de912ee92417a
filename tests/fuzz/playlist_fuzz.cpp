// A playlist's entries, their titles and locations, before a file is touched.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/m3u.h"
#include "fuzz/expect.h"
#include "local/texts/display_text.h"
#include "local/texts/file_url.h"

using namespace local_core;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMaxEntries = 100;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto entries = nuvio::parse_m3u(text, kMaxEntries);
    FUZZ_EXPECT(entries.size() <= kMaxEntries);
    for (const nuvio::PlaylistEntry& entry : entries) {
        FUZZ_EXPECT(!entry.location.empty());
        FUZZ_EXPECT(entry.location.find_first_of(std::string_view("\r\n\0", 3)) ==
                    std::string::npos);
        // What is fit for display stays as it is.
        const std::string title = display_text(entry.title);
        FUZZ_EXPECT(display_text(title) == title);
        path_from_file_url(entry.location);
    }
    return 0;
}
