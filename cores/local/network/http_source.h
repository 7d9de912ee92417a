// One remote file or endless stream, read over HTTP or HTTPS: seekable bytes for a decoder's
// thread.
//
// A thread of its own does everything that waits for the network: names, connections, TLS, bytes.
// It reads ahead up to a bound and rests until three quarters of that are used up, so that the
// network is busy in bursts. What it has read stays readable while the server is away; it connects
// again from the byte where it broke, with growing pauses, until there was no byte for
// `give_up_after`.
//
// Constructed, read and destroyed by one thread at a time; cancel() is for any thread at any time.
// Never for the loop's thread: open() and read() block, until cancel() at the latest.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

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
    // A connection without a byte for so long is made anew.
    std::chrono::seconds stalled_after = std::chrono::seconds(10);
};

// Why there are no more bytes.
enum class HttpFailure {
    none,
    cancelled,
    unusable,     // no URL or token that could be sent, too many redirects
    refused,      // the token is missing or no longer good (401, 403)
    missing,      // other answers that stay what they are
    changed,      // the file is another than the one that was begun
    unreachable,  // no byte for too long
};

struct HttpContent {
    std::string url;                 // after redirects: what relative URLs inside refer to
    std::string content_type;        // as sent; possibly empty
    std::optional<uint64_t> length;  // bytes; none while it is unknown
    bool is_radio = false;           // endless: does not seek, is joined anew when it breaks
    std::string station;             // its name, as sent; possibly empty
};

class HttpSource {
  public:
    // Starts to connect; returns at once.
    explicit HttpSource(HttpRequest request);
    // Does not wait for the network.
    ~HttpSource();
    HttpSource(const HttpSource&) = delete;
    HttpSource& operator=(const HttpSource&) = delete;

    // Waits until the content is known; none when it failed.
    std::optional<HttpContent> open();

    // Reads `size` bytes, fewer only at the end or where it failed.
    size_t read(void* to, size_t size);

    // The next read begins there; nothing is transferred until then. A server without ranges is
    // read on to that place, for one further back from the beginning. False for a radio.
    bool seek(uint64_t position);
    uint64_t position() const;
    // Known at the end at the latest.
    std::optional<uint64_t> length() const;

    // What the radio says it plays at the place that is read, as sent; possibly empty.
    std::string title() const;

    // Ends whatever waits, for good.
    void cancel();

    HttpFailure failure() const;
    // For people; empty without a failure. Never has the token in it.
    std::string error() const;

  private:
    class Transfer;
    std::unique_ptr<Transfer> m_transfer;
};

}  // namespace local_core
