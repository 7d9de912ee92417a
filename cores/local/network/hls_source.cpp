#include "local/network/hls_source.h"

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>

#include "common/url/url.h"
#include "local/network/remote_playlist.h"

namespace local_core {

namespace {

namespace reader = nuvio::reader;

constexpr uint64_t kMaxSegmentBytes = uint64_t{32} * 1024 * 1024;
constexpr size_t kPieceBytes = size_t{16} * 1024;
constexpr size_t kMaxLeftOut = 8;     // in a row
constexpr uint64_t kFromLiveEnd = 3;  // segments
// Before it is sent again, for what reads it notes each part of them.
constexpr size_t kMostWithInit = 250;
constexpr int kPatientTargets = 3;  // without a segment, at least

// They come from where there was an answer.
HttpRequest for_segments(HttpRequest request) {
    request.give_up_unanswered_after.reset();
    return request;
}

}  // namespace

std::optional<std::string> HlsSource::playlist_in(HttpSource& source) {
    std::string text(kStreamPlaylistMark.size(), '\0');
    text.resize(source.read(text.data(), text.size()));
    if (text == kStreamPlaylistMark) {
        const size_t head = text.size();
        text.resize(reader::kMaxPlaylistBytes + 1);
        text.resize(head + source.read(text.data() + head, text.size() - head));
        if (is_stream_playlist(text)) {
            return text;
        }
    }
    source.seek(0);
    return std::nullopt;
}

HlsSource::HlsSource(HttpRequest request, std::string url, std::string playlist)
    : RemoteSource(request.read_ahead_bytes),
      m_request(for_segments(std::move(request))),
      m_playlist(m_request, std::move(url), std::move(playlist), m_interruption),
      m_progress_at(Clock::now()) {
    m_is_radio = true;
    try {
        m_thread = std::thread([this] { run(); });
    } catch (const std::system_error& error) {
        fail(HttpFailure::unusable, error.what());
    }
}

HlsSource::~HlsSource() {
    cancel();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void HlsSource::on_moved() {
    if (is_low()) {
        m_wake.notify_one();
    }
}

void HlsSource::on_failure() {
    m_interruption.interrupt();
    m_wake.notify_one();
}

void HlsSource::run() {
    if (!begin()) {
        return;
    }
    m_next = place_to_begin();
    while (fetch_segments()) {
        if (m_playlist.said().has_end) {
            if (!wait_for_seek()) {
                return;
            }
            continue;
        }
        const std::string& reason = m_playlist.reason().empty() ? m_reason : m_playlist.reason();
        if (is_given_up(reason.empty() ? "nothing new in its playlist" : reason) ||
            !wait_for_reload()) {
            return;
        }
        m_reason.clear();
        if (const HttpFailure failure = m_playlist.load(); failure != HttpFailure::none) {
            fail(failure, m_playlist.reason());
            return;
        }
    }
}

bool HlsSource::begin() {
    const HttpFailure failure = m_playlist.begin();
    if (failure != HttpFailure::none) {
        fail(failure, m_playlist.reason());
    }
    {
        const std::lock_guard lock(m_mutex);
        m_begins_us = m_playlist.begins_us();
        m_has_begun = true;
    }
    m_changed.notify_all();
    return failure == HttpFailure::none;
}

bool HlsSource::is_given_up(const std::string& reason) {
    const Clock::duration patience =
        std::max<Clock::duration>(m_request.give_up_after, kPatientTargets * m_playlist.target());
    const bool is_given_up = Clock::now() - m_progress_at >= patience;
    if (is_given_up) {
        fail(HttpFailure::unreachable, reason);
    }
    return is_given_up;
}

bool HlsSource::wait_for_reload() {
    std::unique_lock lock(m_mutex);
    return !m_wake.wait_until(lock, m_playlist.reload_at(),
                              [this] { return m_failure != HttpFailure::none; });
}

// ---- Places -------------------------------------------------------------------------------------

std::optional<uint64_t> HlsSource::duration_us() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_has_begun || m_failure != HttpFailure::none; });
    return m_begins_us.empty() ? std::nullopt : std::optional(m_begins_us.back());
}

