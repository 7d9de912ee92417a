// An audio file as TagLib opens it, by what is in it.
#pragma once

#include <fileref.h>
#include <tfilestream.h>

#include "common/unique_fd.h"

namespace nuvio {

class OpenMusic {
  public:
    // TagLib's stream closes the descriptor.
    explicit OpenMusic(UniqueFd fd) : m_stream(fd.release(), true), m_file(&m_stream) {}
    // Null: it can't read this.
    TagLib::File* file() const { return m_file.isNull() ? nullptr : m_file.file(); }

  private:
    TagLib::FileStream m_stream;
    const TagLib::FileRef m_file;
};

}  // namespace nuvio
