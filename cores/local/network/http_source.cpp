#include "local/network/http_source.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "common/released_by.h"
#include "common/text.h"
#include "common/utf8.h"
#include "local/network/http_response.h"
#include "local/network/icy.h"
#include "local/network/stream_buffer.h"
#include "local/network/url.h"

namespace local_core {

namespace {

using Clock = std::chrono::steady_clock;
using Easy = std::unique_ptr<CURL, nuvio::ReleasedBy<curl_easy_cleanup>>;
using Multi = std::unique_ptr<CURLM, nuvio::ReleasedBy<curl_multi_cleanup>>;
using Lines = std::unique_ptr<curl_slist, nuvio::ReleasedBy<curl_slist_free_all>>;

constexpr int kMaxRedirects = 5;
constexpr Clock::duration kFirstPause = std::chrono::milliseconds(250);
constexpr Clock::duration kLongestPause = std::chrono::seconds(8);
constexpr Clock::duration kUntilWoken = std::chrono::hours(1);
// A place this little ahead is sooner reached by reading on than by another request.
constexpr uint64_t kReadOnBytes = uint64_t{256} * 1024;
constexpr size_t kMaxTitles = 64;
constexpr uint64_t kMaxPosition = INT64_MAX;

// What another try can't mend.
constexpr std::array kFinalErrors = {
    CURLE_UNSUPPORTED_PROTOCOL, CURLE_URL_MALFORMAT, CURLE_PEER_FAILED_VERIFICATION,
    CURLE_SSL_CACERT_BADFILE,   CURLE_OUT_OF_MEMORY, CURLE_BAD_FUNCTION_ARGUMENT,
};

void add_line(Lines& lines, const std::string& line) {
    if (curl_slist* longer = curl_slist_append(lines.get(), line.c_str())) {
        static_cast<void>(lines.release());
        lines.reset(longer);
    }
}

void initialise_library() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

class HttpSource::Transfer {
  private:
    template <typename Get>
    auto locked(Get get) const {
        const std::lock_guard lock(m_mutex);
        return get();
    }

  public:
    explicit Transfer(HttpRequest request);
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    std::optional<HttpContent> open();
    size_t read(void* to, size_t size);
    bool seek(uint64_t position);
    uint64_t position() const {
        return locked([&] { return m_position; });
    }
    std::optional<uint64_t> length() const {
        return locked([&] { return m_length; });
    }
    std::string title() const;
    void fail(HttpFailure failure, const std::string& error);
    HttpFailure failure() const {
        return locked([&] { return m_failure; });
    }
    std::string error() const {
        return locked([&] { return m_error; });
    }

  private:
    // What the head of a response leads to.
    enum class Verdict { none, accepted, redirected, at_end, try_again, failed };

    // Under the lock.
    bool is_complete() const { return m_length && m_buffer.end() >= *m_length; }
    bool is_out_of_reach() const;
    bool may_resume() const;
    void wake_when_needed();

    // The network's thread.
    void run();
    bool step();
    void reposition();
    void start();
    void stop();
    void perform();
    void finish(CURLcode code);
    void follow_redirect();
    void try_again(const std::string& reason);
    Clock::time_point next_event() const;
    Lines request_lines() const;
    Verdict judge();
    Verdict judge_whole_file();
    Verdict judge_range_beyond_end();
    Verdict refuse(HttpFailure failure, std::string reason);
    void accept();
    size_t take_body(std::string_view bytes);
    void append_audio(std::string_view bytes);

    static size_t on_header(char* bytes, size_t, size_t size, void* self);
    static size_t on_body(char* bytes, size_t, size_t size, void* self);

