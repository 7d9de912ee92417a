#include "controller/web/sockets.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <thread>

#include "common/bearer.h"
#include "controller/base/log.h"
#include "controller/web/allocation_limit.h"
#include "controller/web/guarded_connection.h"
#include "controller/web/silence.h"

namespace nuvio::controller {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kWritePatience{20};
// Pages get no more than this, whatever happens.
constexpr std::chrono::milliseconds kBetweenStates{80};
// A page says nothing of its own: it is pinged, and cut off where it does not answer.
constexpr std::chrono::seconds kBetweenPings{30};
constexpr std::chrono::seconds kSilenceOfPage{75};
constexpr size_t kMaxControlFrame = 125;
constexpr size_t kMaxQueuedBytes = size_t{4} << 20U;
constexpr size_t kMaxMessage = size_t{64} << 10U;
constexpr size_t kMaxAllocation = size_t{256} << 10U;

bool is_text(int bits) {
    return (bits & 0x0f) == MG_WEBSOCKET_OPCODE_TEXT;
}

bool is_control(int bits) {
    return (bits & 0x08) != 0;
}

// Answers a ping. False: the connection is to end.
bool take_control(mg_connection* connection, int bits, const char* data, size_t size) {
    const int kind = bits & 0x0f;
    return kind != MG_WEBSOCKET_OPCODE_CONNECTION_CLOSE && size <= kMaxControlFrame &&
           (kind != MG_WEBSOCKET_OPCODE_PING ||
            mg_websocket_write(connection, MG_WEBSOCKET_OPCODE_PONG, data, size) > 0);
}

bool is_final(int bits) {
    return (bits & 0x80) != 0;
}

// Nothing may be thrown through CivetWeb or out of a thread, and a peer decides how much there is
// to allocate. False: it failed, with a log line.
template <typename Work>
bool attempt(const char* what, const Work& work) {
    try {
        work();
        return true;
    } catch (const std::exception& error) {
        log_line(LogLevel::error, std::string(what) + ": " + error.what());
        return false;
    }
}

}  // namespace

// Writes to one socket.
class Sockets::Writer {
  public:
    Writer(mg_connection* connection, HttpGuard& guard)
        : m_connection(connection), m_guarded(guard, connection) {}

    // False: the peer is gone, or has been cut off.
    bool write(const std::string& message) { return write(MG_WEBSOCKET_OPCODE_TEXT, message); }
    bool ping() { return write(MG_WEBSOCKET_OPCODE_PING, {}); }
    void cut() { m_guarded.cut(); }

  private:
    bool write(int kind, const std::string& message) {
        m_guarded.set_deadline(kWritePatience);
        const int sent = mg_websocket_write(m_connection, kind, message.data(), message.size());
        m_guarded.clear_deadline();
        return sent > 0;
    }

    mg_connection* const m_connection;
    GuardedConnection m_guarded;
};

class Sockets::Page {
  public:
    Page(Sockets& sockets, mg_connection* connection)
        : m_sockets(sockets), m_writer(connection, sockets.m_guard), m_thread([this] { run(); }) {}

    // The connection still stands, but may be cut off.
    ~Page() {
        m_is_ending = true;
        m_writer.cut();
        m_sockets.m_changes.announce();
        m_thread.join();
    }
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;

    void heard() { m_heard_at = Clock::now(); }

  private:
    void run() {
        uint64_t seen = 0;
        while (!m_is_ending && !m_sockets.m_changes.is_closed() &&
               Clock::now() - m_heard_at.load() < kSilenceOfPage) {
            const uint64_t version = m_sockets.m_changes.wait(seen, kBetweenPings);
            if (m_is_ending || !(version == seen ? m_writer.ping() : show(version))) {
                break;
            }
            seen = version;
            std::this_thread::sleep_for(kBetweenStates);
        }
        m_writer.cut();
    }

    bool show(uint64_t version) {
        std::string state;
        return attempt("No state for a page", [&] { state = m_sockets.m_state(version); }) &&
               m_writer.write(state);
    }

    Sockets& m_sockets;
    Writer m_writer;
    std::atomic<bool> m_is_ending = false;
    std::atomic<Clock::time_point> m_heard_at = Clock::now();
    std::thread m_thread;
};

