// The core's own log lines, handed to the device's log delegate.
//
// Any thread. Without a callback lines go nowhere. Nothing is allocated.
#pragma once

#include <atomic>
#include <cstdint>

#include "sdk/nuvio_connect.h"

namespace local_core {

enum class LogLevel : uint32_t { trace, debug, info, warning, error };

// Categories: who speaks.
inline constexpr char kCloudClient[] = "CloudClient";                // sessions and control
inline constexpr char kContentFetcher[] = "ContentFetcher";          // files, folders, playlists
inline constexpr char kAudioDecoder[] = "AudioDecoder";              // decoding
inline constexpr char kAudioStreamManager[] = "AudioStreamManager";  // streams and the renderer

class Logger {
  public:
    // A null callback removes the delegate. A line being written on another thread may still reach
    // the old one.
    void set_delegate(const nuv_log_delegate& delegate) { m_callback = delegate.callback; }

    // printf-style; a message longer than 1023 bytes is cut, control characters become blanks.
    [[gnu::format(printf, 4, 5)]] void write(LogLevel level, const char* category,
                                             const char* format, ...) const;

  private:
    std::atomic<decltype(nuv_log_delegate::callback)> m_callback{nullptr};
};

}  // namespace local_core