// What was fetched is forgotten; behind it begins another run.
std::optional<RemoteSource::Run> HlsSource::go_to_time(uint64_t time_us) {
    const std::lock_guard lock(m_mutex);
    if (m_failure != HttpFailure::none || m_begins_us.empty() || time_us >= m_begins_us.back()) {
        return std::nullopt;
    }
    const auto next = std::ranges::upper_bound(m_begins_us, time_us);
    m_wanted = static_cast<size_t>(next - m_begins_us.begin()) - 1;
    m_length.reset();
    m_position = m_buffer.end();
    m_buffer.restart_at(m_position);
    begin_run();
    if (m_present != nullptr) {
        m_present->cancel();
    }
    m_wake.notify_one();
    return Run{m_position, m_begins_us[*m_wanted]};
}

// At the end, which may be gone back from.
bool HlsSource::wait_for_seek() {
    std::unique_lock lock(m_mutex);
    if (!m_wanted) {
        m_length = m_buffer.end();
        m_changed.notify_all();
    }
    m_wake.wait(lock, [this] { return m_wanted || m_failure != HttpFailure::none; });
    return m_failure == HttpFailure::none;
}

bool HlsSource::is_sought() const {
    return locked([this] { return m_wanted.has_value(); });
}

void HlsSource::take_wanted() {
    if (const auto wanted = locked([this] { return std::exchange(m_wanted, std::nullopt); })) {
        m_next = m_playlist.said().first_number + *wanted;
        m_progress_at = Clock::now();
        m_left_out = 0;
        m_init.reset();
        m_file.reset();
    }
}

uint64_t HlsSource::place_to_begin() const {
    const uint64_t count = m_playlist.said().segments.size();
    const uint64_t passed_over =
        m_playlist.said().has_end ? 0 : count - std::min(count, kFromLiveEnd);
    return m_playlist.said().first_number + passed_over;
}

// ---- Segments -----------------------------------------------------------------------------------

// Until all are fetched that the playlist has, or it is too old to go by.
bool HlsSource::fetch_segments() {
    const reader::MediaPlaylist& said = m_playlist.said();
    const uint64_t first = said.first_number;
    const uint64_t end = first + said.segments.size();
    // A playlist a little older than the last one comes from a server that lags behind.
    if (end + kFromLiveEnd < m_next) {
        note("its segments are numbered anew");
        m_next = place_to_begin();
    }
    if (m_next < first) {
        note("segments went by unheard: " + std::to_string(place_to_begin() - m_next));
        m_next = place_to_begin();
    }
    for (take_wanted(); m_next < end; take_wanted()) {
        const HttpFailure failure =
            fetch_segment(said.segments[static_cast<size_t>(m_next - first)]);
        if (is_sought()) {
            continue;
        }
        // A server may be behind its own playlist.
        if (failure == HttpFailure::missing && !said.has_end && m_asked_again != m_next) {
            m_asked_again = m_next;
            return true;
        }
        if (failure != HttpFailure::none && !leave_out(failure)) {
            return false;
        }
        ++m_next;
        if (!said.has_end &&
            Clock::now() - m_playlist.loaded_at() > kFromLiveEnd * m_playlist.target()) {
            return true;
        }
    }
    return true;
}

HttpFailure HlsSource::fetch_segment(const reader::MediaSegment& segment) {
    const std::vector<MediaPart>& inits = m_playlist.said().inits;
    const bool has_init = segment.init < inits.size();
    const MediaPart* const init = has_init ? &inits[segment.init] : nullptr;
    const bool is_other = has_init && (*init != m_init || m_sent_with_init >= kMostWithInit);
    if (is_other || segment.is_cut) {
        locked([this] { return begin_run(); });
        m_init.reset();
    }
    if (has_init && !m_init) {
        if (const HttpFailure failure = fetch(*init); failure != HttpFailure::none) {
            return failure;
        }
        m_init = *init;
        m_sent_with_init = 0;
    }
    ++m_sent_with_init;
    if (!segment.title.empty()) {
        locked([&] { return note_title(segment.title); });
    }
    const HttpFailure failure = fetch(segment.part);
    m_left_out = failure == HttpFailure::none ? 0 : m_left_out;
    return failure;
}