    const HttpRequest m_request;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    // Under the lock from here.
    StreamBuffer m_buffer;
    uint64_t m_position = 0;
    std::optional<uint64_t> m_length;
    std::optional<HttpContent> m_content;
    std::deque<std::pair<uint64_t, std::string>> m_titles;  // from which position on
    HttpFailure m_failure = HttpFailure::none;
    std::string m_error;
    bool m_is_paused = false;  // libcurl's transfer, for want of room
    bool m_has_ranges = true;  // until the server shows otherwise
    // The network's thread alone from here.
    Multi m_multi;
    Easy m_easy;
    Lines m_lines;
    char m_curl_error[CURL_ERROR_SIZE] = "";
    bool m_is_active = false;
    std::string m_url;  // of the present request
    int m_redirects = 0;
    uint64_t m_asked_from = 0;
    uint64_t m_skip = 0;  // bytes of the body that are there already
    HttpResponse m_response;
    std::optional<HttpResponse> m_first;  // the one that the content was begun with
    Verdict m_verdict = Verdict::none;
    HttpFailure m_verdict_failure = HttpFailure::none;
    std::string m_reason;  // of the last failure, passing or not
    IcyFilter m_icy;
    Clock::duration m_pause = kFirstPause;
    Clock::time_point m_retry_at;
    Clock::time_point m_progress_at;  // the last byte, or since when one is wanted

    std::thread m_thread;  // last: it uses all of the above
};

HttpSource::Transfer::Transfer(HttpRequest request)
    : m_request(std::move(request)), m_buffer(m_request.read_ahead_bytes) {
    initialise_library();
    m_multi.reset(curl_multi_init());
    m_easy.reset(curl_easy_init());
    const auto url = resolve_url("", m_request.url);
    if (!m_multi || !m_easy) {
        fail(HttpFailure::unusable, "out of memory");
    } else if (!url) {
        fail(HttpFailure::unusable, "not a URL of http or https");
    } else if (std::ranges::any_of(m_request.token, nuvio::is_control)) {
        fail(HttpFailure::unusable, "the token has control characters");
    } else {
        m_url = *url;
        m_retry_at = m_progress_at = Clock::now();
        try {
            m_thread = std::thread([this] { run(); });
        } catch (const std::system_error& error) {
            fail(HttpFailure::unusable, error.what());
        }
    }
}

HttpSource::Transfer::~Transfer() {
    fail(HttpFailure::cancelled, "cancelled");
    if (m_thread.joinable()) {
        m_thread.join();
    }
    stop();
}

std::optional<HttpContent> HttpSource::Transfer::open() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_content || m_failure != HttpFailure::none; });
    return m_failure == HttpFailure::none ? m_content : std::nullopt;
}

size_t HttpSource::Transfer::read(void* to, size_t size) {
    std::unique_lock lock(m_mutex);
    size_t done = 0;
    while (done < size && m_failure != HttpFailure::cancelled) {
        const size_t got = m_buffer.copy(m_position, static_cast<char*>(to) + done, size - done);
        m_position += got;
        done += got;
        wake_when_needed();
        if (got == 0) {
            if (m_failure != HttpFailure::none || (m_length && m_position >= *m_length)) {
                break;
            }
            m_changed.wait(lock);
        }
    }
    return done;
}

bool HttpSource::Transfer::seek(uint64_t position) {
    const std::lock_guard lock(m_mutex);
    if (position > kMaxPosition || (m_content && m_content->is_radio)) {
        return false;
    }
    m_position = position;
    return true;
}

std::string HttpSource::Transfer::title() const {
    const std::lock_guard lock(m_mutex);
    std::string title;
    for (const auto& [from, text] : m_titles) {
        if (from <= m_position) {
            title = text;
        }
    }
    return title;
}

void HttpSource::Transfer::fail(HttpFailure failure, const std::string& error) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_failure == HttpFailure::none || failure == HttpFailure::cancelled) {
            m_failure = failure;
            m_error = error;
        }
    }
    m_changed.notify_all();
    if (m_multi) {
        curl_multi_wakeup(m_multi.get());
    }
}

// A place that the present transfer will not come to, or not soon.
bool HttpSource::Transfer::is_out_of_reach() const {
    if (m_length && m_position >= *m_length) {
        return false;
    }
    return m_position < m_buffer.begin() ||
           (m_has_ranges && m_position > m_buffer.end() + kReadOnBytes);
}

