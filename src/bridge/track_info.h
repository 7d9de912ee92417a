// The current track as the device's display shows it. Filled by the bridge, all texts UTF-8.
#pragma once

#include <cstdint>
#include <string>

namespace android {

struct TrackInfo {
    std::string artist;
    std::string trackName;
    std::string album;
    std::string totalTime;     // ms, decimal
    std::string coverArt;      // location; empty when there is none
    std::string codec;         // not known to this service: stays empty
    std::string samplingRate;  // Hz, decimal
    std::string bitdepth;      // bits, decimal
    std::string channels;      // decimal
    int32_t shuffle = 0;       // 0 off, 1 on
    int32_t repeat = 0;        // nuv_loop_mode
};

}  // namespace android
