// One remote file or endless stream, read over HTTP or HTTPS: seekable bytes for a decoder's
// thread.
//
// A thread of its own does everything that waits for the network: names, connections, TLS, bytes.
// It reads ahead up to a bound and rests until three quarters of that are used up, so that the
// network is busy in bursts. What it has read stays readable while the server is away; it connects
// again from the byte where it broke, with growing pauses, until there was no byte for
// `give_up_after`. Fewer bytes than anything that sounds has count for so little as they are.
//
// Constructed, read and destroyed by one thread at a time. Never for the loop's thread: open() and
// read() block, until cancel() at the latest.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "local/network/http_response.h"
#include "local/network/http_transfer.h"
#include "local/network/icy.h"
#include "local/network/remote_source.h"

namespace local_core {

struct HttpRequest {
    std::string url;  // http or https
    // Sent as a bearer token to `token_origin` (any URL of that scheme, host and port) and to
    // nobody else, wherever redirects lead. Empty: none.
    std::string token;
    std::string token_origin;
    // A file of authorities to trust in the place of the system's; empty: the system's.
    std::string authorities;
    size_t read_ahead_bytes = size_t{4} * 1024 * 1024;
    std::chrono::milliseconds give_up_after = std::chrono::seconds(60);
    // Where a try has failed and no answer came ever; none: as long.
    std::optional<std::chrono::milliseconds> give_up_unanswered_after{};
    // A connection without a byte for so long is made anew.
    std::chrono::seconds stalled_after = std::chrono::seconds(10);
};

struct HttpContent {
    std::string url;                 // after redirects: what relative URLs inside refer to
    std::string content_type;        // as sent; possibly empty
    std::optional<uint64_t> length;  // bytes; none while it is unknown
    bool is_radio = false;           // endless: does not seek, is joined anew when it breaks
    std::string station;             // its name, as sent; possibly empty
};

class HttpSource final : public RemoteSource {
  public:
    // Starts to connect; returns at once.
    explicit HttpSource(HttpRequest request);
    ~HttpSource() override;

    // Waits until the content is known; none when it failed.
    std::optional<HttpContent> open();

  private:
    using Clock = std::chrono::steady_clock;

    void on_moved() override;
    void on_failure() override { wake_thread(); }
    void wake_thread();

    // Under the lock.
    bool is_out_of_reach() const;

    // The network's thread.
    void run();
    bool step();
    void reposition();
    void start();
    void finish(const HttpTransfer::Outcome& outcome);
    void follow_redirect();
    void try_again(const std::string& reason);
    bool is_reading_on() const;
    Clock::time_point given_up_at() const;
    Clock::time_point next_event() const;
    std::vector<std::string> request_lines() const;
    bool take_line(std::string_view line);
    void accept();
    HttpTransfer::Handlers::Answer take_body(std::string_view bytes);
    void append_audio(std::string_view bytes);
    void note_progress(size_t bytes);

    const HttpRequest m_request;

    std::unique_ptr<HttpTransfer> m_transfer;  // null: there is none to be had
    // Under the lock from here.
    std::optional<HttpContent> m_content;
    bool m_is_paused = false;  // the transfer, for want of room
    bool m_has_ranges = true;  // until the server shows otherwise
    // The network's thread alone from here.
    std::string m_url;  // of the present request
    int m_redirects = 0;
    uint64_t m_asked_from = 0;
    uint64_t m_skip = 0;  // bytes of the body that are there already
    HttpResponse m_response;
    std::optional<HttpResponse> m_first;  // the one that the content was begun with
    HttpVerdict m_verdict;
    std::string m_reason;  // of the last failure, passing or not
    IcyFilter m_icy;
    Clock::duration m_pause{};  // before the next try
    Clock::time_point m_retry_at;
    // The last new byte, or since when one is wanted; of bytes that drip, as far as they last.
    Clock::time_point m_progress_at;

    std::thread m_thread;  // last: it uses all of the above
};

}  // namespace local_core
