// Vorbis and Opus have an order of channels of their own. Pure.
#pragma once

#include <cstddef>
#include <cstdint>

namespace nuvio::reader {

// Of a frame in the order of a WAV file, where they have each channel; null where that is the same,
// or with more channels than have an order. For ever.
const uint8_t* ogg_order_of(uint32_t channels);

// In place, by what ogg_order_of() gave for so many channels.
void put_in_order(int16_t* samples, size_t frames, size_t channels, const uint8_t* order);

}  // namespace nuvio::reader
