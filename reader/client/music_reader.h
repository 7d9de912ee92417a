// What audio files say about themselves, and the pictures in them, read by a process that can do
// nothing else (inside/sandbox.h): the files come from anyone, and so may what they do to it.
//
// Threads  one at a time, but for interrupt(). Each call waits for the disk, see Questions.
// Errors   Failure: none of them reaches beyond its file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "reader/client/questions.h"
#include "reader/client/remote_bytes.h"
#include "reader/sheet.h"

namespace nuvio::reader {

// Texts of at most 300 bytes of UTF-8.
struct Tags {
    std::string title, artist, album, album_artist, genre, composer;  // empty: not said
    uint32_t disc = 0, number = 0, year = 0;                          // 0: not said
    int64_t duration_ms = 0;
    uint32_t rate_hz = 0, channels = 0;  // 0: not known
    uint32_t bits = 0;                   // 0: lossy, or not known
};

class MusicReader {
  public:
    // Nothing is known of a file that is no music: then everything is empty.
    Outcome<Tags> tags(const UniqueFd& file);
    // The picture inside an audio file (FLAC, MP3, AAC, Ogg, M4A, WAV, AIFF): its first front
    // cover, else its first one; none: none of a known kind, of at most kMaxPictureBytes.
    Outcome<Picture> picture(const UniqueFd& file);

    // The tracks of a CUE sheet, or of the one inside a FLAC file, in their order; none: there is
    // none inside. Texts are one line of UTF-8 of at most 300 bytes, but for a file's name. A sheet
    // with a fault is a failure of the file that says it.
    Outcome<std::vector<SheetTrack>> sheet(const UniqueFd& file);
    Outcome<std::vector<SheetTrack>> sheet_inside(const UniqueFd& file);
    // The same of a remote file, of which little more than its head is asked for.
    Outcome<std::vector<SheetTrack>> sheet_inside(RemoteBytes& bytes);

    // See Questions.
    void rest() { m_questions.rest(); }
    void interrupt() { m_questions.interrupt(); }

  private:
    Outcome<std::vector<SheetTrack>> ask_for_sheet(const Request& request, const UniqueFd& file,
                                                   RemoteBytes* bytes);

    Questions m_questions{"nuvio-connect-reader"};
};

}  // namespace nuvio::reader
