// A stream in segments (HLS), as radios send it: one run of bytes for a decoder's thread, which is
// a radio to it.
//
// A thread of its own fetches the segments in their order, each as HttpSource does with what has to
// go before it, and the playlist again when it is time for more of them. A live stream begins three
// segments before its end. It reads ahead up to a bound, and rests until three quarters of that are
// used up. A segment that can't be had is left out with a note, of a live stream after it was asked
// for once more; the stream is given up after some in a row, and when there was nothing new for
// `give_up_after`. Where segments do not go on from those before them, begins another run. Of the
// versions of a stream one is chosen at the beginning. Titles are those of the segments.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "local/network/http_source.h"
#include "local/network/interruption.h"
#include "local/network/remote_source.h"
#include "reader/client/playlist_reader.h"

namespace local_core {

class HlsSource final : public RemoteSource {
  public:
    // The whole text, when the source's bytes are a playlist of a stream. Else none, and the source
    // is at its beginning again. Blocks as read() does.
    static std::optional<std::string> playlist_in(HttpSource& source);

    // `request`: what led to the playlist; `url`: where that lies, after redirects. Returns at
    // once.
    HlsSource(HttpRequest request, std::string url, std::string playlist);
    ~HlsSource() override;

  private:
    using Clock = std::chrono::steady_clock;
    using MediaPart = nuvio::reader::MediaPart;
    struct File;

    void on_moved() override;
    void on_failure() override;

    // The thread's: false when it is over.
    void run();
    bool begin();
    HttpFailure take(const std::string& text);
    bool take_variant();
    bool load(bool is_first);
    HttpFailure fetch_playlist(std::string* text);
    uint64_t place_to_begin() const;
    bool fetch_segments();
    HttpFailure fetch_segment(const nuvio::reader::MediaSegment& segment);
    HttpFailure fetch(const MediaPart& part);
    HttpFailure failure_of(const HttpSource& source, const std::string& url, bool has_begun) const;
    HttpSource& file_at(const std::string& url);
    HttpFailure fail_part(HttpFailure failure, std::string reason);
    bool leave_out(HttpFailure failure);
    bool is_given_up(const std::string& reason);
    bool append(std::string_view bytes);
    Clock::duration target() const;
    bool wait_for_reload();
    void finish();
    HttpRequest request_for(const std::string& url) const;

    const HttpRequest m_request;
    Interruption m_interruption;
    std::condition_variable m_wake;  // what the thread waits for, with the base's lock

    // The thread's alone from here.
    nuvio::reader::PlaylistReader m_reader;
    nuvio::reader::MediaPlaylist m_playlist;
    std::string m_own_url;  // of the playlist of the segments, as it was named
    std::string m_url;      // where it is asked for
    std::string m_base;     // what is relative in it refers to
    std::string m_text;
    bool m_is_changed = true;  // by the last load
    Clock::time_point m_loaded_at;
    uint64_t m_next = 0;              // the number of the segment to be fetched next
    std::optional<MediaPart> m_init;  // what was sent before the segments last
    size_t m_sent_with_init = 0;
    std::unique_ptr<File> m_file;           // read last
    std::optional<uint64_t> m_asked_again;  // the number of a segment that was missing
    size_t m_left_out = 0;                  // in a row
    std::string m_reason;                   // of the last failure; empty after a load
    Clock::time_point m_progress_at;        // the last byte, or since when one is wanted

    std::thread m_thread;  // last: it uses all of the above
};

}  // namespace local_core
