#include "local/channel/link.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <utility>

#include "common/detached_thread.h"
#include "common/module.h"
#include "local/channel/link_shared.h"

namespace local_core {

namespace {

constexpr int kMaxThreads = 4;  // of this process that may hang at a time
constexpr std::chrono::seconds kTlsPatience{4};

// The links' threads of this process. Never destroyed: one that hangs on a name may outlive main.
struct Threads {
    std::mutex mutex;  // guards what follows
    std::condition_variable changed;
    int running = 0;
    bool tls_is_taken = false;
};

Threads& threads() {
    static auto* const all = new Threads;
    return *all;
}

// libwebsockets loses its TLS context when another thread makes or ends one at the same time: a new
// session's link waits for the old one's end. Not for one that hangs on a name, and not where
// nobody wants it any more.
template <typename IsUnwanted>
bool take_tls_turn(IsUnwanted is_unwanted) {
    Threads& all = threads();
    std::unique_lock lock(all.mutex);
    all.changed.wait_for(lock, kTlsPatience, [&] { return !all.tls_is_taken || is_unwanted(); });
    return !std::exchange(all.tls_is_taken, true);
}

void run_link(const std::shared_ptr<Link::Shared>& shared, LinkTarget target) {
    std::string error;
    auto* const run =
        reinterpret_cast<RunLink*>(nuvio::find_in_module(NUV_CHANNEL_MODULE, kRunLinkName, &error));
    if (run != nullptr) {
        run(shared, std::move(target));
    } else {
        shared->log(true, "Remote control: " + error);
    }
}

void leave(bool had_tls_turn) {
    Threads& all = threads();
    const std::lock_guard lock(all.mutex);
    --all.running;
    all.tls_is_taken &= !had_tls_turn;
    all.changed.notify_all();
}

}  // namespace

Link::Link(LinkTarget target, std::function<void()> on_change, Log log)
    : m_shared(std::make_shared<Shared>(std::move(log))) {
    m_shared->on_change = std::move(on_change);
    {
        const std::lock_guard lock(threads().mutex);
        if (threads().running == kMaxThreads) {
            throw std::system_error(EAGAIN, std::generic_category());
        }
        ++threads().running;
    }
    const auto run = [shared = m_shared, target = std::move(target)]() mutable {
        const bool tls = target.tls;
        const bool has_tls_turn = tls && take_tls_turn([&] { return shared->is_closing(); });
        if (!tls || !shared->is_closing()) {
            run_link(shared, std::move(target));
        }
        {
            const std::lock_guard lock(shared->mutex);
            shared->connection = 0;
            shared->tell_change();
        }
        leave(has_tls_turn);
    };
    try {
        nuvio::start_detached("nuv-channel", run);
    } catch (const std::system_error&) {
        leave(false);
        throw;
    }
}

Link::~Link() {
    {
        const std::lock_guard lock(m_shared->mutex);
        m_shared->on_change = nullptr;
    }
    close("");
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
    {
        const std::lock_guard lock(m_shared->mutex);
        if (std::exchange(m_shared->closing, true)) {
            return;
        }
        m_shared->goodbye = std::move(goodbye);
        m_shared->wake();
    }
    // Where it waits for its turn still.
    const std::lock_guard lock(threads().mutex);
    threads().changed.notify_all();
}

bool Link::wait_all_closed(std::chrono::milliseconds patience) {
    std::unique_lock lock(threads().mutex);
    return threads().changed.wait_for(lock, patience, [] { return threads().running == 0; });
}

}  // namespace local_core
