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

namespace nuvio::controller {

namespace {

constexpr std::chrono::seconds kWritePatience{20};
// Pages get no more than this, whatever happens.
constexpr std::chrono::milliseconds kBetweenStates{80};
constexpr size_t kMaxQueuedBytes = size_t{4} << 20U;
constexpr size_t kMaxMessage = size_t{64} << 10U;
constexpr size_t kMaxAllocation = size_t{256} << 10U;

bool is_text(int bits) {
    return (bits & 0x0f) == MG_WEBSOCKET_OPCODE_TEXT;
}

bool is_control(int bits) {
    return (bits & 0x08) != 0;
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
    bool write(const std::string& message) {
        m_guarded.set_deadline(kWritePatience);
        const int sent = mg_websocket_write(m_connection, MG_WEBSOCKET_OPCODE_TEXT, message.data(),
                                            message.size());
        m_guarded.clear_deadline();
        return sent > 0;
    }
    void cut() { m_guarded.cut(); }

  private:
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

  private:
    void run() {
        uint64_t seen = 0;
        while (!m_is_ending && !m_sockets.m_changes.is_closed()) {
            const uint64_t version = m_sockets.m_changes.wait(seen, std::chrono::hours(1));
            std::string state;
            if (m_is_ending ||
                !attempt("No state for a page", [&] { state = m_sockets.m_state(version); }) ||
                !m_writer.write(state)) {
                break;
            }
            seen = version;
            std::this_thread::sleep_for(kBetweenStates);
        }
        m_writer.cut();
    }

    Sockets& m_sockets;
    Writer m_writer;
    std::atomic<bool> m_is_ending = false;
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

    // The handler's own: a message is put together from its frames.
    std::string message;

  private:
    void run() {
        std::unique_lock lock(m_mutex);
        while (true) {
            m_on_change.wait(lock, [this] { return m_is_ending || !m_messages.empty(); });
            if (m_is_ending) {
                break;
            }
            const std::string text = std::move(m_messages.front());
            m_messages.pop_front();
            m_bytes -= text.size();
            lock.unlock();
            const bool is_sent = m_writer.write(text);
            lock.lock();
            m_is_ending = m_is_ending || !is_sent;
        }
        lock.unlock();
        m_writer.cut();
    }

    Writer m_writer;
    std::mutex m_mutex;
    std::condition_variable m_on_change;
    std::deque<std::string> m_messages;  // under m_mutex, as the next two
    size_t m_bytes = 0;
    bool m_is_ending = false;
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
int Sockets::on_page_data(mg_connection*, int bits, char*, size_t, void*) {
    return is_control(bits) && (bits & 0x0f) != MG_WEBSOCKET_OPCODE_CONNECTION_CLOSE ? 1 : 0;
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

// CivetWeb hands over whole frames, fragments one by one, also such as are not masked. Pings it
// answers itself, however long they are. A frame that announces more than 2 GB ends the connection;
// `allocation_limit.h` has the rest. One whose bytes do not come holds a worker and kMaxAllocation,
// for no time-out is looked at inside a frame, until something written to the peer is not taken.
int Sockets::on_channel_data(mg_connection* connection, int bits, char* data, size_t size,
                             void* context) {
    auto* self = static_cast<Sockets*>(context);
    const auto channel = self->find(self->m_channels, connection, false);
    if (is_control(bits)) {
        return (bits & 0x0f) == MG_WEBSOCKET_OPCODE_CONNECTION_CLOSE ? 0 : 1;
    }
    const bool is_next = (bits & 0x0f) == MG_WEBSOCKET_OPCODE_CONTINUATION;
    if (channel == nullptr || (!is_text(bits) && !is_next) ||
        channel->message.size() + size > kMaxMessage) {
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
        self->m_house.channels().closed(channel.get());
        channel->end();
    }
    limit_allocations(0);
}

}  // namespace nuvio::controller
