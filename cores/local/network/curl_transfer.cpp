#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <deque>
#include <mutex>
#include <system_error>
#include <utility>

#include "common/code_pages.h"
#include "common/detached_thread.h"
#include "common/released_by.h"
#include "common/url/url.h"
#include "local/base/tls_library.h"
#include "local/network/http_transfer.h"

namespace local_core {

namespace {

using Easy = std::unique_ptr<CURL, nuvio::ReleasedBy<curl_easy_cleanup>>;
using Multi = std::unique_ptr<CURLM, nuvio::ReleasedBy<curl_multi_cleanup>>;
using Lines = std::unique_ptr<curl_slist, nuvio::ReleasedBy<curl_slist_free_all>>;

// Twice libcurl's own: half as many turns of the network's thread. Of one libcurl shows 16 KiB at a
// time, and of what is paused in its middle it keeps the rest.
constexpr long kReadBytes = 32L * 1024;

constexpr char kRefusal[] = "libcurl takes no request";

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
    std::call_once(once, [] {
        keep_tls_library();
        curl_global_init(CURL_GLOBAL_DEFAULT);
    });
}

bool has_a_name(const std::string& url) {
    const auto parts = nuvio::split_url(url);
    in6_addr address{};
    return parts && inet_pton(AF_INET, parts->host.c_str(), &address) != 1 &&
           inet_pton(AF_INET6, parts->host.c_str(), &address) != 1;
}

struct Handles {
    Multi multi{curl_multi_init()};
    Easy easy{curl_easy_init()};
    Lines lines;
    // Old radios say so in the place of "HTTP/1.0", with any status.
    Lines radio_status{curl_slist_append(nullptr, "ICY ")};
    char error[CURL_ERROR_SIZE] = "";

    bool is_looking_up() const {
        curl_off_t taken = 0;
        curl_easy_getinfo(easy.get(), CURLINFO_NAMELOOKUP_TIME_T, &taken);
        return taken == 0;
    }
    // Waits for a name's lookup.
    void end() {
        curl_easy_setopt(easy.get(), CURLOPT_QUICK_EXIT, 0L);
        curl_multi_remove_handle(multi.get(), easy.get());
        easy.reset();
        multi.reset();
    }
};

// Transfers that went while their name was being looked up: libcurl does so on a thread of its own,
// which lasts as long as the system asks its name servers. One thread waits for all of them.
class AbandonedLookups {
  public:
    // Never destroyed: its thread may outlive the process's end of the rest.
    static AbandonedLookups& instance() {
        static auto* const lookups = new AbandonedLookups;
        return *lookups;
    }

    bool is_full() {
        const std::lock_guard lock(m_mutex);
        return m_handles.size() >= kMost;
    }

    // Where there is no thread to be had, libcurl's is left to itself.
    void add(std::unique_ptr<Handles> handles) {
        const std::lock_guard lock(m_mutex);
        m_handles.push_back(std::move(handles));
        if (m_handles.size() == 1) {
            try {
                nuvio::start_detached("names", [this] { wait_for_all(); });
            } catch (const std::system_error&) {
                m_handles.clear();
            }
        }
    }

  private:
    static constexpr size_t kMost = 12;

    // The one that is waited for counts until its thread has ended.
    void wait_for_all() {
        std::unique_lock lock(m_mutex);
        while (!m_handles.empty()) {
            Handles& oldest = *m_handles.front();
            lock.unlock();
            oldest.end();
            lock.lock();
            m_handles.pop_front();
        }
    }

    std::mutex m_mutex;
    std::deque<std::unique_ptr<Handles>> m_handles;
};

// The newest ones are taken first: whoever comes again finds its own.
class KeptHandles final : public HttpTransfer::Connections {
  public:
    std::unique_ptr<Handles> take() {
        const std::lock_guard lock(m_mutex);
        if (m_handles.empty()) {
            return std::make_unique<Handles>();
        }
        std::unique_ptr<Handles> handles = std::move(m_handles.back());
        m_handles.pop_back();
        return handles;
    }

    void keep(std::unique_ptr<Handles> handles) {
        const std::lock_guard lock(m_mutex);
        if (m_handles.size() < kMost) {
            m_handles.push_back(std::move(handles));
        }
    }

  private:
    static constexpr size_t kMost = 2;

    std::mutex m_mutex;
    std::vector<std::unique_ptr<Handles>> m_handles;
};

class CurlTransfer final : public HttpTransfer {
  public:
    CurlTransfer(Handlers handlers, std::shared_ptr<KeptHandles> kept)
        : m_handlers(std::move(handlers)), m_kept(std::move(kept)) {
        initialise_library();
        m_handles = m_kept ? m_kept->take() : std::make_unique<Handles>();
    }
    ~CurlTransfer() override;

    const char* start(const Request& request) override;
    void stop() override;
    bool is_active() const override { return m_is_active; }
    void resume() override;
    std::optional<Outcome> perform() override;
    void wait(std::chrono::steady_clock::duration longest) override;
    void wake() override;

  private:
    static size_t on_header(char* bytes, size_t, size_t size, void* self);
    static size_t on_body(char* bytes, size_t, size_t size, void* self);

