// The file in which the device remembers its name, volume and mute: damaged in any way.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "base/text.h"
#include "configuration/device_name.h"
#include "configuration/state_store.h"
#include "fuzz/expect.h"
#include "platform/Kora.h"
#include "temp_dir.h"

using namespace nuvio::host;

namespace {

void check_value(int id, const std::string& value) {
    switch (id) {
        case android::KORA_DEVICE_NAME:
            FUZZ_EXPECT(is_device_name(value));
            break;
        case android::KORA_VOLUME:
            FUZZ_EXPECT(to_percent(value).has_value());
            break;
        default:
            FUZZ_EXPECT(id == android::KORA_MUTE && (value == "MUTE" || value == "UNMUTE"));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const TempDir folder;
    folder.write("state", std::string(reinterpret_cast<const char*>(data), size));
    StateStore store(folder.path());
    const std::map<int, std::string> values = store.load();
    for (const auto& [id, value] : values) {
        check_value(id, value);
    }
    // A damaged file is whole again after the next change, and nothing good in it is lost.
    const bool was_muted =
        values.contains(android::KORA_MUTE) && values.at(android::KORA_MUTE) == "MUTE";
    const bool is_set = store.set(android::KORA_MUTE, was_muted ? "UNMUTE" : "MUTE");
    FUZZ_EXPECT(is_set);
    store.save();
    std::map<int, std::string> expected = values;
    expected[android::KORA_MUTE] = was_muted ? "UNMUTE" : "MUTE";
    FUZZ_EXPECT(StateStore(folder.path()).load() == expected);
    return 0;
}
