#include "local/device_uuid.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>

#include "common/fnv1a.h"

namespace local_core {

namespace {

constexpr uint64_t kVersionMask = 0x000000000000f000;
constexpr uint64_t kVersion8 = 0x0000000000008000;
constexpr uint64_t kVariantMask = 0xc000000000000000;
constexpr uint64_t kVariant = 0x8000000000000000;

}  // namespace

std::string device_uuid(const std::string& manufacturer, const std::string& model,
                        const std::string& serial_number, const std::string& hardware_id) {
    std::string name;
    for (const std::string* text : {&manufacturer, &model, &serial_number, &hardware_id}) {
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
