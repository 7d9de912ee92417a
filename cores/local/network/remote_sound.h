// A remote audio file, or an endless stream, as libsndfile reads it. A radio that is joined anew,
// or begins another Ogg stream, ends for libsndfile, which knows of neither: it is opened once more
// then.
#pragma once

#include <sndfile.h>

#include <cstdint>
#include <memory>
#include <optional>

#include "common/released_by.h"
#include "local/network/http_source.h"
#include "local/network/ogg_end.h"

namespace local_core {

// What libsndfile is told of: the source from a first byte on.
class RemoteSound {
  public:
    // Null when `source` is no audio file that libsndfile knows, or when it failed;
    // sf_strerror(nullptr) or source.error() says why. `source` must outlive the result, which is
    // read by one thread at a time and blocks as HttpSource::read() does. A file that ends early
    // because its source failed looks like its end to libsndfile: ask source.failure() then. A
    // radio is opened where its source is read, which need not be the beginning.
    static std::unique_ptr<RemoteSound> open(HttpSource& source, SF_INFO* info);

    SNDFILE* file() const { return m_file.get(); }
    // A radio, or of a length that nobody knows yet: `frames` of SF_INFO is none, and it does not
    // seek.
    bool is_endless() const { return m_is_endless; }

  private:
    explicit RemoteSound(HttpSource& source) : m_source(source) {}

    static RemoteSound& self(void* data) { return *static_cast<RemoteSound*>(data); }
    static sf_count_t length(void* data);
    static sf_count_t seek(sf_count_t offset, int whence, void* data);
    static sf_count_t read(void* to, sf_count_t size, void* data);
    static sf_count_t position(void* data);

    HttpSource& m_source;
    uint64_t m_first = 0;         // byte of the source that is libsndfile's byte 0
    std::optional<OggEnd> m_ogg;  // of an Ogg radio
    bool m_is_over = false;       // another Ogg stream begins where the source is
    bool m_is_broken = false;     // its source has failed, and nothing more of it comes
    bool m_is_endless = false;
    std::unique_ptr<SNDFILE, nuvio::ReleasedBy<sf_close>> m_file;
};

}  // namespace local_core
