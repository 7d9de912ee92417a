#include "reader/inside/sound/channel_order.h"

#include <algorithm>
#include <iterator>

namespace nuvio::reader {

namespace {

constexpr uint32_t kMostChannels = 8;

}  // namespace

const uint8_t* ogg_order_of(uint32_t channels) {
    static constexpr struct {
        uint32_t channels;
        uint8_t order[kMostChannels];
    } kOrders[] = {
        {3, {0, 2, 1}},                 // left, centre, right
        {5, {0, 2, 1, 3, 4}},           // and two behind
        {6, {0, 2, 1, 5, 3, 4}},        // and the low one, which is the last
        {7, {0, 2, 1, 6, 5, 3, 4}},     // two at the sides, one behind
        {8, {0, 2, 1, 7, 5, 6, 3, 4}},  // two at the sides, two behind
    };
    const auto* const row =
        std::find_if(std::begin(kOrders), std::end(kOrders),
                     [channels](const auto& r) { return r.channels == channels; });
    return row == std::end(kOrders) ? nullptr : row->order;
}

void put_in_order(int16_t* samples, size_t frames, size_t channels, const uint8_t* order) {
    int16_t frame[kMostChannels];
    for (; frames > 0; --frames, samples += channels) {
        std::copy_n(samples, channels, frame);
        for (size_t channel = 0; channel < channels; ++channel) {
            samples[channel] = frame[order[channel]];
        }
    }
}

}  // namespace nuvio::reader