// Less than a quarter is left to read.
bool HttpSource::Transfer::may_resume() const {
    return m_is_paused &&
           (m_position >= m_buffer.end() || m_buffer.end() - m_position < m_buffer.capacity() / 4);
}

void HttpSource::Transfer::wake_when_needed() {
    if (may_resume() || is_out_of_reach()) {
        curl_multi_wakeup(m_multi.get());
    }
}

void HttpSource::Transfer::run() {
    while (step()) {
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next_event() - Clock::now());
        curl_multi_poll(m_multi.get(), nullptr, 0,
                        static_cast<int>(std::max<int64_t>(wait.count(), 0)), nullptr);
    }
}

bool HttpSource::Transfer::step() {
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
        resumes = may_resume();
        m_is_paused = m_is_paused && !resumes;
        wants_bytes = !m_is_paused && !is_complete();
    }
    const Clock::time_point now = Clock::now();
    if (resumes) {
        m_progress_at = now;
        curl_easy_pause(m_easy.get(), CURLPAUSE_CONT);
    }
    if (wants_bytes && !m_is_active && now >= m_retry_at) {
        start();
    }
    perform();
    if (wants_bytes && Clock::now() >= m_progress_at + m_request.give_up_after) {
        fail(HttpFailure::unreachable, m_reason.empty() ? "no answer" : m_reason);
    }
    return true;
}

void HttpSource::Transfer::reposition() {
    stop();
    m_is_paused = false;
    m_buffer.restart_at(m_has_ranges ? m_position : 0);
    m_pause = kFirstPause;
    m_retry_at = m_progress_at = Clock::now();
}

Clock::time_point HttpSource::Transfer::next_event() const {
    const std::lock_guard lock(m_mutex);
    if (m_failure != HttpFailure::none) {
        return Clock::now();
    }
    if (m_is_paused || is_complete()) {
        return Clock::now() + kUntilWoken;
    }
    const Clock::time_point given_up_at = m_progress_at + m_request.give_up_after;
    return m_is_active ? given_up_at : std::min(given_up_at, m_retry_at);
}

Lines HttpSource::Transfer::request_lines() const {
    Lines lines;
    add_line(lines, "Icy-MetaData: 1");
    if (m_asked_from > 0 && m_first && !m_first->strong_validator().empty()) {
        add_line(lines, "If-Range: " + m_first->strong_validator());
    }
    if (!m_request.token.empty() && same_origin(m_url, m_request.token_origin)) {
        add_line(lines, "Authorization: Bearer " + m_request.token);
    }
    return lines;
}

void HttpSource::Transfer::start() {
    m_asked_from = m_first && m_first->is_radio ? 0 : locked([&] { return m_buffer.end(); });
    m_skip = 0;
    m_response = {};
    m_verdict = Verdict::none;
    m_curl_error[0] = '\0';
    m_lines = request_lines();
    CURL* easy = m_easy.get();
    curl_easy_reset(easy);
    curl_easy_setopt(easy, CURLOPT_URL, m_url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    // One stream at a time gains nothing from HTTP/2, whose window would be a second buffer.
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
    // Redirects are followed here, so that each request's token is decided here.
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "nuvio-connect");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, m_lines.get());
    curl_easy_setopt(easy, CURLOPT_HEADEROPT, CURLHEADER_SEPARATE);  // none of them to a proxy
    curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);  // a name being looked up holds nobody
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, m_curl_error);
    const auto stalled = static_cast<long>(m_request.stalled_after.count());
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, stalled);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, stalled);
    if (!m_request.authorities.empty()) {
        curl_easy_setopt(easy, CURLOPT_CAINFO, m_request.authorities.c_str());
    }
    const std::string range = std::to_string(m_asked_from) + '-';
    curl_easy_setopt(easy, CURLOPT_RANGE, m_asked_from > 0 ? range.c_str() : nullptr);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, on_header);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, on_body);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    m_is_active = curl_multi_add_handle(m_multi.get(), easy) == CURLM_OK;
    if (!m_is_active) {
        try_again("libcurl takes no request");
    }
}

