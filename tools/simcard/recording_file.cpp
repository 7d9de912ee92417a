#include "tools/simcard/recording_file.h"

#include <alsa/asoundlib.h>
#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace simcard {

FilePtr create_file(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return nullptr;
    }
    FilePtr file(fdopen(fd, "w"));
    if (file == nullptr) {
        ::close(fd);
    }
    return file;
}

RecordingFile::RecordingFile(std::string path, std::size_t buffer_bytes)
    : m_path(std::move(path)), m_buffer(buffer_bytes), m_file(create_file(m_path)) {
    if (m_file != nullptr) {
        std::setvbuf(m_file.get(), m_buffer.data(), _IOFBF, m_buffer.size());
    } else {
        fail();
    }
}

void RecordingFile::write(const void* data, std::size_t size) {
    if (!m_failed && std::fwrite(data, 1, size, m_file.get()) != size) {
        fail();
    }
}

void RecordingFile::flush() {
    if (!m_failed && std::fflush(m_file.get()) != 0) {
        fail();
    }
}

void RecordingFile::close() {
    flush();
    m_file.reset();
}

void RecordingFile::fail() {
    m_failed = true;
    SNDERR("simulated card: can't write recording %s", m_path.c_str());
}

}  // namespace simcard
