// An audio file as TagLib opens it, by what is in it.
#pragma once

#include <fileref.h>

#include "common/unique_fd.h"

namespace nuvio::reader {

// TagLib's way to the bytes of a descriptor: it reads and goes to places, and asks for nothing
// else.
class FileBytes : public TagLib::IOStream {
  public:
    // Borrows the descriptor of a regular file.
    explicit FileBytes(const UniqueFd& file);

    TagLib::FileName name() const override { return ""; }
    TagLib::ByteVector readBlock(unsigned long length) override;
    void writeBlock(const TagLib::ByteVector&) override {}
    void insert(const TagLib::ByteVector&, unsigned long, unsigned long) override {}
    void removeBlock(unsigned long, unsigned long) override {}
    bool readOnly() const override { return true; }
    bool isOpen() const override { return m_length >= 0; }
    void seek(long offset, Position from) override;
    long tell() const override { return m_place; }
    long length() override { return m_length; }
    void truncate(long) override {}

  private:
    const int m_file;
    const long m_length;  // negative: it can't be read
    long m_place = 0;
};

class MusicFile {
  public:
    explicit MusicFile(const UniqueFd& file) : m_bytes(file), m_file(&m_bytes) {}
    // Null: TagLib can't read this.
    TagLib::File* file() const { return m_file.isNull() ? nullptr : m_file.file(); }

  private:
    FileBytes m_bytes;
    const TagLib::FileRef m_file;
};

}  // namespace nuvio::reader
