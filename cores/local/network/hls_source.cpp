#include "local/network/hls_source.h"

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>
#include <variant>

#include "common/url/url.h"
#include "local/network/remote_playlist.h"

namespace local_core {

namespace {

namespace reader = nuvio::reader;

constexpr size_t kMaxSegments = 4000;
constexpr uint64_t kMaxSegmentBytes = uint64_t{32} * 1024 * 1024;
constexpr size_t kPieceBytes = size_t{16} * 1024;
constexpr size_t kMaxLeftOut = 8;     // in a row
constexpr uint64_t kFromLiveEnd = 3;  // segments
// Before it is sent again, for what reads it notes each part of them.
constexpr size_t kMostWithInit = 250;
constexpr uint64_t kMaxNumber = uint64_t{1} << 62;
// What the longest segment counts for, in seconds, whatever a playlist says.
constexpr uint64_t kShortestTarget = 1;
constexpr uint64_t kLongestTarget = 60;
constexpr int kPatientTargets = 3;  // without a segment, at least

}  // namespace

// A file that segments are read from.
struct HlsSource::File {
    File(const HttpRequest& request, Interruption& interruption)
        : url(request.url), source(request), watch(interruption, [this] { source.cancel(); }) {}

    const std::string url;
    HttpSource source;
    Interruption::Watch watch;
};

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
      m_request(std::move(request)),
      m_own_url(m_request.url),
      m_url(std::move(url)),
      m_base(m_url),
      m_text(std::move(playlist)),
      m_loaded_at(Clock::now()),
      m_progress_at(m_loaded_at) {
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
        if (m_playlist.has_end) {
            finish();
            return;
        }
        if (is_given_up(m_reason.empty() ? "nothing new in its playlist" : m_reason) ||
            !wait_for_reload() || !load(false)) {
            return;
        }
    }
}

// ---- The playlist -------------------------------------------------------------------------------

bool HlsSource::begin() {
    if (take(m_text) != HttpFailure::none) {
        fail(HttpFailure::unusable, m_reason);
        return false;
    }
    if (!m_playlist.variant.empty() && !take_variant()) {
        return false;
    }
    if (m_playlist.segments.empty() && (m_playlist.has_end || m_playlist.target_s == 0)) {
        fail(HttpFailure::unusable, "its playlist names nothing that can be played");
        return false;
    }
    return true;
}

bool HlsSource::take_variant() {
    const auto url = nuvio::resolve_url(m_base, m_playlist.variant);
    if (!url) {
        fail(HttpFailure::unusable, "its playlist names no web address");
        return false;
    }
    m_own_url = m_url = *url;
    if (!load(true)) {
        return false;
    }
    if (!m_playlist.variant.empty()) {
        fail(HttpFailure::unusable, "its playlist leads to no segments");
        return false;
    }
    return true;
}

HttpFailure HlsSource::take(const std::string& text) {
    const Interruption::Watch watch(m_interruption, [this] { m_reader.interrupt(); });
    auto outcome = m_reader.read_media(text, kMaxSegments);
    if (const auto* const failed = std::get_if<reader::Failure>(&outcome)) {
        return fail_part(HttpFailure::missing, "its playlist can't be read: " + failed->reason);
    }
    m_playlist = std::get<reader::MediaPlaylist>(std::move(outcome));
    m_playlist.first_number = std::min(m_playlist.first_number, kMaxNumber);
    return m_playlist.is_encrypted ? fail_part(HttpFailure::unusable, "the stream is encrypted")
                                   : HttpFailure::none;
}

// While segments come the playlist may be away.
bool HlsSource::load(bool is_first) {
    m_loaded_at = Clock::now();
    m_is_changed = false;
    m_reason.clear();
    std::string text;
    HttpFailure failure = fetch_playlist(&text);
    if (failure == HttpFailure::none && text != m_text) {
        failure = take(text);
        m_is_changed = failure == HttpFailure::none;
    }
    if (m_is_changed) {
        m_text = std::move(text);
    }
    if (failure == HttpFailure::none) {
        m_base = m_url;
        return true;
    }
    m_url = m_own_url;
    const bool passes = !is_first && failure != HttpFailure::refused &&
                        failure != HttpFailure::unusable && failure != HttpFailure::cancelled;
    if (!passes) {
        fail(failure, m_reason);
    }
    return passes;
}

