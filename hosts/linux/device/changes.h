// What of the device has changed, as bits: one set of them for everything that shows the device.
#pragma once

#include <array>
#include <cstdint>

#include "platform/Kora.h"

namespace nuvio::host {

inline constexpr uint32_t kPlayerStatus = 1U << 0U;
inline constexpr uint32_t kPlayerTrack = 1U << 1U;
inline constexpr uint32_t kPlayerModes = 1U << 2U;
inline constexpr uint32_t kPlayerActions = 1U << 3U;
inline constexpr uint32_t kPlayerSeeked = 1U << 4U;  // the position has jumped
inline constexpr uint32_t kPlayerSession = 1U << 5U;
inline constexpr uint32_t kDeviceName = 1U << 6U;
inline constexpr uint32_t kDeviceVolume = 1U << 7U;
inline constexpr uint32_t kDeviceMute = 1U << 8U;
inline constexpr uint32_t kDeviceSource = 1U << 9U;  // another one has the output
inline constexpr uint32_t kDeviceNetwork = 1U << 10U;

// What a change of the message with this id changes of the device; 0: nothing that is shown.
constexpr uint32_t changes_of_message(int id) {
    struct Row {
        int id;
        uint32_t changes;
    };
    constexpr std::array<Row, 4> kRows = {{
        {android::KORA_DEVICE_NAME, kDeviceName},
        {android::KORA_VOLUME, kDeviceVolume},
        {android::KORA_MUTE, kDeviceMute},
        {android::KORA_CURRENT_SOURCE, kDeviceSource},
    }};
    uint32_t changes = 0;
    for (const Row& row : kRows) {
        changes |= row.id == id ? row.changes : 0;
    }
    return changes;
}

}  // namespace nuvio::host
