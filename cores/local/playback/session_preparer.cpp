#include "local/playback/session_preparer.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <utility>

#include "common/detached_thread.h"
#include "local/network/interruption.h"
#include "local/texts/display_text.h"
#include "local/track/track_decoder.h"

namespace local_core {

// Outlives the preparer as long as a thread hangs.
struct SessionPreparer::Shared {
    Output output;
    std::shared_ptr<const Logger> logger;
    std::atomic<uint64_t> newest{0};  // number of the session begun last; others may give up

    std::mutex mutex;  // guards what follows; also held while on_change is called
    std::condition_variable thread_ended;
    std::function<void()> on_change;
    std::optional<PreparedSession> ready;
    std::shared_ptr<Interruption> interruption;  // of the session begun last
    int threads = 0;

    // Under the lock: nobody waits for the session before any more.
    void interrupt() {
        if (interruption) {
            interruption->interrupt();
        }
    }
};

namespace {

// Finds the first track that can be played; leaves no tracks when there is none among the first
// kMaxProbes, or when their server is to blame: of that there is but one.
template <typename GivesUp>
void probe(PreparedSession& session, const Output& output, Interruption& interruption,
           const Logger& logger, GivesUp gives_up) {
    for (size_t& i = session.first; i < session.tracks.size() && !gives_up(); ++i) {
        if (i == SessionPreparer::kMaxProbes) {
            break;
        }
        OpenFailure failure;
        Track asked = session.tracks[i];
        asked.note_asked();
        if (TrackDecoder::open(asked, output, interruption, &failure)) {
            return;
        }
        if (failure.network == HttpFailure::cancelled) {
            break;
        }
        const std::string reason = display_text(failure.reason);
        logger.write(LogLevel::warning, kContentFetcher, "Skipping %s: %s",
                     display_location(session.tracks[i].location).c_str(), reason.c_str());
        session.failure = i == 0 ? reason : session.failure;
        if (failure.network == HttpFailure::unreachable ||
            failure.network == HttpFailure::refused) {
            break;
        }
    }
    session.tracks.clear();
}

}  // namespace

SessionPreparer::SessionPreparer(std::function<void()> on_change, const Output& output,
                                 std::shared_ptr<const Logger> logger)
    : m_shared(std::make_shared<Shared>()) {
    m_shared->output = output;
    m_shared->logger = std::move(logger);
    m_shared->on_change = std::move(on_change);
}

SessionPreparer::~SessionPreparer() {
    ++m_shared->newest;
    std::unique_lock lock(m_shared->mutex);
    m_shared->on_change = nullptr;
    m_shared->interrupt();
    m_shared->thread_ended.wait_for(lock, kPatience, [this] { return m_shared->threads == 0; });
}

bool SessionPreparer::begin(SessionRequest request) {
    const auto interruption = std::make_shared<Interruption>();
    {
        const std::lock_guard lock(m_shared->mutex);
        if (m_shared->threads == kMaxThreads) {
            return false;
        }
        ++m_shared->threads;
        m_shared->ready.reset();
        m_shared->interrupt();
        m_shared->interruption = interruption;
    }
    const uint64_t number = ++m_shared->newest;
    const auto prepare = [shared = m_shared, interruption, number,
                          request = std::move(request)]() mutable {
        const auto gives_up = [&] { return shared->newest != number; };
        PreparedSession session{std::move(request), {}};
        try {
            session.tracks = find_tracks(session.request.endpoint, session.request.token,
                                         *interruption, *shared->logger, &session.failure);
            probe(session, shared->output, *interruption, *shared->logger, gives_up);
        } catch (const std::exception& failure) {
            session.tracks.clear();
            session.failure = failure.what();
            shared->logger->write(LogLevel::error, kContentFetcher, "Can't list %s: %s",
                                  display_location(session.request.endpoint).c_str(),
                                  failure.what());
        }
        const std::lock_guard lock(shared->mutex);
        --shared->threads;
        if (!gives_up() && shared->on_change) {
            shared->ready = std::move(session);
            shared->on_change();
        }
        shared->thread_ended.notify_all();
    };
    try {
        nuvio::start_detached("nuv-session", prepare);
    } catch (const std::system_error&) {
        const std::lock_guard lock(m_shared->mutex);
        --m_shared->threads;
        return false;
    }
    return true;
}

std::optional<PreparedSession> SessionPreparer::take() {
    const std::lock_guard lock(m_shared->mutex);
    return std::exchange(m_shared->ready, std::nullopt);
}

}  // namespace local_core
