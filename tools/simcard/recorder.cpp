#include "tools/simcard/recorder.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>

namespace simcard {

namespace {

constexpr std::size_t file_buffer_bytes = 1 << 18;

std::string numbered_path(const std::string& directory, unsigned number) {
    char name[16];
    std::snprintf(name, sizeof(name), "%03u", number);
    return directory + "/recordings/" + name;
}

/* Never inherited: a child of the program under test must not keep the recording open. */
std::FILE* create_file(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return nullptr;
    std::FILE* file = fdopen(fd, "w");
    if (file == nullptr)
        ::close(fd);
    return file;
}

}  // namespace

Recorder::Recorder(const std::string& directory, unsigned number, const Format& format,
                   std::size_t ring_frames)
    : path_(numbered_path(directory, number)),
      format_(format),
      ring_(ring_frames * format.frame_bytes),
      file_buffer_(file_buffer_bytes),
      file_(create_file(path_ + ".raw")) {
    if (file_ != nullptr)
        std::setvbuf(file_.get(), file_buffer_.data(), _IOFBF, file_buffer_.size());
    else
        fail();
    write_description({}, false);
}

Recorder::~Recorder() = default;

void Recorder::queue(const void* frames, std::size_t count) {
    const std::size_t bytes = count * format_.frame_bytes;
    const auto* source = static_cast<const unsigned char*>(frames);
    const std::size_t begin = (read_ + queued_) % ring_.size();
    const std::size_t first = std::min(bytes, ring_.size() - begin);
    std::memcpy(&ring_[begin], source, first);
    std::memcpy(ring_.data(), source + first, bytes - first);
    queued_ += bytes;
}

void Recorder::play(std::size_t count) {
    std::size_t bytes = count * format_.frame_bytes;
    while (bytes > 0) {
        const std::size_t chunk = std::min(bytes, ring_.size() - read_);
        if (!failed_ && std::fwrite(&ring_[read_], 1, chunk, file_.get()) != chunk)
            fail();
        read_ = (read_ + chunk) % ring_.size();
        queued_ -= chunk;
        bytes -= chunk;
    }
}

void Recorder::discard() {
    read_ = 0;
    queued_ = 0;
}

void Recorder::flush(const Totals& totals) {
    if (!failed_ && std::fflush(file_.get()) != 0)
        fail();
    write_description(totals, false);
}

void Recorder::close(const Totals& totals) {
    if (!failed_ && std::fflush(file_.get()) != 0)
        fail();
    file_.reset();
    write_description(totals, true);
}

/* Readers see the old text or the new one, never half of it. */
void Recorder::write_description(const Totals& totals, bool closed) {
    const std::string partial = path_ + ".part";
    const std::unique_ptr<std::FILE, CloseFile> text(create_file(partial));
    if (text == nullptr)
        return;
    std::fprintf(text.get(),
                 "format=%s\nrate=%u\nchannels=%u\nframes=%" PRIu64 "\nframes_dropped=%" PRIu64
                 "\ndrops=%" PRIu64 "\nunderruns=%" PRIu64 "\nclosed=%d\nincomplete=%d\n",
                 snd_pcm_format_name(format_.format), format_.rate, format_.channels, totals.played,
                 totals.dropped, totals.drops, totals.underruns, closed ? 1 : 0, failed_ ? 1 : 0);
    if (std::fflush(text.get()) == 0)
        std::rename(partial.c_str(), (path_ + ".txt").c_str());
}

void Recorder::fail() {
    failed_ = true;
    SNDERR("simulated card: can't write recording %s.raw", path_.c_str());
}

}  // namespace simcard
