// What audio files say about themselves, and the pictures in them, read by a process that can do
// nothing else (inside/sandbox.h): the files come from anyone, and so may what they do to it.
//
// Threads  one at a time, but for interrupt(). Each call waits for the disk, at most kPatience.
// Errors   Failure: none of them reaches beyond its file.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "common/unique_fd.h"
#include "reader/client/reader_process.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// Texts of at most 300 bytes of UTF-8.
struct Tags {
    std::string title, artist, album, album_artist;  // empty: not said
    uint32_t disc = 0, number = 0, year = 0;         // 0: not said
    int64_t duration_ms = 0;
    uint32_t rate_hz = 0, channels = 0;  // 0: not known
    uint32_t bits = 0;                   // 0: lossy, or not known
};

struct Failure {
    enum class Kind {
        file,     // this file ends a reader, and will do so again
        disk,     // it did not answer in time, or was told to wait no longer
        machine,  // there is no reader to be had
    };
    Kind kind;
    std::string reason;
};

template <typename Result>
using Outcome = std::variant<Result, Failure>;

class MusicReader {
  public:
    static constexpr std::chrono::seconds kPatience{30};

    // Takes no process yet; it is started when something is asked, and anew after its end.
    MusicReader();
    MusicReader(const MusicReader&) = delete;
    MusicReader& operator=(const MusicReader&) = delete;

    // Nothing is known of a file that is no music: then everything is empty.
    Outcome<Tags> tags(const UniqueFd& file);
    // The picture inside an audio file (FLAC, MP3, AAC, Ogg, M4A, WAV, AIFF): its first front
    // cover, else its first one; empty: none of a known kind, of at most kMaxPictureBytes.
    Outcome<std::string> picture(const UniqueFd& file);

    // Gives the process back until the next question.
    void rest();
    // A question that is under way, and each one from now on, is a failure of the disk. Any thread.
    void interrupt();

  private:
    Outcome<Answer> ask(Job job, const UniqueFd& file, const UniqueFd& memory);
    bool wait();

    const UniqueFd m_interruption;  // an eventfd
    std::unique_ptr<ReaderProcess> m_process;
    uint32_t m_number = 0;
};

}  // namespace nuvio::reader
