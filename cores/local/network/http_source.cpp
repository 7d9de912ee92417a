#include "local/network/http_source.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "common/bearer.h"
#include "common/url/url.h"
#include "common/utf8.h"

namespace local_core {

namespace {

constexpr int kMaxRedirects = 5;
constexpr std::chrono::steady_clock::duration kFirstPause = std::chrono::milliseconds(250);
constexpr std::chrono::steady_clock::duration kLongestPause = std::chrono::seconds(4);
constexpr int kTriesAtLeast = 8;  // before it is given up
constexpr std::chrono::steady_clock::duration kUntilWoken = std::chrono::hours(1);
// A place this little ahead is sooner reached by reading on than by another request.
constexpr uint64_t kReadOnBytes = uint64_t{256} * 1024;
// Bytes a second. Half of what the thinnest speech takes; the silence of a lossless radio is less.
constexpr int64_t kLeastRate = 250;
constexpr int64_t kLeastRadioRate = 32;

}  // namespace

HttpSource::HttpSource(HttpRequest request)
    : RemoteSource(request.read_ahead_bytes), m_request(std::move(request)) {
    const auto url = nuvio::resolve_url("", m_request.url);
    std::string why_none;
    if (!url) {
        fail(HttpFailure::unusable, "not a URL of http or https");
    } else if (std::ranges::any_of(m_request.token, nuvio::is_control)) {
        fail(HttpFailure::unusable, "the token has control characters");
    } else if (m_transfer =
                   HttpTransfer::make({[this](std::string_view line) { return take_line(line); },
                                       [this](std::string_view bytes) { return take_body(bytes); }},
                                      &why_none);
               !m_transfer) {
        fail(HttpFailure::unusable, why_none);
    } else {
        m_url = *url;
        m_pause = kFirstPause;
        m_retry_at = m_progress_at = Clock::now();
        try {
            m_thread = std::thread([this] { run(); });
        } catch (const std::system_error& error) {
            fail(HttpFailure::unusable, error.what());
        }
    }
}

HttpSource::~HttpSource() {
    fail(HttpFailure::cancelled, "cancelled");
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

std::optional<HttpContent> HttpSource::open() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_content || m_failure != HttpFailure::none; });
    return m_failure == HttpFailure::none ? m_content : std::nullopt;
}

// A place that the present transfer will not come to, or not soon.
bool HttpSource::is_out_of_reach() const {
    if (m_length && m_position >= *m_length) {
        return false;
    }
    return m_position < m_buffer.begin() ||
           (m_has_ranges && m_position > m_buffer.end() + kReadOnBytes);
}

void HttpSource::on_moved() {
    if ((m_is_paused && is_low()) || is_out_of_reach()) {
        wake_thread();
    }
}

void HttpSource::wake_thread() {
    if (m_transfer) {
        m_transfer->wake();
    }
}

void HttpSource::run() {
    while (step()) {
        m_transfer->wait(next_event() - Clock::now());
    }
}

bool HttpSource::step() {
    bool resumes = false;
    bool wants_bytes = false;
    {
        const std::lock_guard lock(m_mutex);
        if (m_failure != HttpFailure::none) {
            return false;
        }
        if (is_out_of_reach()) {
            reposition();
        }
        resumes = m_is_paused && is_low();
        m_is_paused = m_is_paused && !resumes;
        wants_bytes = !m_is_paused && !is_complete();
    }
    const Clock::time_point now = Clock::now();
    if (resumes) {
        m_progress_at = now;
        m_transfer->resume();
    }
    if (wants_bytes && !m_transfer->is_active() && now >= m_retry_at) {
        start();
    }
    if (const auto outcome = m_transfer->perform()) {
        finish(*outcome);
    }
    if (wants_bytes && !is_reading_on() && Clock::now() >= given_up_at()) {
        const char* const otherwise = m_first ? "too slow" : "no answer";
        fail(HttpFailure::unreachable, m_reason.empty() ? otherwise : m_reason);
    }
    return true;
}

void HttpSource::reposition() {
    m_transfer->stop();
    m_is_paused = false;
    m_buffer.restart_at(m_has_ranges ? m_position : 0);
    m_pause = kFirstPause;
    m_retry_at = m_progress_at = Clock::now();
}

// On the way to the place from a server that begins at 0: nothing new comes, but the transfer
// itself watches for a stall.
bool HttpSource::is_reading_on() const {
    return m_transfer->is_active() && m_skip > 0;
}

HttpSource::Clock::time_point HttpSource::given_up_at() const {
    const bool was_never_there = !m_first && !m_reason.empty();
    return m_progress_at +
           (was_never_there ? m_request.give_up_unanswered_after.value_or(m_request.give_up_after)
                            : m_request.give_up_after);
}

HttpSource::Clock::time_point HttpSource::next_event() const {
    const std::lock_guard lock(m_mutex);
    if (m_failure != HttpFailure::none) {
        return Clock::now();
    }
    if (m_is_paused || is_complete() || is_reading_on()) {
        return Clock::now() + kUntilWoken;
    }
    return m_transfer->is_active() ? given_up_at() : std::min(given_up_at(), m_retry_at);
}

