#include "local/device_uuid.h"

#include <systemd/sd-id128.h>

#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>

#include "common/environment.h"
#include "common/files/files.h"
#include "common/fnv1a.h"

namespace local_core {

namespace {

constexpr uint64_t kVersionMask = 0x000000000000f000;
constexpr uint64_t kVersion8 = 0x0000000000008000;
constexpr uint64_t kVariantMask = 0xc000000000000000;
constexpr uint64_t kVariant = 0x8000000000000000;

// Keeps the machine's own id out of what is announced.
constexpr sd_id128_t kApplication = {.bytes = {0x5d, 0x0f, 0x6e, 0x2b, 0x8c, 0x41, 0x4f, 0x37, 0xa9,
                                               0x13, 0x7e, 0xc4, 0x60, 0x2d, 0x91, 0xb8}};

constexpr size_t kIdLength = SD_ID128_STRING_MAX - 1;

std::string text_of(const sd_id128_t& id) {
    std::array<char, SD_ID128_STRING_MAX> text{};
    return sd_id128_to_string(id, text.data());
}

std::string kept_id(const std::string& folder) {
    const std::string path = folder + "/device_uuid";
    std::string id = nuvio::read_file(path, kIdLength).text;
    sd_id128_t random;
    if (id.size() != kIdLength && sd_id128_randomize(&random) == 0) {
        id = text_of(random);
        nuvio::replace_file(path, id);
    }
    return id;
}

}  // namespace

std::string device_uuid() {
    sd_id128_t machine;
    const bool known = sd_id128_get_machine_app_specific(kApplication, &machine) == 0;
    return device_uuid(known ? text_of(machine) : "", nuvio::environment_text("NUVIO_STATE_DIR"));
}

std::string device_uuid(const std::string& machine, const std::string& state_folder) {
    const std::string id = machine.empty() ? kept_id(state_folder) : machine;
    std::string name;
    for (const std::string* text : {&id, &state_folder}) {
        name.append(*text).push_back('\0');
    }
    const uint64_t high = (nuvio::fnv1a(nuvio::kFnv1aStart, name) & ~kVersionMask) | kVersion8;
    const uint64_t low = (nuvio::fnv1a(~nuvio::kFnv1aStart, name) & ~kVariantMask) | kVariant;
    char text[37];
    std::snprintf(text, sizeof text, "%08" PRIx32 "-%04x-%04x-%04x-%012" PRIx64,
                  static_cast<uint32_t>(high >> 32), static_cast<unsigned>(high >> 16 & 0xffff),
                  static_cast<unsigned>(high & 0xffff), static_cast<unsigned>(low >> 48),
                  low & 0xffffffffffff);
    return text;
}

}  // namespace local_core