bool HlsSource::leave_out(HttpFailure failure) {
    if (failure == HttpFailure::refused) {
        fail(failure, m_reason);
    }
    if (failure == HttpFailure::refused || failure == HttpFailure::cancelled) {
        return false;
    }
    if (m_left_out++ == 0) {
        note("a segment is left out: " + m_reason);
    }
    if (m_left_out >= kMaxLeftOut) {
        fail(failure, m_reason);
    }
    return m_left_out < kMaxLeftOut && !is_given_up(m_reason);
}

// Puts the part behind what is there.
HttpFailure HlsSource::fetch(const MediaPart& part) {
    const auto url = nuvio::resolve_url(m_playlist.base(), part.location);
    if (!url) {
        return fail_part(HttpFailure::missing, "no web address");
    }
    HttpSource& source = file_at(*url);
    const bool is_overtaken = locked([&] {
        m_present = &source;
        return m_wanted.has_value();
    });
    const HttpFailure failure =
        is_overtaken ? HttpFailure::cancelled : read_part(source, part, *url);
    locked([this] { m_present = nullptr; });
    if (failure != HttpFailure::none) {
        m_file.reset();
    }
    return failure;
}

HttpFailure HlsSource::read_part(HttpSource& source, const MediaPart& part,
                                 const std::string& url) {
    source.seek(part.first);
    const auto content = source.open();
    if (content && content->is_radio) {
        return fail_part(HttpFailure::missing, "it has no end");
    }
    const uint64_t most = std::min(part.size > 0 ? part.size : UINT64_MAX, kMaxSegmentBytes);
    uint64_t done = 0;
    std::array<char, kPieceBytes> piece;
    while (content && done < most) {
        const size_t wanted = std::min(piece.size(), static_cast<size_t>(most - done));
        const size_t got = source.read(piece.data(), wanted);
        if (got == 0) {
            break;
        }
        if (!append({piece.data(), got})) {
            return HttpFailure::cancelled;
        }
        done += got;
    }
    if (source.failure() != HttpFailure::none) {
        return fail_part(failure_of(source, url, done > 0), source.error());
    }
    if (done == 0) {
        return fail_part(HttpFailure::missing, "it is empty");
    }
    const bool is_cut = done == kMaxSegmentBytes && done != part.size;
    return is_cut ? fail_part(HttpFailure::changed, "it is too long") : HttpFailure::none;
}

// The token is to blame on its own origin alone. What has begun is not asked for again.
HttpFailure HlsSource::failure_of(const HttpSource& source, const std::string& url,
                                  bool has_begun) const {
    const HttpFailure failure = source.failure();
    const bool has_token =
        !m_request.token.empty() && nuvio::same_origin(url, m_request.token_origin);
    if (failure == HttpFailure::missing || (failure == HttpFailure::refused && !has_token)) {
        return has_begun ? HttpFailure::changed : HttpFailure::missing;
    }
    return failure;
}

HttpFailure HlsSource::fail_part(HttpFailure failure, std::string reason) {
    m_reason = std::move(reason);
    return failure;
}

// Parts of one file are read from one that stays open, where it does not grow.
HttpSource& HlsSource::file_at(const std::string& url) {
    if (!m_file || m_file->url != url || !m_playlist.said().has_end) {
        m_file.reset();
        m_file = std::make_unique<HlsFile>(m_playlist.request_for(url), m_interruption);
    }
    return m_file->source;
}

bool HlsSource::append(std::string_view bytes) {
    {
        std::unique_lock lock(m_mutex);
        if (m_buffer.room(m_position) < bytes.size()) {
            m_wake.wait(lock,
                        [this] { return is_low() || m_wanted || m_failure != HttpFailure::none; });
        }
        if (m_wanted || m_failure != HttpFailure::none) {
            return false;
        }
        m_buffer.append(bytes, m_position);
    }
    m_changed.notify_all();
    m_progress_at = Clock::now();
    return true;
}

}  // namespace local_core
