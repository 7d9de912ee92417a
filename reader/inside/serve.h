// The reader's way through its jobs: shut in, one request after the other until the socket's end.
#pragma once

#include <cstddef>

#include "common/unique_fd.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// Whoever asked for the job that is at work. Where it has gone the process ends.
class Parent {
  public:
    // Says something else than the job's answer.
    void tell(Answer message);
    // Asks for bytes.
    Request ask(const Answer& question);

  private:
    friend int serve(int argc, char** argv, const struct Jobs& jobs);
    uint32_t m_number = 0;
};

// One sound: opened once, then read and positioned as often as is asked.
class SoundJobs {
  public:
    virtual ~SoundJobs() = default;
    // `file`: none of a remote sound. `shared`: kSoundBytes, for as long as the process lives.
    virtual void open(const Request& request, UniqueFd file, char* shared, Parent& parent,
                      SoundAnswer* answer) = 0;
    virtual void read(const Request& request, Parent& parent, ReadAnswer* answer) = 0;
    virtual void seek(const Request& request, SeekAnswer* answer) = 0;
};

// What answers, by job; null where this program is not asked for it. Each is called after the walls
// are up; std::bad_alloc is answered as Status::too_big.
struct Jobs {
    void (*tags)(const UniqueFd& file, TagsAnswer* answer) = nullptr;
    // `picture`: kMaxPictureBytes of shared memory.
    void (*picture)(const UniqueFd& file, char* picture, PictureAnswer* answer) = nullptr;
    void (*scaled_picture)(const UniqueFd& file, uint32_t edge, char* picture,
                           PictureAnswer* answer) = nullptr;
    // `shared`: kPlaylistMemoryBytes.
    void (*playlist)(const Request& request, char* shared, PlaylistAnswer* answer) = nullptr;
    // `file`: none of a remote one. `shared`: kSheetMemoryBytes.
    void (*sheet)(const Request& request, UniqueFd file, char* shared, Parent& parent,
                  SheetAnswer* answer) = nullptr;
    SoundJobs* sound = nullptr;
    // Before the walls, where the arguments ask for it.
    void (*load_module)() = nullptr;
};

// The program: its exit status, 0 when the socket has ended, another one where this machine does
// not let it work. What it can't do it says on standard error, until the walls are up. Arguments:
//   --sound       it reads one sound, and ends with the thread that started it
//   --module      the same, by the module
//   --unfiltered  where the kernel has no filter of system calls
int serve(int argc, char** argv, const Jobs& jobs);

}  // namespace nuvio::reader
