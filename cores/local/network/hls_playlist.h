// The playlist of a stream in segments (HLS): fetched, chosen among the versions of the stream,
// taken apart by a reader, and fetched again where it grows.
//
// One thread. What fetches blocks, until the interruption.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "local/network/http_source.h"
#include "local/network/interruption.h"
#include "reader/client/playlist_reader.h"

namespace local_core {

// A file of a stream, while it is read.
struct HlsFile {
    HlsFile(const HttpRequest& request, Interruption& interruption)
        : url(request.url), source(request), watch(interruption, [this] { source.cancel(); }) {}

    const std::string url;
    HttpSource source;
    Interruption::Watch watch;
};

class HlsPlaylist {
  public:
    using Clock = std::chrono::steady_clock;

    // `request`: what led to the playlist; `url`: where that lies, after redirects; `text`: it.
    HlsPlaylist(HttpRequest request, std::string url, std::string text, Interruption& interruption);

    // Once, first. `none`, or why there is nothing to be played; see reason().
    HttpFailure begin();
    // Fetches it again. While segments come it may be away: a failure that does not end the stream
    // is `none`, and has a reason.
    HttpFailure load();

    const nuvio::reader::MediaPlaylist& said() const { return m_said; }
    // Where each segment begins, in microseconds, and the last one ends; none where something may
    // be added, or no length is said.
    std::vector<uint64_t> begins_us() const;
    // What is relative in it refers to.
    const std::string& base() const { return m_base; }
    // Of the last begin() or load(), where it failed, for people.
    const std::string& reason() const { return m_reason; }
    Clock::time_point loaded_at() const { return m_loaded_at; }
    // When it may have grown.
    Clock::time_point reload_at() const;
    // What its longest segment counts for.
    Clock::duration target() const;
    // Of a live stream some patience is left for what comes after.
    HttpRequest request_for(const std::string& url) const;

  private:
    HttpFailure take(const std::string& text);
    HttpFailure take_variant();
    HttpFailure load_text();
    HttpFailure fetch(std::string* text);
    HttpFailure fail(HttpFailure failure, std::string reason);

    const HttpRequest m_request;
    Interruption& m_interruption;
    nuvio::reader::PlaylistReader m_reader;
    nuvio::reader::MediaPlaylist m_said;
    std::string m_own_url;  // of the playlist of the segments, as it was named
    std::string m_url;      // where it is asked for
    std::string m_base;
    std::string m_text;
    bool m_is_changed = true;  // by the last load
    Clock::time_point m_loaded_at = Clock::now();
    std::string m_reason;
};

}  // namespace local_core