std::vector<std::string> HttpSource::request_lines() const {
    std::vector<std::string> lines = {"Icy-MetaData: 1"};
    if (m_asked_from > 0 && m_first && !m_first->strong_validator().empty()) {
        lines.push_back("If-Range: " + m_first->strong_validator());
    }
    if (!m_request.token.empty() && nuvio::same_origin(m_url, m_request.token_origin)) {
        lines.push_back("Authorization: " + nuvio::bearer_value(m_request.token));
    }
    return lines;
}

void HttpSource::start() {
    m_asked_from = m_first && m_first->is_radio ? 0 : locked([&] { return m_buffer.end(); });
    m_skip = 0;
    m_response = {};
    m_verdict = {};
    std::string why_not;
    if (!m_transfer->start(
            {m_url, request_lines(), m_asked_from, m_request.stalled_after, m_request.authorities},
            &why_not)) {
        try_again(why_not);
    }
}

void HttpSource::finish(const HttpTransfer::Outcome& outcome) {
    using Kind = HttpVerdict::Kind;
    locked([&] { return m_is_paused = false; });
    const bool is_whole = outcome.is_complete && !m_response.is_radio &&
                          locked([&] { return !m_length || is_complete(); });
    if (m_verdict.kind == Kind::redirected) {
        follow_redirect();
    } else if (m_verdict.kind == Kind::failed) {
        fail(m_verdict.failure, m_verdict.reason);
    } else if (m_verdict.kind == Kind::try_again) {
        try_again(m_verdict.reason);
    } else if (m_verdict.kind == Kind::at_end) {
        locked([&] { return m_length = m_verdict.length; });
        m_changed.notify_all();
    } else if (is_whole) {
        locked([&] { return m_length = m_length.value_or(m_buffer.end()); });
        m_changed.notify_all();
    } else if (outcome.is_final) {
        fail(HttpFailure::unusable, outcome.error);
    } else {
        try_again(outcome.is_complete ? "the connection ended early" : outcome.error);
    }
}

void HttpSource::follow_redirect() {
    const auto next = nuvio::resolve_url(m_url, m_response.location);
    if (!next || ++m_redirects > kMaxRedirects) {
        fail(HttpFailure::unusable, next ? "too many redirects" : "redirected to no web address");
        return;
    }
    m_url = *next;
    m_retry_at = Clock::now();
}

void HttpSource::try_again(const std::string& reason) {
    m_reason = reason;
    m_retry_at = Clock::now() + m_pause;
    m_pause = std::min<Clock::duration>(
        {2 * m_pause, kLongestPause, m_request.give_up_after / kTriesAtLeast});
    // Where redirects led may be over.
    m_url = nuvio::resolve_url("", m_request.url).value_or(m_request.url);
    m_redirects = 0;
}

bool HttpSource::take_line(std::string_view line) {
    if (!line.empty()) {
        m_response.take_line(line);
        return true;
    }
    if (m_response.is_interim()) {
        return true;
    }
    m_verdict = judge(m_response, m_first ? &*m_first : nullptr, m_asked_from);
    if (m_verdict.kind != HttpVerdict::Kind::accepted) {
        return false;  // no body is of interest
    }
    accept();
    return true;
}

void HttpSource::accept() {
    m_icy = IcyFilter(m_response.icy_interval);
    m_skip = m_verdict.skip;
    {
        const std::lock_guard lock(m_mutex);
        m_has_ranges = m_has_ranges && m_skip == 0;
        if (!m_first) {
            m_first = m_response;
            m_length = m_response.file_length();
            m_is_radio = m_response.is_radio;
            m_content = {m_url, m_response.content_type, m_length, m_response.is_radio,
                         m_response.station};
        }
    }
    m_changed.notify_all();
}

HttpTransfer::Handlers::Answer HttpSource::take_body(std::string_view bytes) {
    using Answer = HttpTransfer::Handlers::Answer;
    size_t added = 0;
    {
        const std::lock_guard lock(m_mutex);
        if (m_failure != HttpFailure::none) {
            return Answer::stop;
        }
        if (m_buffer.room(m_position) < bytes.size()) {
            m_is_paused = true;
            return Answer::no_room;
        }
        const auto skipped = static_cast<size_t>(std::min<uint64_t>(m_skip, bytes.size()));
        m_skip -= skipped;
        added = bytes.size() - skipped;
        m_icy.feed(
            bytes.substr(skipped), [&](std::string_view audio) { append_audio(audio); },
            [&](std::string_view title) { note_title(title); });
    }
    // Else a server that says too great a length would be read from the start for ever.
    if (added > 0) {
        note_progress(added);
        m_pause = kFirstPause;
        m_changed.notify_all();
    }
    return Answer::taken;
}

// Not later than now: what came in a burst is no credit for a drip after it.
void HttpSource::note_progress(size_t bytes) {
    const int64_t rate = m_response.is_radio ? kLeastRadioRate : kLeastRate;
    m_progress_at = std::min<Clock::time_point>(
        Clock::now(),
        m_progress_at + std::chrono::milliseconds(static_cast<int64_t>(bytes) * 1000 / rate));
}

void HttpSource::append_audio(std::string_view bytes) {
    const uint64_t left = m_length ? *m_length - std::min(*m_length, m_buffer.end()) : bytes.size();
    m_buffer.append(bytes.substr(0, static_cast<size_t>(left)), m_position);
}

}  // namespace local_core
