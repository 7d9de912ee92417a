#include "local/channel/link.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <utility>

#include "common/detached_thread.h"
#include "local/channel/link_shared.h"
#include "local/channel/link_worker.h"

namespace local_core {

namespace {

constexpr int kMaxThreads = 4;  // of this process that may hang at a time

std::atomic<int> threads_running{0};

// libwebsockets loses its TLS context when another thread makes or ends one at the same time: a new
// session's link waits for the old one's end. Not for one that hangs on a name.
class TlsTurn {
  public:
    explicit TlsTurn(bool is_needed) {
        std::unique_lock lock(s_mutex);
        m_is_mine = is_needed && s_freed.wait_for(lock, kPatience, [] { return !s_is_taken; });
        s_is_taken |= m_is_mine;
    }
    ~TlsTurn() {
        const std::lock_guard lock(s_mutex);
        s_is_taken &= !m_is_mine;
        s_freed.notify_all();
    }
    TlsTurn(const TlsTurn&) = delete;
    TlsTurn& operator=(const TlsTurn&) = delete;

  private:
    static constexpr std::chrono::seconds kPatience{4};

    static inline std::mutex s_mutex;
    static inline std::condition_variable s_freed;
    static inline bool s_is_taken = false;  // guarded by the mutex
    bool m_is_mine = false;
};

}  // namespace

Link::Link(LinkTarget target, std::function<void()> on_news, Log log)
    : m_shared(std::make_shared<Shared>(std::move(log))) {
    m_shared->on_news = std::move(on_news);
    if (threads_running.fetch_add(1) >= kMaxThreads) {
        --threads_running;
        throw std::system_error(EAGAIN, std::generic_category());
    }
    const auto run = [shared = m_shared, target = std::move(target)]() mutable {
        {
            const TlsTurn turn(target.tls);
            Worker(shared, std::move(target)).run();
        }
        --threads_running;
        const std::lock_guard lock(shared->mutex);
        shared->connection = 0;
        shared->ended = true;
        shared->news();
        shared->thread_ended.notify_all();
    };
    try {
        nuvio::start_detached("nuv-channel", run);
    } catch (const std::system_error&) {
        --threads_running;
        throw;
    }
}

Link::~Link() {
    const std::lock_guard lock(m_shared->mutex);
    m_shared->on_news = nullptr;
    if (!m_shared->closing) {
        m_shared->closing = true;
        m_shared->wake();
    }
}

uint64_t Link::connection() const {
    const std::lock_guard lock(m_shared->mutex);
    return m_shared->connection;
}

std::optional<Link::Incoming> Link::take() {
    const std::lock_guard lock(m_shared->mutex);
    if (m_shared->inbox.empty()) {
        return std::nullopt;
    }
    Incoming incoming = std::move(m_shared->inbox.front());
    m_shared->inbox.pop_front();
    if (!m_shared->reading) {
        m_shared->wake();
    }
    return incoming;
}

void Link::put(uint64_t connection, Slot slot, std::string text) {
    const std::lock_guard lock(m_shared->mutex);
    if (connection == m_shared->connection && !m_shared->closing) {
        m_shared->slots[static_cast<size_t>(slot)] = std::move(text);
        m_shared->wake();
    }
}

void Link::say(uint64_t connection, std::string text) {
    const std::lock_guard lock(m_shared->mutex);
    if (connection == m_shared->connection && !m_shared->closing) {
        m_shared->answer_bytes += text.size();
        m_shared->answers.push_back(std::move(text));
        m_shared->wake();
    }
}

void Link::close(std::string goodbye) {
    const std::lock_guard lock(m_shared->mutex);
    if (!m_shared->closing) {
        m_shared->closing = true;
        m_shared->goodbye = std::move(goodbye);
        m_shared->wake();
    }
}

void Link::wait_closed(std::chrono::milliseconds patience) {
    std::unique_lock lock(m_shared->mutex);
    m_shared->thread_ended.wait_for(lock, patience, [this] { return m_shared->ended; });
}

}  // namespace local_core
