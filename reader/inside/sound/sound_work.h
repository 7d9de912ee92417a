// The jobs of sound: one open sound, read into the blocks that its parent names.
#pragma once

#include <memory>

#include "reader/inside/serve.h"
#include "reader/inside/sound/sound_section.h"

namespace nuvio::reader {

class SoundWork : public SoundJobs {
  public:
    void open(const Request& request, UniqueFd file, char* shared, Parent& parent,
              SoundAnswer* answer) override;
    void read(const Request& request, Parent& parent, ReadAnswer* answer) override;
    void seek(const Request& request, SeekAnswer* answer) override;

  private:
    char* m_shared = nullptr;
    std::unique_ptr<RemoteInput> m_remote;
    std::unique_ptr<FileInput> m_file;
    std::unique_ptr<SoundSection> m_sound;
};

}  // namespace nuvio::reader
