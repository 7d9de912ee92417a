// The body of POST /connect-to-nconnect, from raw bytes to the checked record.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/expect.h"
#include "local_config/connect_request.h"

namespace {

bool is_blank(const connect_token& token) {
    return token.endpoint == nullptr && token.jwt == nullptr && token.exp == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string body(reinterpret_cast<const char*>(data), size);
    const parsed_connect_request parsed = parse_connect_request(body.c_str());
    if (parsed.error == nullptr) {
        FUZZ_EXPECT(parsed.document != nullptr);
        const auto& [endpoint, jwt, exp] = parsed.request.jwt_api;
        const auto& [to_endpoint, to_jwt, to_exp] = parsed.request.jwt_nconnect;
        // Whole, and in the document that owns them.
        for (const char* text : {parsed.request.session_id, endpoint, jwt, to_endpoint, to_jwt}) {
            FUZZ_EXPECT(text != nullptr && std::strlen(text) <= size);
        }
    } else {
        FUZZ_EXPECT(std::strncmp(parsed.error, "connect-to-nconnect: ", 21) == 0);
        FUZZ_EXPECT(parsed.request.session_id == nullptr && !parsed.request.become_active);
        FUZZ_EXPECT(is_blank(parsed.request.jwt_api) && is_blank(parsed.request.jwt_nconnect));
    }
    return 0;
}
