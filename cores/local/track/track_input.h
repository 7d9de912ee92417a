// Where a track is read: libsndfile has it from a file of this machine or a remote source, the
// module for what libsndfile can't read (foreign_sound.h) from the bytes of either.
//
// Any one thread at a time. Opening, and reading from what it holds, may block on the file, or on a
// server until the interruption.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "local/network/http_source.h"
#include "local/network/interruption.h"
#include "local/track/content.h"
#include "local/track/foreign_sound.h"

// libsndfile's; its header stays inside the implementation.
struct sf_private_tag;
struct SF_INFO;

namespace local_core {

class RemoteSound;

// Why a track can't be opened.
struct OpenFailure {
    std::string reason;
    HttpFailure network = HttpFailure::none;  // none: it is the file itself
};

class TrackInput {
  public:
    // Null with *failure set. `info` is libsndfile's, where it is not foreign. The interruption
    // must outlive the input.
    static std::unique_ptr<TrackInput> open(const Track& track, Interruption& interruption,
                                            SF_INFO* info, OpenFailure* failure);
    ~TrackInput();
    TrackInput(const TrackInput&) = delete;
    TrackInput& operator=(const TrackInput&) = delete;

    // One of the two is null.
    sf_private_tag* file() const;
    ForeignSound* foreign() const { return m_foreign.get(); }
    // Null for a file of this machine.
    HttpSource* source() { return m_source ? &*m_source : nullptr; }
    // A radio's name, as sent; possibly empty.
    const std::string& station() const { return m_station; }
    // Of libsndfile's: of no length that is known.
    bool is_endless() const;
    // After the end of what libsndfile had of a radio: opens what comes next. False when there is
    // nothing.
    bool rejoin(SF_INFO* info);

  private:
    struct FileCloser {
        void operator()(sf_private_tag* file) const;
    };

    TrackInput();
    bool open_local(const Track& track, SF_INFO* info, OpenFailure* failure);
    bool open_remote(const Track& track, Interruption& interruption, SF_INFO* info,
                     OpenFailure* failure);
    bool open_foreign(OpenFailure* failure);

    std::unique_ptr<sf_private_tag, FileCloser> m_local;
    std::optional<HttpSource> m_source;
    std::string m_station;
    std::optional<Interruption::Watch> m_watch;
    std::unique_ptr<RemoteSound> m_remote;
    std::unique_ptr<ForeignInput> m_bytes;
    std::unique_ptr<ForeignSound> m_foreign;
};

}  // namespace local_core
