#include "local/track/track_input.h"

#include <fcntl.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "local/base/files.h"
#include "local/network/remote_sound.h"

namespace local_core {

namespace {

class FileInput : public ForeignInput {
  public:
    explicit FileInput(nuvio::UniqueFd file) : m_file(std::move(file)) {}

    size_t read(void* to, size_t size) override {
        const ssize_t got = pread(m_file.get(), to, size, static_cast<off_t>(m_position));
        m_position += got > 0 ? static_cast<uint64_t>(got) : 0;
        return got > 0 ? static_cast<size_t>(got) : 0;
    }
    bool seek(uint64_t position) override {
        m_position = position;
        return true;
    }
    uint64_t position() const override { return m_position; }
    std::optional<uint64_t> length() const override {
        struct stat status {};
        return fstat(m_file.get(), &status) == 0
                   ? std::optional(static_cast<uint64_t>(status.st_size))
                   : std::nullopt;
    }

  private:
    nuvio::UniqueFd m_file;
    uint64_t m_position = 0;
};

class RemoteInput : public ForeignInput {
  public:
    explicit RemoteInput(HttpSource& source) : m_source(source) {}

    size_t read(void* to, size_t size) override { return m_source.read(to, size); }
    bool seek(uint64_t position) override { return m_source.seek(position); }
    uint64_t position() const override { return m_source.position(); }
    std::optional<uint64_t> length() const override { return m_source.length(); }

  private:
    HttpSource& m_source;
};

}  // namespace

TrackInput::TrackInput() = default;
TrackInput::~TrackInput() = default;

void TrackInput::FileCloser::operator()(sf_private_tag* file) const {
    sf_close(file);
}

SNDFILE* TrackInput::file() const {
    return m_remote ? m_remote->file() : m_local.get();
}

bool TrackInput::is_endless() const {
    return m_remote && m_remote->is_endless();
}

bool TrackInput::rejoin(SF_INFO* info) {
    if (!m_remote || !m_source) {
        return false;
    }
    const auto content = m_source->open();
    if (!content || !content->is_radio) {
        return false;
    }
    m_remote.reset();
    m_remote = RemoteSound::open(*m_source, info);
    return m_remote != nullptr;
}

std::unique_ptr<TrackInput> TrackInput::open(const Track& track, Interruption& interruption,
                                             SF_INFO* info, OpenFailure* failure) {
    std::unique_ptr<TrackInput> input(new TrackInput());
    const bool is_open = track.remote ? input->open_remote(track, interruption, info, failure)
                                      : input->open_local(track, info, failure);
    return is_open ? std::move(input) : nullptr;
}

bool TrackInput::open_local(const Track& track, SF_INFO* info, OpenFailure* failure) {
    nuvio::UniqueFd descriptor = open_regular_file(track.location, &failure->reason);
    if (!descriptor) {
        return false;
    }
    // libsndfile closes its descriptor, also when it refuses the file.
    m_local.reset(sf_open_fd(fcntl(descriptor.get(), F_DUPFD_CLOEXEC, 0), SFM_READ, info, SF_TRUE));
    if (m_local) {
        return true;
    }
    failure->reason = sf_strerror(nullptr);
    m_bytes = std::make_unique<FileInput>(std::move(descriptor));
    return open_foreign(failure);
}

bool TrackInput::open_remote(const Track& track, Interruption& interruption, SF_INFO* info,
                             OpenFailure* failure) {
    m_source.emplace(track.request());
    m_watch.emplace(interruption, *m_source);
    m_remote = RemoteSound::open(*m_source, info);
    bool is_open = m_remote != nullptr;
    if (!is_open && m_source->failure() == HttpFailure::none) {
        failure->reason = sf_strerror(nullptr);
        m_bytes = std::make_unique<RemoteInput>(*m_source);
        is_open = m_source->seek(0) && open_foreign(failure);
    }
    // What failed or was cancelled on the way counts, also where a parser was content with less.
    const auto content = m_source->open();
    if (!content) {
        *failure = {m_source->error(), m_source->failure()};
        return false;
    }
    m_station = content->station;
    return is_open;
}

bool TrackInput::open_foreign(OpenFailure* failure) {
    std::string error;
    m_foreign = open_foreign_sound(*m_bytes, &error);
    if (!m_foreign) {
        failure->reason += "; " + error;
    }
    return m_foreign != nullptr;
}

}  // namespace local_core
