#include "local/track/track_pipe.h"

#include <malloc.h>

#include <system_error>
#include <utility>

#include "common/code_pages.h"
#include "common/detached_thread.h"
#include "local/network/http_transfer.h"
#include "local/track/track_work.h"

namespace local_core {

namespace {

// What tracks and their servers have taken lies about as free pages between what stays. With no
// track open nothing plays that could wait for the allocator's locks, or for code.
void give_back_memory() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
    nuvio::give_back_code_pages();
}

}  // namespace

// ---- The pipe -----------------------------------------------------------------------------------

TrackPipe::TrackPipe(std::shared_ptr<TrackWork> work) : m_work(std::move(work)) {}

TrackPipe::~TrackPipe() {
    m_work->close();
}

TrackPipe::Opening TrackPipe::opening() const {
    return m_work->opening();
}

const TrackInfo& TrackPipe::info() const {
    return m_work->info();
}

const TrackTexts& TrackPipe::texts() const {
    return m_work->texts();
}

const std::string& TrackPipe::open_error() const {
    return m_work->open_error();
}

bool TrackPipe::is_decoded_wholly() const {
    return m_work->is_decoded_wholly();
}

HttpFailure TrackPipe::failure() const {
    return m_work->failure();
}

TrackPipe::Taken TrackPipe::take(PcmBlock* block) {
    return m_work->take(block);
}

void TrackPipe::give_back(const PcmBlock& block) {
    m_work->give_back(block);
}

std::optional<TrackTexts> TrackPipe::take_new_texts() {
    return m_work->take_new_texts();
}

void TrackPipe::add_taken(const std::byte* samples, size_t bytes) {
    m_work->verification().add(samples, bytes);
}

Verdict TrackPipe::conclude(bool is_played_out) {
    return m_work->conclude(is_played_out);
}

void TrackPipe::seek(uint64_t frame) {
    m_work->seek(frame);
}

std::optional<uint64_t> TrackPipe::seek_result() const {
    return m_work->seek_result();
}

std::optional<std::chrono::steady_clock::time_point> TrackPipe::waiting_since() const {
    return m_work->waiting_since();
}

void TrackPipe::give_up() {
    m_work->give_up();
}

// ---- The crew -----------------------------------------------------------------------------------

DecodeCrew::DecodeCrew(std::function<void()> on_change, const Output& output,
                       std::shared_ptr<const Logger> logger)
    : m_shared(std::make_shared<CrewShared>()) {
    m_shared->output = output;
    m_shared->logger = std::move(logger);
    m_shared->on_change = std::move(on_change);
}

DecodeCrew::~DecodeCrew() {
    std::unique_lock lock(m_shared->mutex);
    m_shared->on_change = nullptr;
    m_shared->thread_ended.wait_for(lock, kPatience, [this] { return m_shared->threads == 0; });
}

std::unique_ptr<TrackPipe> DecodeCrew::open(Track track) {
    auto work = std::make_shared<TrackWork>(std::move(track), m_shared);
    std::unique_ptr<TrackPipe> pipe(new TrackPipe(work));
    if (!m_shared->add_thread()) {
        work->fail("too many tracks before it still wait for their disks");
        return pipe;
    }
    try {
        // `connections`: for the tracks after this one.
        nuvio::start_detached(
            "nuv-decoder",
            [crew = m_shared, work, connections = HttpTransfer::keep_connections()]() mutable {
                work->run();
                work.reset();
                connections.reset();
                if (crew->remove_thread() == 0) {
                    give_back_memory();
                }
            });
    } catch (const std::system_error& error) {
        m_shared->remove_thread();
        work->fail(error.what());
    }
    return pipe;
}

}  // namespace local_core