    Handlers m_handlers;
    const std::shared_ptr<KeptHandles> m_kept;
    std::unique_ptr<Handles> m_handles;
    bool m_is_active = false;
};

CurlTransfer::~CurlTransfer() {
    if (m_is_active && m_handles->is_looking_up()) {
        AbandonedLookups::instance().add(std::move(m_handles));
    } else {
        stop();
        if (m_kept) {
            m_kept->keep(std::move(m_handles));
        }
    }
}

const char* CurlTransfer::start(const Request& request) {
    CURL* easy = m_handles->easy.get();
    if (easy == nullptr) {
        return kRefusal;
    }
    if (has_a_name(request.url) && AbandonedLookups::instance().is_full()) {
        return "no name server answers";
    }
    m_handles->error[0] = '\0';
    m_handles->lines.reset();
    for (const std::string& line : request.lines) {
        add_line(m_handles->lines, line);
    }
    curl_easy_reset(easy);
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    // HTTP/2 where a TLS server offers it; plain HTTP is spoken as ever, for radios.
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS);
    // Redirects are followed here, so that each request's token is decided here.
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "nuvio-connect");
    curl_easy_setopt(easy, CURLOPT_HTTP200ALIASES, m_handles->radio_status.get());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, m_handles->lines.get());
    curl_easy_setopt(easy, CURLOPT_HEADEROPT, CURLHEADER_SEPARATE);  // none of them to a proxy
    curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);  // a name being looked up holds nobody
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, m_handles->error);
    const auto stalled = static_cast<long>(request.stalled_after.count());
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, stalled);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, stalled);
    if (!request.authorities.empty()) {
        curl_easy_setopt(easy, CURLOPT_CAINFO, request.authorities.c_str());
    }
    const std::string range = std::to_string(request.from) + '-';
    curl_easy_setopt(easy, CURLOPT_RANGE, request.from > 0 ? range.c_str() : nullptr);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReadBytes);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, on_header);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, on_body);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    m_is_active = curl_multi_add_handle(m_handles->multi.get(), easy) == CURLM_OK;
    return m_is_active ? nullptr : kRefusal;
}

void CurlTransfer::stop() {
    if (m_is_active) {
        curl_multi_remove_handle(m_handles->multi.get(), m_handles->easy.get());
        m_is_active = false;
    }
}

void CurlTransfer::resume() {
    curl_easy_pause(m_handles->easy.get(), CURLPAUSE_CONT);
}

std::optional<CurlTransfer::Outcome> CurlTransfer::perform() {
    int count = 0;
    curl_multi_perform(m_handles->multi.get(), &count);
    const CURLMsg* message = curl_multi_info_read(m_handles->multi.get(), &count);
    if (message == nullptr || message->msg != CURLMSG_DONE) {
        return std::nullopt;
    }
    const CURLcode code = message->data.result;
    stop();
    const bool is_final = std::ranges::find(kFinalErrors, code) != kFinalErrors.end();
    const char* const error = m_handles->error;
    return Outcome{code == CURLE_OK, is_final, *error != '\0' ? error : curl_easy_strerror(code)};
}

void CurlTransfer::wait(std::chrono::steady_clock::duration longest) {
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(longest).count();
    curl_multi_poll(m_handles->multi.get(), nullptr, 0,
                    static_cast<int>(std::max<decltype(wait)>(wait, 0)), nullptr);
}

void CurlTransfer::wake() {
    curl_multi_wakeup(m_handles->multi.get());
}

// On a count other than `size` libcurl ends the transfer with CURLE_WRITE_ERROR and calls neither
// function again. Of a head of 1xx each line comes, too; behind the body those of a trailer,
// without an empty one at the end. An answer that begins with "ICY " is one of HTTP/1.0 with status
// 200 to libcurl: its body comes whatever status the line has.
size_t CurlTransfer::on_header(char* bytes, size_t, size_t size, void* self) {
    std::string_view line(bytes, size);
    line = line.substr(0, line.find_last_not_of("\r\n") + 1);
    return static_cast<CurlTransfer*>(self)->m_handlers.on_line(line) ? size : 0;
}

// At most 16 KiB at a time. Of what is paused libcurl keeps a copy and reads no more from the
// server; curl_easy_pause shows it again before it returns, and what is refused then is gone,
// whatever the result that nobody looks at: only what is over anyway answers `stop`.
size_t CurlTransfer::on_body(char* bytes, size_t, size_t size, void* self) {
    using Answer = Handlers::Answer;
    static std::once_flag once;
    std::call_once(once, nuvio::give_back_code_pages);  // what only the beginning needed
    const Answer answer = static_cast<CurlTransfer*>(self)->m_handlers.on_body({bytes, size});
    if (answer == Answer::no_room) {
        return CURL_WRITEFUNC_PAUSE;
    }
    return answer == Answer::taken ? size : 0;
}

std::unique_ptr<HttpTransfer> make_transfer(
    HttpTransfer::Handlers handlers, std::shared_ptr<HttpTransfer::Connections> connections) {
    return std::make_unique<CurlTransfer>(
        std::move(handlers), std::static_pointer_cast<KeptHandles>(std::move(connections)));
}

std::shared_ptr<HttpTransfer::Connections> make_connections() {
    return std::make_shared<KeptHandles>();
}

}  // namespace

extern "C" __attribute__((visibility("default")))
const HttpModule kHttpModule = {make_transfer, make_connections};

}  // namespace local_core

// GnuTLS asks this word of its own as it is loaded, and finds it here first. Where it comes along
// it is with libcurl, for protocols that are not spoken: it need not get ready, which takes 0.12
// MB.
extern "C" __attribute__((visibility("default"))) int _gnutls_global_init_skip();
int _gnutls_global_init_skip() {
    return 1;
}
