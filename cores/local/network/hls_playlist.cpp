#include "local/network/hls_playlist.h"

#include <algorithm>
#include <array>
#include <utility>
#include <variant>

#include "common/url/url.h"
#include "local/network/remote_playlist.h"

namespace local_core {

namespace {

namespace reader = nuvio::reader;

constexpr size_t kMaxSegments = 4000;
constexpr uint64_t kMaxNumber = uint64_t{1} << 62;
// What the longest segment counts for, in seconds, whatever a playlist says.
constexpr uint64_t kShortestTarget = 1;
constexpr uint64_t kLongestTarget = 60;

}  // namespace

HlsPlaylist::HlsPlaylist(HttpRequest request, std::string url, std::string text,
                         Interruption& interruption)
    : m_request(std::move(request)),
      m_interruption(interruption),
      m_own_url(m_request.url),
      m_url(std::move(url)),
      m_base(m_url),
      m_text(std::move(text)) {}

HttpFailure HlsPlaylist::begin() {
    if (take(m_text) != HttpFailure::none) {
        return HttpFailure::unusable;
    }
    if (!m_said.variant.empty()) {
        if (const HttpFailure failure = take_variant(); failure != HttpFailure::none) {
            return failure;
        }
    }
    return m_said.segments.empty() && (m_said.has_end || m_said.target_s == 0)
               ? fail(HttpFailure::unusable, "its playlist names nothing that can be played")
               : HttpFailure::none;
}

HttpFailure HlsPlaylist::take_variant() {
    const auto url = nuvio::resolve_url(m_base, m_said.variant);
    if (!url) {
        return fail(HttpFailure::unusable, "its playlist names no web address");
    }
    m_own_url = m_url = *url;
    const HttpFailure failure = load_text();
    return failure != HttpFailure::none || m_said.variant.empty()
               ? failure
               : fail(HttpFailure::unusable, "its playlist leads to no segments");
}

HttpFailure HlsPlaylist::take(const std::string& text) {
    const Interruption::Watch watch(m_interruption, [this] { m_reader.interrupt(); });
    auto outcome = m_reader.read_media(text, kMaxSegments);
    if (const auto* const failed = std::get_if<reader::Failure>(&outcome)) {
        return fail(HttpFailure::missing, "its playlist can't be read: " + failed->reason);
    }
    m_said = std::get<reader::MediaPlaylist>(std::move(outcome));
    m_said.first_number = std::min(m_said.first_number, kMaxNumber);
    return m_said.is_encrypted ? fail(HttpFailure::unusable, "the stream is encrypted")
                               : HttpFailure::none;
}

HttpFailure HlsPlaylist::load() {
    const HttpFailure failure = load_text();
    const bool passes = failure != HttpFailure::refused && failure != HttpFailure::unusable &&
                        failure != HttpFailure::cancelled;
    return passes ? HttpFailure::none : failure;
}

HttpFailure HlsPlaylist::load_text() {
    m_loaded_at = Clock::now();
    m_is_changed = false;
    m_reason.clear();
    std::string text;
    HttpFailure failure = fetch(&text);
    if (failure == HttpFailure::none && text != m_text) {
        failure = take(text);
        m_is_changed = failure == HttpFailure::none;
    }
    if (m_is_changed) {
        m_text = std::move(text);
    }
    if (failure == HttpFailure::none) {
        m_base = m_url;
    } else {
        m_url = m_own_url;
    }
    return failure;
}

// The text is read in small pieces, so that one that drips has an end too.
HttpFailure HlsPlaylist::fetch(std::string* text) {
    constexpr size_t kDrips = 1024;
    HlsFile file(request_for(m_url), m_interruption);
    const auto content = file.source.open();
    std::array<char, kDrips> piece;
    for (size_t got = kDrips; content && got == kDrips;) {
        got = file.source.read(piece.data(), kDrips);
        text->append(piece.data(), got);
        if (text->size() > reader::kMaxPlaylistBytes) {
            return fail(HttpFailure::unusable, "its playlist is too large");
        }
        if (Clock::now() - m_loaded_at >= m_request.give_up_after) {
            return fail(HttpFailure::unreachable, "its playlist comes too slowly");
        }
    }
    if (!content || file.source.failure() != HttpFailure::none) {
        return fail(file.source.failure(), file.source.error());
    }
    m_url = content->url;
    return is_stream_playlist(*text) ? HttpFailure::none
                                     : fail(HttpFailure::missing, "no playlist where it was");
}

HttpFailure HlsPlaylist::fail(HttpFailure failure, std::string reason) {
    m_reason = std::move(reason);
    return failure;
}

std::vector<uint64_t> HlsPlaylist::begins_us() const {
    std::vector<uint64_t> begins{0};
    for (const reader::MediaSegment& segment : m_said.segments) {
        if (!m_said.has_end || segment.duration_us == 0) {
            return {};
        }
        begins.push_back(begins.back() + segment.duration_us);
    }
    return begins;
}

HlsPlaylist::Clock::duration HlsPlaylist::target() const {
    return std::chrono::seconds(std::clamp(m_said.target_s, kShortestTarget, kLongestTarget));
}

// As long as its segments are, from one load to the next; half of that when nothing was new.
HlsPlaylist::Clock::time_point HlsPlaylist::reload_at() const {
    return m_loaded_at + (m_is_changed ? target() : target() / 2);
}

HttpRequest HlsPlaylist::request_for(const std::string& url) const {
    HttpRequest request = m_request;
    request.url = url;
    request.read_ahead_bytes = 0;
    request.give_up_after /= m_said.has_end ? 1 : 2;
    return request;
}

}  // namespace local_core