void HttpSource::Transfer::stop() {
    if (m_is_active) {
        curl_multi_remove_handle(m_multi.get(), m_easy.get());
        m_is_active = false;
    }
}

void HttpSource::Transfer::perform() {
    int running = 0;
    curl_multi_perform(m_multi.get(), &running);
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(m_multi.get(), &left)) {
        if (message->msg == CURLMSG_DONE) {
            const CURLcode code = message->data.result;
            stop();
            finish(code);
        }
    }
}

void HttpSource::Transfer::finish(CURLcode code) {
    locked([&] { return m_is_paused = false; });
    const std::string curl_error = *m_curl_error != '\0' ? m_curl_error : curl_easy_strerror(code);
    if (m_verdict == Verdict::redirected) {
        follow_redirect();
    } else if (m_verdict == Verdict::failed) {
        fail(m_verdict_failure, m_reason);
    } else if (m_verdict == Verdict::try_again) {
        try_again(m_reason);
    } else if (m_verdict == Verdict::at_end ||
               (code == CURLE_OK && !m_response.is_radio &&
                locked([&] { return !m_length || is_complete(); }))) {
        locked([&] { return m_length = m_length && is_complete() ? *m_length : m_buffer.end(); });
        m_changed.notify_all();
    } else if (std::ranges::find(kFinalErrors, code) != kFinalErrors.end()) {
        fail(HttpFailure::unusable, curl_error);
    } else {
        try_again(code == CURLE_OK ? "the connection ended early" : curl_error);
    }
}

void HttpSource::Transfer::follow_redirect() {
    const auto next = resolve_url(m_url, m_response.location);
    if (!next || ++m_redirects > kMaxRedirects) {
        fail(HttpFailure::unusable, next ? "too many redirects" : "redirected to no web address");
        return;
    }
    m_url = *next;
    m_retry_at = Clock::now();
}

void HttpSource::Transfer::try_again(const std::string& reason) {
    m_reason = reason;
    m_retry_at = Clock::now() + m_pause;
    m_pause = std::min(2 * m_pause, kLongestPause);
    // Where redirects led may be over.
    m_url = resolve_url("", m_request.url).value_or(m_request.url);
    m_redirects = 0;
}

HttpSource::Transfer::Verdict HttpSource::Transfer::refuse(HttpFailure failure,
                                                           std::string reason) {
    m_verdict_failure = failure;
    m_reason = std::move(reason);
    return Verdict::failed;
}

HttpSource::Transfer::Verdict HttpSource::Transfer::judge() {
    const int status = m_response.status;
    if (m_response.is_redirect()) {
        return Verdict::redirected;
    }
    if (status == 416 && m_asked_from > 0) {
        return judge_range_beyond_end();
    }
    if (status == 200 || status == 206) {
        if (m_first && !m_first->is_radio && m_response.differs_from(*m_first)) {
            return refuse(HttpFailure::changed, "the file changed meanwhile");
        }
        if (status == 200) {
            return judge_whole_file();
        }
        return m_response.range_first == m_asked_from
                   ? Verdict::accepted
                   : refuse(HttpFailure::missing, "the server sent another range than asked");
    }
    const std::string reason = "the server answers " + std::to_string(status);
    if (m_response.is_passing()) {
        m_reason = reason;
        return Verdict::try_again;
    }
    const bool is_refused = status == 401 || status == 403;
    return refuse(is_refused ? HttpFailure::refused : HttpFailure::missing, reason);
}

HttpSource::Transfer::Verdict HttpSource::Transfer::judge_whole_file() {
    if (m_asked_from == 0) {
        return Verdict::accepted;
    }
    // A server without ranges begins anew: that is of use where it is the same file.
    const HttpResponse& first = m_first ? *m_first : m_response;
    if (!first.file_length() && first.etag.empty() && first.last_modified.empty()) {
        return refuse(HttpFailure::missing, "the server can't go on from where it broke");
    }
    m_skip = m_asked_from;
    locked([&] { return m_has_ranges = false; });
    return Verdict::accepted;
}

