#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace simcard {

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, CloseFile>;

// Makes the file or empties it; null on failure. Never inherited: a child of the program under test
// must not keep it open.
FilePtr create_file(const std::string& path);

// A file that grows through a fixed buffer, both made at construction. Not thread safe. What can't
// be written is said on ALSA's error channel once; nothing more is written then.
class RecordingFile {
  public:
    RecordingFile(std::string path, std::size_t buffer_bytes);

    void write(const void* data, std::size_t size);
    void flush();
    // For the last time; not to be written afterwards.
    void close();
    bool has_failed() const { return m_failed; }

  private:
    void fail();

    std::string m_path;
    std::vector<char> m_buffer;  // outlives m_file
    FilePtr m_file;
    bool m_failed = false;
};

}  // namespace simcard
