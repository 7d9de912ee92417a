// A stream in segments (HLS), as radios send it: one run of bytes for a decoder's thread, which is
// a radio to it.
//
// A thread of its own fetches the segments in their order, each as HttpSource does with what has to
// go before it, and the playlist again when it is time for more of them. A live stream begins three
// segments before its end. It reads ahead up to a bound, and rests until three quarters of that are
// used up. A segment that can't be had is left out with a note, of a live stream after it was asked
// for once more; the stream is given up after some in a row, and when there was nothing new for
// `give_up_after`. Where segments do not go on from those before them, begins another run. One that
// has an end can be gone to by times. Titles are those of the segments, which come over one
// connection where their server keeps it.
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
#include <vector>

#include "local/network/hls_playlist.h"
#include "local/network/http_source.h"
#include "local/network/interruption.h"
#include "local/network/remote_source.h"
#include "reader/media_playlist.h"

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

    // Blocks until the playlist is known.
    std::optional<uint64_t> duration_us() override;
    std::optional<Run> go_to_time(uint64_t time_us) override;

  private:
    using Clock = std::chrono::steady_clock;
    using MediaPart = nuvio::reader::MediaPart;

    void on_moved() override;
    void on_failure() override;

    // The thread's: false when it is over.
    void run();
    bool begin();
    bool wait_for_reload();
    bool wait_for_seek();
    uint64_t place_to_begin() const;
    bool fetch_segments();
    bool is_sought() const;
    void take_wanted();
    HttpFailure fetch_segment(const nuvio::reader::MediaSegment& segment);
    HttpFailure fetch(const MediaPart& part);
    HttpFailure read_part(HttpSource& source, const MediaPart& part, const std::string& url);
    HttpFailure failure_of(const HttpSource& source, const std::string& url, bool has_begun) const;
    HttpSource& file_at(const std::string& url);
    HttpFailure fail_part(HttpFailure failure, std::string reason);
    bool leave_out(HttpFailure failure);
    bool is_given_up(const std::string& reason);
    bool append(std::string_view bytes);

    const HttpRequest m_request;
    // Segments come over those of the ones before.
    const std::shared_ptr<HttpTransfer::Connections> m_connections =
        HttpTransfer::keep_connections();
    Interruption m_interruption;
    std::condition_variable m_wake;  // what the thread waits for, with the base's lock

    // Under the lock.
    bool m_has_begun = false;
    std::vector<uint64_t> m_begins_us;  // of the segments, and the end; none of a live one
    std::optional<size_t> m_wanted;     // the segment that was sought
    HttpSource* m_present = nullptr;    // that the thread reads

    // The thread's alone from here.
    HlsPlaylist m_playlist;
    uint64_t m_next = 0;              // the number of the segment to be fetched next
    std::optional<MediaPart> m_init;  // what was sent before the segments last
    size_t m_sent_with_init = 0;
    std::unique_ptr<HlsFile> m_file;        // read last
    std::optional<uint64_t> m_asked_again;  // the number of a segment that was missing
    size_t m_left_out = 0;                  // in a row
    std::string m_reason;                   // of the last failure of a segment
    Clock::time_point m_progress_at;        // the last byte, or since when one is wanted

    std::thread m_thread;  // last: it uses all of the above
};

}  // namespace local_core
