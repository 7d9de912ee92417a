// Sound that libsndfile can't read, decoded by another library, most by that of a module.
//
// A decoder is used by one thread at a time; every call may block on its input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "reader/inside/input.h"

namespace nuvio::reader {

struct ForeignInfo {
    uint32_t sample_rate = 0;
    uint32_t channels = 0;
    bool is_deep = false;            // 24 bits sign-extended in 4 bytes, else 16 bits
    std::optional<uint64_t> frames;  // none: unknown or endless
    bool is_guess = false;           // of `frames`: there may be fewer, or more
    bool seekable = false;
    std::string title;
    std::string artist;
    std::string album;
};

class ForeignSound {
  public:
    virtual ~ForeignSound() = default;
    virtual const ForeignInfo& info() const = 0;
    // Decodes up to `frames` interleaved frames; 0 at the end or at a place that can't be decoded.
    virtual size_t read(void* to, size_t frames) = 0;
    // Goes to a frame, exactly; false when it can't.
    virtual bool seek(uint64_t frame) = 0;
    struct Texts {
        std::string title, artist;
    };
    // What is played from the last read on, where the sound itself says something new; once each.
    virtual std::optional<Texts> take_new_texts() = 0;
    // Why the last read came to no more; empty at the end.
    virtual std::string last_error() const = 0;
};

// Loads the module, if it is there. Before the walls: nothing is opened behind them.
void load_foreign_sound();
// The process was told to load it.
bool is_foreign_reader();

// Null, with *error set, when the module is not there or can't read it. `input`, which is at its
// beginning, must outlive the result.
std::unique_ptr<ForeignSound> open_foreign_sound(Input& input, std::string* error);

// What the module exports, under this name. Both are of one version: they come from one build.
using OpenForeignSound = ForeignSound*(Input& input, std::string* error);
inline constexpr char kForeignSoundFunction[] = "nuvio_open_foreign_sound";
inline constexpr char kForeignSoundModule[] = "libnuvio_connect_ffmpeg.so.1";

}  // namespace nuvio::reader
