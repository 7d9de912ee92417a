// A container of FFmpeg's over an input, and what it says.
//
// One thread; reading blocks on the input.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "reader/ffmpeg/handles.h"
#include "reader/inside/input.h"

namespace nuvio::reader::libav {

// Whatever the bytes say, nothing opens a further file or URL, and no other decoder.
inline constexpr char kDecoders[] =
    "aac,alac,wavpack,flac,dsd_lsbf,dsd_msbf,dsd_lsbf_planar,dsd_msbf_planar";

// Negative where it failed. `input`, and *io behind the container, have to last as long as it.
int open_container(Input& input, AVDictionary** options, Io* io, Container* container);

// How many frames an encoder says that its delay and padding leave; none when it does not.
std::optional<int64_t> frames_told(const AVFormatContext& container);

// At most a kilobyte; empty where there is none.
std::string tag(const AVFormatContext& container, const AVStream& stream, const char* name);

std::string text_of(int error);

}  // namespace nuvio::reader::libav
