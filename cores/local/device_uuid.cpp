#include "local/device_uuid.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>

namespace local_core {

namespace {

constexpr uint64_t kFnvOffset = 0xcbf29ce484222325;
constexpr uint64_t kFnvPrime = 0x100000001b3;
constexpr uint64_t kVersionMask = 0x000000000000f000;
constexpr uint64_t kVersion8 = 0x0000000000008000;
constexpr uint64_t kVariantMask = 0xc000000000000000;
constexpr uint64_t kVariant = 0x8000000000000000;

uint64_t fnv1a(uint64_t hash, const std::string& bytes) {
    for (const char c : bytes) {
        hash = (hash ^ static_cast<uint8_t>(c)) * kFnvPrime;
    }
    return hash;
}

}  // namespace

std::string device_uuid(const std::string& manufacturer, const std::string& model,
                        const std::string& serial_number, const std::string& hardware_id) {
    std::string name;
    for (const std::string* text : {&manufacturer, &model, &serial_number, &hardware_id}) {
        name.append(*text).push_back('\0');
    }
    const uint64_t high = (fnv1a(kFnvOffset, name) & ~kVersionMask) | kVersion8;
    const uint64_t low = (fnv1a(~kFnvOffset, name) & ~kVariantMask) | kVariant;
    char text[37];
    std::snprintf(text, sizeof text, "%08" PRIx32 "-%04x-%04x-%04x-%012" PRIx64,
                  static_cast<uint32_t>(high >> 32), static_cast<unsigned>(high >> 16 & 0xffff),
                  static_cast<unsigned>(high & 0xffff), static_cast<unsigned>(low >> 48),
                  low & 0xffffffffffff);
    return text;
}

}  // namespace local_core
