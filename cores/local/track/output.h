// What the output takes, and what has to be done to a track for it.
#pragma once

#include <string>

#include "reader/protocol.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

struct Output {
    nuv_audio_quality highest;
    // What tracks are converted to; without rates those above `highest` are refused.
    nuvio::reader::OutputFormats formats;
    bool verifies_all = false;  // tracks above CD quality too, which costs the more the more it is
};

// The renderer's, of which the environment says more (read anew at each call):
//   NUVIO_OUTPUT_RATES  the rates that it has, in Hz with commas between; where none of them is
//                       within `highest`, it has the usual ones that are
//   NUVIO_LOUDNESS      "track" or "album": by whose tags tracks are made equally loud; not where
//                       nothing is converted
//   NUVIO_CONVERT       0: nothing is converted
//   NUVIO_VERIFY        "all": tracks above CD quality are verified too
Output output_of(nuv_audio_quality highest);

bool is_above(const nuv_audio_format& format, nuv_audio_quality quality);
// Of what the output's formats promise.
bool is_among(const nuv_audio_format& format, const nuvio::reader::OutputFormats& formats);
// What is heard are not the samples of the file: it was converted, not just given to both speakers.
bool is_converted(const nuv_audio_format& inside, const nuv_audio_format& heard);

// "96 kHz/24 bit"; "48 kHz/16 bit, 6 channels" where there are more than two.
std::string format_text(const nuv_audio_format& format);
// ", 7.3 dB quieter"; empty at 0.
std::string level_text(float gain_db);

}  // namespace local_core
