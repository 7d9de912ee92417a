// An audio file as TagLib opens it, by what is in it.
#pragma once

#include <fileref.h>

#include <cstddef>

#include "common/unique_fd.h"

namespace nuvio::reader {

// TagLib's way to bytes: it reads and goes to places, and asks for nothing else.
class TaggedBytes : public TagLib::IOStream {
  public:
    // A negative length: they can't be read.
    explicit TaggedBytes(long length) : m_length(length) {}

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
    // How many there were.
    virtual size_t read_at(long place, char* to, size_t count) = 0;

    const long m_length;
    long m_place = 0;
};

class FileBytes : public TaggedBytes {
  public:
    // Borrows the descriptor of a regular file.
    explicit FileBytes(const UniqueFd& file);

  private:
    size_t read_at(long place, char* to, size_t count) override;

    const int m_file;
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
