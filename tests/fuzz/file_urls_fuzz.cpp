// What a controller names as the content of a session, before a file is touched.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/expect.h"
#include "local/texts/display_text.h"
#include "local/texts/file_url.h"

using namespace local_core;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    FUZZ_EXPECT(!(is_file_url(text) && is_remote_url(text)));
    if (const auto path = path_from_file_url(text)) {
        FUZZ_EXPECT(is_file_url(text));
        FUZZ_EXPECT(path->starts_with('/') && path->find('\0') == std::string::npos);
    }
    if (text.find('\0') == std::string::npos) {
        const std::string path = "/" + text;
        FUZZ_EXPECT(path_from_file_url(file_url_from_path(path)) == path);
    }
    const std::string shown = display_text(text);
    FUZZ_EXPECT(display_text(shown) == shown);
    FUZZ_EXPECT(shown.find_first_of("\r\n") == std::string::npos);
    return 0;
}