class Sockets::Channel : public ChannelLink {
  public:
    Channel(Sockets& sockets, mg_connection* connection)
        : m_writer(connection, sockets.m_guard), m_thread([this] { run(); }) {}

    // The connection is told to be over, while it still stands.
    void end() {
        close();
        m_thread.join();
    }

    void send(std::string text) override {
        const std::scoped_lock lock(m_mutex);
        m_bytes += text.size();
        if (m_bytes > kMaxQueuedBytes) {
            m_is_ending = true;
        }
        m_messages.push_back(std::move(text));
        m_on_change.notify_one();
    }

    void close() override {
        const std::scoped_lock lock(m_mutex);
        m_is_ending = true;
        m_on_change.notify_one();
    }

    void expect_word() override {
        const std::scoped_lock lock(m_mutex);
        m_silence.expect_word(Clock::now());
        m_on_change.notify_one();
    }

    void set_playing(bool is_playing) override {
        const std::scoped_lock lock(m_mutex);
        m_silence.set_playing(is_playing);
        m_on_change.notify_one();
    }

    // Something has come, be it a pong.
    void heard() {
        const std::scoped_lock lock(m_mutex);
        m_silence.heard(Clock::now());
    }

    // It ended because nothing came.
    bool is_silent() {
        const std::scoped_lock lock(m_mutex);
        return m_is_silent;
    }

    // The handler's own: a message is put together from its frames.
    std::string message;

  private:
    void run() {
        std::unique_lock lock(m_mutex);
        while (!m_is_ending) {
            if (!m_messages.empty()) {
                const std::string text = std::move(m_messages.front());
                m_messages.pop_front();
                m_bytes -= text.size();
                write(lock, [&] { return m_writer.write(text); });
            } else if (Clock::now() < m_silence.due()) {
                m_on_change.wait_until(lock, m_silence.due());
            } else if (m_silence.is_pinged()) {
                m_is_silent = m_is_ending = true;
            } else {
                m_silence.pinged(Clock::now());
                write(lock, [&] { return m_writer.ping(); });
            }
        }
        lock.unlock();
        m_writer.cut();
    }

    template <typename Write>
    void write(std::unique_lock<std::mutex>& lock, Write write_it) {
        lock.unlock();
        const bool is_written = write_it();
        lock.lock();
        m_is_ending = m_is_ending || !is_written;
    }

    Writer m_writer;
    std::mutex m_mutex;
    std::condition_variable m_on_change;
    std::deque<std::string> m_messages;  // under m_mutex, as what follows
    size_t m_bytes = 0;
    bool m_is_ending = false;
    bool m_is_silent = false;
    Silence m_silence;
    std::thread m_thread;
};

Sockets::Sockets(House& house, Changes& changes, HttpGuard& guard,
                 std::function<std::string(uint64_t)> state)
    : m_house(house), m_changes(changes), m_guard(guard), m_state(std::move(state)) {}

Sockets::~Sockets() = default;

void Sockets::put_on(mg_context* context) {
    static const char* names[] = {"nuvio-session.v1"};
    static mg_websocket_subprotocols protocols{1, names};
    mg_set_websocket_handler(context, "**/api/events$", nullptr, on_page_ready, on_page_data,
                             on_page_closed, this);
    mg_set_websocket_handler_with_subprotocols(context, "**/channel$", &protocols, nullptr,
                                               on_channel_ready, on_channel_data, on_channel_closed,
                                               this);
}

bool Sockets::reserve_page(const mg_connection* connection, const std::string& address) {
    return reserve(m_page_places, connection, address);
}

bool Sockets::reserve_channel(const mg_connection* connection, const std::string& token) {
    return reserve(m_channel_places, connection, token);
}

bool Sockets::reserve(Places& places, const mg_connection* connection, const std::string& peer) {
    Places::Place place = places.take(peer);
    const bool is_taken = place != nullptr;
    if (is_taken) {
        const std::scoped_lock lock(m_mutex);
        m_places[connection] = std::move(place);
    }
    return is_taken;
}

void Sockets::give_back(const mg_connection* connection) {
    const std::scoped_lock lock(m_mutex);
    m_places.erase(connection);
}

