// The cover of one track, found while it is opened or fetched beside its decoding.
//
// A picture inside a file of this machine becomes a file of its own (cover.h), and so does one that
// only the session's token opens; others are fetched by whoever shows them.
//
// One thread at a time; no call waits for a server.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "local/track/content.h"
#include "local/track/cover.h"
#include "local/track/track_texts.h"

namespace local_core {

class TrackCover {
  public:
    // Completes the track's texts, or begins to fetch; blocks on the disk. Why the picture inside
    // its file could not be read, possibly empty.
    std::string find(const Track& track, TrackTexts* texts);

    // On its way, for at most 20 s.
    bool is_fetching() const { return m_source != nullptr; }
    // Its URL, once, when it has come.
    std::optional<std::string> take_fetched();

    // It is shown no longer.
    void reset();

  private:
    std::shared_ptr<const KeptCover> m_kept;
    std::unique_ptr<HttpSource> m_source;
    std::chrono::steady_clock::time_point m_until;
};

}  // namespace local_core