// Also how a file ends that is shorter than was told at first.
HttpSource::Transfer::Verdict HttpSource::Transfer::judge_range_beyond_end() {
    const auto total = m_response.range_total;
    if (m_first && m_first->file_length() && total.value_or(m_asked_from) != m_asked_from) {
        return refuse(HttpFailure::changed, "the file changed meanwhile");
    }
    locked([&] { return m_length = std::min(total.value_or(m_asked_from), m_asked_from); });
    return Verdict::at_end;
}

void HttpSource::Transfer::accept() {
    m_icy = IcyFilter(m_response.icy_interval);
    {
        const std::lock_guard lock(m_mutex);
        if (!m_first) {
            m_first = m_response;
            m_length = m_response.file_length();
            m_content = {m_url, m_response.content_type, m_length, m_response.is_radio,
                         m_response.station};
        }
    }
    m_changed.notify_all();
}

size_t HttpSource::Transfer::on_header(char* bytes, size_t, size_t size, void* self) {
    auto& transfer = *static_cast<Transfer*>(self);
    const std::string_view line = nuvio::trim({bytes, size});
    if (!line.empty()) {
        transfer.m_response.take_line(line);
        return size;
    }
    if (transfer.m_response.status < 200) {
        return size;
    }
    transfer.m_verdict = transfer.judge();
    if (transfer.m_verdict != Verdict::accepted) {
        return 0;  // no body is of interest
    }
    transfer.accept();
    return size;
}

size_t HttpSource::Transfer::on_body(char* bytes, size_t, size_t size, void* self) {
    return static_cast<Transfer*>(self)->take_body({bytes, size});
}

size_t HttpSource::Transfer::take_body(std::string_view bytes) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_failure != HttpFailure::none) {
            return 0;
        }
        if (m_buffer.room(m_position) < bytes.size()) {
            m_is_paused = true;
            return CURL_WRITEFUNC_PAUSE;
        }
        const auto skipped = static_cast<size_t>(std::min<uint64_t>(m_skip, bytes.size()));
        m_skip -= skipped;
        m_icy.feed(
            bytes.substr(skipped), [&](std::string_view audio) { append_audio(audio); },
            [&](std::string_view title) {
                if (m_titles.empty() || m_titles.back().second != title) {
                    m_titles.emplace_back(m_buffer.end(), title);
                }
                if (m_titles.size() > kMaxTitles) {
                    m_titles.pop_front();
                }
            });
    }
    m_progress_at = Clock::now();
    m_pause = kFirstPause;
    m_changed.notify_all();
    return bytes.size();
}

void HttpSource::Transfer::append_audio(std::string_view bytes) {
    const uint64_t left = m_length ? *m_length - std::min(*m_length, m_buffer.end()) : bytes.size();
    m_buffer.append(bytes.substr(0, static_cast<size_t>(left)), m_position);
}

HttpSource::HttpSource(HttpRequest request)
    : m_transfer(std::make_unique<Transfer>(std::move(request))) {}

HttpSource::~HttpSource() = default;

std::optional<HttpContent> HttpSource::open() {
    return m_transfer->open();
}

size_t HttpSource::read(void* to, size_t size) {
    return m_transfer->read(to, size);
}

bool HttpSource::seek(uint64_t position) {
    return m_transfer->seek(position);
}

uint64_t HttpSource::position() const {
    return m_transfer->position();
}

std::optional<uint64_t> HttpSource::length() const {
    return m_transfer->length();
}

std::string HttpSource::title() const {
    return m_transfer->title();
}

void HttpSource::cancel() {
    m_transfer->fail(HttpFailure::cancelled, "cancelled");
}

HttpFailure HttpSource::failure() const {
    return m_transfer->failure();
}

std::string HttpSource::error() const {
    return m_transfer->error();
}

}  // namespace local_core