// The text is read in small pieces, so that one that drips has an end too.
HttpFailure HlsSource::fetch_playlist(std::string* text) {
    constexpr size_t kDrips = 1024;
    File file(request_for(m_url), m_interruption);
    const auto content = file.source.open();
    std::array<char, kDrips> piece;
    for (size_t got = kDrips; content && got == kDrips;) {
        got = file.source.read(piece.data(), kDrips);
        text->append(piece.data(), got);
        if (text->size() > reader::kMaxPlaylistBytes) {
            return fail_part(HttpFailure::unusable, "its playlist is too large");
        }
        if (Clock::now() - m_loaded_at >= m_request.give_up_after) {
            return fail_part(HttpFailure::unreachable, "its playlist comes too slowly");
        }
    }
    if (!content || file.source.failure() != HttpFailure::none) {
        return fail_part(file.source.failure(), file.source.error());
    }
    m_url = content->url;
    return is_stream_playlist(*text) ? HttpFailure::none
                                     : fail_part(HttpFailure::missing, "no playlist where it was");
}

HlsSource::Clock::duration HlsSource::target() const {
    return std::chrono::seconds(std::clamp(m_playlist.target_s, kShortestTarget, kLongestTarget));
}

bool HlsSource::is_given_up(const std::string& reason) {
    const Clock::duration patience =
        std::max<Clock::duration>(m_request.give_up_after, kPatientTargets * target());
    const bool is_given_up = Clock::now() - m_progress_at >= patience;
    if (is_given_up) {
        fail(HttpFailure::unreachable, reason);
    }
    return is_given_up;
}

// As long as its segments are, from one load to the next; half of that when nothing was new.
bool HlsSource::wait_for_reload() {
    const Clock::duration pause = m_is_changed ? target() : target() / 2;
    std::unique_lock lock(m_mutex);
    return !m_wake.wait_until(lock, m_loaded_at + pause,
                              [this] { return m_failure != HttpFailure::none; });
}

uint64_t HlsSource::place_to_begin() const {
    const uint64_t count = m_playlist.segments.size();
    const uint64_t passed_over = m_playlist.has_end ? 0 : count - std::min(count, kFromLiveEnd);
    return m_playlist.first_number + passed_over;
}

// ---- Segments -----------------------------------------------------------------------------------

// Until all are fetched that the playlist has, or it is too old to go by.
bool HlsSource::fetch_segments() {
    const uint64_t first = m_playlist.first_number;
    const uint64_t end = first + m_playlist.segments.size();
    // A playlist a little older than the last one comes from a server that lags behind.
    if (end + kFromLiveEnd < m_next) {
        note("its segments are numbered anew");
        m_next = place_to_begin();
    }
    if (m_next < first) {
        note("segments went by unheard: " + std::to_string(place_to_begin() - m_next));
        m_next = place_to_begin();
    }
    while (m_next < end) {
        const HttpFailure failure =
            fetch_segment(m_playlist.segments[static_cast<size_t>(m_next - first)]);
        // A server may be behind its own playlist.
        if (failure == HttpFailure::missing && !m_playlist.has_end && m_asked_again != m_next) {
            m_asked_again = m_next;
            return true;
        }
        if (failure != HttpFailure::none && !leave_out(failure)) {
            return false;
        }
        ++m_next;
        if (!m_playlist.has_end && Clock::now() - m_loaded_at > kFromLiveEnd * target()) {
            return true;
        }
    }
    return true;
}

HttpFailure HlsSource::fetch_segment(const reader::MediaSegment& segment) {
    const bool has_init = segment.init < m_playlist.inits.size();
    const MediaPart* const init = has_init ? &m_playlist.inits[segment.init] : nullptr;
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
    const auto url = nuvio::resolve_url(m_base, part.location);
    if (!url) {
        return fail_part(HttpFailure::missing, "no web address");
    }
    HttpSource& source = file_at(*url);
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
        return fail_part(failure_of(source, *url, done > 0), source.error());
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
    m_file.reset();
    return failure;
}

// Parts of one file are read from one that stays open, where it does not grow.
HttpSource& HlsSource::file_at(const std::string& url) {
    if (!m_file || m_file->url != url || !m_playlist.has_end) {
        m_file.reset();
        m_file = std::make_unique<File>(request_for(url), m_interruption);
    }
    return m_file->source;
}

// Of a live stream some patience is left for what comes after.
HttpRequest HlsSource::request_for(const std::string& url) const {
    HttpRequest request = m_request;
    request.url = url;
    request.read_ahead_bytes = 0;
    request.give_up_after /= m_playlist.has_end ? 1 : 2;
    return request;
}

bool HlsSource::append(std::string_view bytes) {
    {
        std::unique_lock lock(m_mutex);
        if (m_buffer.room(m_position) < bytes.size()) {
            m_wake.wait(lock, [this] { return is_low() || m_failure != HttpFailure::none; });
        }
        if (m_failure != HttpFailure::none) {
            return false;
        }
        m_buffer.append(bytes, m_position);
    }
    m_changed.notify_all();
    m_progress_at = Clock::now();
    return true;
}

void HlsSource::finish() {
    locked([this] { return m_length = m_buffer.end(); });
    m_changed.notify_all();
}

}  // namespace local_core