template <typename Kind>
std::shared_ptr<Kind> Sockets::find(Map<Kind>& sockets, const mg_connection* connection,
                                    bool take) {
    const std::scoped_lock lock(m_mutex);
    const auto found = sockets.find(connection);
    if (found == sockets.end()) {
        return nullptr;
    }
    std::shared_ptr<Kind> socket = found->second;
    if (take) {
        sockets.erase(found);
    }
    return socket;
}

// What a socket has between handshake and close, its thread with it. Null, and the connection cut
// off, where the system has no thread left: nothing may be thrown through CivetWeb, which closes
// the connection as for any that has ended.
template <typename Kind>
std::shared_ptr<Kind> Sockets::begin(Map<Kind>& sockets, mg_connection* connection) {
    limit_allocations(kMaxAllocation);
    GuardedConnection guarded(m_guard, connection);
    guarded.clear_deadline();
    std::shared_ptr<Kind> begun;
    attempt("No socket", [&] {
        const std::scoped_lock lock(m_mutex);
        const auto place = sockets.try_emplace(connection).first;  // before there is a thread
        try {
            place->second = std::make_shared<Kind>(*this, connection);
        } catch (...) {
            sockets.erase(place);
            throw;
        }
        begun = place->second;
    });
    if (begun == nullptr) {
        guarded.cut();
    }
    return begun;
}

void Sockets::on_page_ready(mg_connection* connection, void* context) {
    auto* self = static_cast<Sockets*>(context);
    self->begin(self->m_pages, connection);
}

// A page says nothing; its pongs keep the connection. On 0, and after a close frame whatever is
// returned, CivetWeb leaves its loop, calls the closed handler once and shuts the socket: what the
// peer sent behind that frame is not looked at, and no close frame is answered.
int Sockets::on_page_data(mg_connection* connection, int bits, char* data, size_t size,
                          void* context) {
    auto* self = static_cast<Sockets*>(context);
    const auto page = self->find(self->m_pages, connection, false);
    if (page == nullptr || !is_control(bits) || !take_control(connection, bits, data, size)) {
        return 0;
    }
    page->heard();
    return 1;
}

void Sockets::on_page_closed(const mg_connection* connection, void* context) {
    auto* self = static_cast<Sockets*>(context);
    self->find(self->m_pages, connection, true);
    limit_allocations(0);
}

void Sockets::on_channel_ready(mg_connection* connection, void* context) {
    auto* self = static_cast<Sockets*>(context);
    const auto channel = self->begin(self->m_channels, connection);
    if (channel == nullptr) {
        return;
    }
    bool is_wanted = false;
    attempt("No channel", [&] {
        is_wanted = self->m_house.channels().opened(
            bearer_token(mg_get_header(connection, "Authorization")), channel);
    });
    if (!is_wanted) {
        channel->close();
    }
}

// CivetWeb hands over whole frames, fragments one by one, also such as are not masked. A frame that
// announces more than 2 GB ends the connection; `allocation_limit.h` has the rest. One whose bytes
// do not come holds a worker and kMaxAllocation, for no time-out is looked at inside a frame, until
// something written to the peer is not taken.
int Sockets::on_channel_data(mg_connection* connection, int bits, char* data, size_t size,
                             void* context) {
    auto* self = static_cast<Sockets*>(context);
    const auto channel = self->find(self->m_channels, connection, false);
    if (channel == nullptr) {
        return 0;
    }
    channel->heard();
    if (is_control(bits)) {
        return take_control(connection, bits, data, size) ? 1 : 0;
    }
    const bool is_next = (bits & 0x0f) == MG_WEBSOCKET_OPCODE_CONTINUATION;
    if ((!is_text(bits) && !is_next) || channel->message.size() + size > kMaxMessage) {
        return 0;
    }
    const bool is_taken = attempt("A device's message", [&] {
        channel->message.append(data, size);
        if (is_final(bits)) {
            self->m_house.channels().said(channel.get(), channel->message);
            channel->message.clear();
        }
    });
    return is_taken ? 1 : 0;
}

void Sockets::on_channel_closed(const mg_connection* connection, void* context) {
    auto* self = static_cast<Sockets*>(context);
    const auto channel = self->find(self->m_channels, connection, true);
    if (channel != nullptr) {
        self->m_house.channels().closed(channel.get(), channel->is_silent());
        channel->end();
    }
    limit_allocations(0);
}

}  // namespace nuvio::controller
