#include "local/network/fetcher/fetches.h"

#include <malloc.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/code_pages.h"
#include "common/process/packets.h"
#include "local/network/fetcher/fetch_protocol.h"

namespace local_core {

namespace {

using Easy = std::unique_ptr<CURL, nuvio::ReleasedBy<curl_easy_cleanup>>;
using Lines = std::unique_ptr<curl_slist, nuvio::ReleasedBy<curl_slist_free_all>>;

// Twice libcurl's own: half as many turns. Of one libcurl shows 16 KiB at a time, and of what is
// paused in its middle it keeps the rest.
constexpr long kReadBytes = 32L * 1024;
constexpr int kUntilWokenMs = std::chrono::milliseconds(std::chrono::hours(1)).count();
constexpr long kKeptConnections = 8;

// libcurl looks a name up on a thread, which lasts as long as the system asks its name servers,
// also when nobody wants the answer any more. After so many this process takes no request more: its
// end ends them, too.
constexpr int kMostAbandonedLookups = 12;

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

// Old radios say so in the place of "HTTP/1.0", with any status.
curl_slist* radio_status() {
    static const Lines lines(curl_slist_append(nullptr, "ICY "));
    return lines.get();
}

// Whether the system's authorities lie in a folder by their names, too. OpenSSL looks the one that
// it needs up there; all of them, out of one file, take it 0.7 MB and 20 ms.
bool are_authorities_named() {
    static const bool are = [] {
        const char* const folder = curl_version_info(CURLVERSION_NOW)->capath;
        std::error_code failure;
        std::filesystem::directory_iterator entry(folder != nullptr ? folder : "", failure);
        // Of a hash, and the first one that has it.
        while (entry != end(entry) && entry->path().extension() != ".0") {
            entry.increment(failure);
        }
        return entry != end(entry);
    }();
    return are;
}

}  // namespace

// One request. It ends when the other side closes its socket, or with the last packet sent.
class Fetch {
  public:
    // `texts`: as behind the record in its packet.
    Fetch(CURLM* multi, nuvio::UniqueFd socket, const FetchRequest& request,
          std::string_view texts);
    ~Fetch();
    Fetch(const Fetch&) = delete;
    Fetch& operator=(const Fetch&) = delete;

    curl_waitfd wanted() const {
        const auto room = static_cast<short>(m_is_blocked ? CURL_WAIT_POLLOUT : 0);
        return {m_socket.get(), static_cast<short>(CURL_WAIT_POLLIN | room), 0};
    }
    void on_events(short events);
    void finish(CURLcode code);

    bool is_over() const { return m_is_over; }
    bool is_looking_up() const;

  private:
    static size_t on_header(char* bytes, size_t, size_t size, void* self);
    static size_t on_body(char* bytes, size_t, size_t size, void* self);

    enum class Sent { all, no_room, none };
    Sent send(FetchPacket kind, std::string_view bytes);
    Sent send_lines();
    void send_end();

    CURLM* const m_multi;
    const nuvio::UniqueFd m_socket;
    const Easy m_easy{curl_easy_init()};
    Lines m_request_lines;
    char m_error[CURL_ERROR_SIZE] = "";
    std::string m_lines;  // of the answer's head, that are to be sent
    std::string m_end;    // the last packet; empty: not yet
    bool m_trusts_by_name = false;
    bool m_is_blocked = false;
    bool m_is_over = false;
};

Fetch::Fetch(CURLM* multi, nuvio::UniqueFd socket, const FetchRequest& request,
             std::string_view texts)
    : m_multi(multi), m_socket(std::move(socket)) {
    CURL* const easy = m_easy.get();
    if (easy == nullptr) {
        finish(CURLE_OUT_OF_MEMORY);
        return;
    }
    const auto take = [&texts](size_t bytes) {
        const std::string_view taken = texts.substr(0, bytes);
        texts.remove_prefix(taken.size());
        return std::string(taken);
    };
    const std::string url = take(request.url_bytes);
    const std::string authorities = take(request.authorities_bytes);
    while (!texts.empty()) {
        add_line(m_request_lines, take(texts.find('\n')));
        texts.remove_prefix(std::min<size_t>(texts.size(), 1));
    }
    curl_easy_setopt(easy, CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    // HTTP/2 where a TLS server offers it; plain HTTP is spoken as ever, for radios.
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS);
    // Redirects are followed by the core, so that each request's token is decided there.
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "nuvio-connect");
    curl_easy_setopt(easy, CURLOPT_HTTP200ALIASES, radio_status());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, m_request_lines.get());
    curl_easy_setopt(easy, CURLOPT_HEADEROPT, CURLHEADER_SEPARATE);  // none of them to a proxy
    curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);  // a name being looked up holds nobody
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, m_error);
    const auto stalled = static_cast<long>(request.stalled_after_s);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, stalled);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, stalled);
    m_trusts_by_name = authorities.empty() && url.starts_with("https:") && are_authorities_named();
    if (m_trusts_by_name || !authorities.empty()) {
        curl_easy_setopt(easy, CURLOPT_CAINFO, m_trusts_by_name ? nullptr : authorities.c_str());
    }
    const std::string range = std::to_string(request.from) + '-';
    curl_easy_setopt(easy, CURLOPT_RANGE, request.from > 0 ? range.c_str() : nullptr);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReadBytes);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, on_header);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, on_body);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    if (curl_multi_add_handle(m_multi, easy) != CURLM_OK) {
        finish(CURLE_OUT_OF_MEMORY);
    }
}

Fetch::~Fetch() {
    curl_multi_remove_handle(m_multi, m_easy.get());
}

bool Fetch::is_looking_up() const {
    curl_off_t taken = 0;
    curl_easy_getinfo(m_easy.get(), CURLINFO_NAMELOOKUP_TIME_T, &taken);
    return taken == 0 && m_end.empty();
}

void Fetch::on_events(short events) {
    if ((events & CURL_WAIT_POLLIN) != 0) {
        m_is_over = true;  // nothing is ever sent this way: it is closed
    } else if ((events & CURL_WAIT_POLLOUT) != 0) {
        m_is_blocked = false;
        if (m_end.empty()) {
            curl_easy_pause(m_easy.get(), CURLPAUSE_CONT);
        } else {
            send_end();
        }
    }
}

void Fetch::finish(CURLcode code) {
    curl_multi_remove_handle(m_multi, m_easy.get());
    if (code == CURLE_PEER_FAILED_VERIFICATION && std::exchange(m_trusts_by_name, false)) {
        // Who adds to the file need not have added to the folder.
        curl_easy_setopt(m_easy.get(), CURLOPT_CAINFO, curl_version_info(CURLVERSION_NOW)->cainfo);
        if (curl_multi_add_handle(m_multi, m_easy.get()) == CURLM_OK) {
            return;
        }
    }
    const bool is_final = std::ranges::find(kFinalErrors, code) != kFinalErrors.end();
    const FetchEnd end{code == CURLE_OK, is_final};
    m_end = nuvio::bytes_of(end);
    m_end += m_error[0] != '\0' ? m_error : curl_easy_strerror(code);
    send_end();
}

void Fetch::send_end() {
    Sent sent = send_lines();
    if (sent == Sent::all) {
        sent = send(FetchPacket::end, m_end);
    }
    m_is_over = sent != Sent::no_room;
}

Fetch::Sent Fetch::send(FetchPacket kind, std::string_view bytes) {
    if (nuvio::send_packet(m_socket.get(), {nuvio::bytes_of(kind), bytes})) {
        return Sent::all;
    }
    m_is_blocked = errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS;
    return m_is_blocked ? Sent::no_room : Sent::none;
}

Fetch::Sent Fetch::send_lines() {
    const Sent sent = m_lines.empty() ? Sent::all : send(FetchPacket::lines, m_lines);
    if (sent == Sent::all) {
        m_lines.clear();
    }
    return sent;
}

// On a count other than `size` libcurl ends the transfer with CURLE_WRITE_ERROR and calls neither
// function again. Of a head of 1xx each line comes, too; behind the body those of a trailer,
// without an empty one at the end. An answer that begins with "ICY " is one of HTTP/1.0 with status
// 200 to libcurl: its body comes whatever status the line has.
size_t Fetch::on_header(char* bytes, size_t, size_t size, void* self) {
    auto& fetch = *static_cast<Fetch*>(self);
    std::string_view line(bytes, size);
    line = line.substr(0, line.find_last_not_of("\r\n") + 1);
    while (fetch.m_lines.size() + line.size() >= kFetchPieceBytes) {
        const size_t fits = kFetchPieceBytes - fetch.m_lines.size();
        fetch.m_lines += line.substr(0, fits);
        line.remove_prefix(std::min(fits, line.size()));
        if (fetch.send_lines() != Sent::all) {
            return 0;  // a head that nobody can want
        }
    }
    fetch.m_lines += line;
    fetch.m_lines += '\n';
    return line.empty() && fetch.send_lines() == Sent::none ? 0 : size;
}

// At most 16 KiB at a time. Of what is paused libcurl keeps a copy and reads no more from the
// server; curl_easy_pause shows it again before it returns, and what is refused then is gone,
// whatever the result that nobody looks at.
size_t Fetch::on_body(char* bytes, size_t, size_t size, void* self) {
    static std::once_flag once;
    std::call_once(once, [] {  // what only the beginning needed
        malloc_trim(0);
        nuvio::give_back_code_pages();
    });
    auto& fetch = *static_cast<Fetch*>(self);
    Sent sent = fetch.send_lines();
    if (sent == Sent::all) {
        sent = fetch.send(FetchPacket::body, {bytes, size});
    }
    fetch.m_is_over = sent == Sent::none;
    return sent == Sent::no_room ? CURL_WRITEFUNC_PAUSE : sent == Sent::all ? size : 0;
}

Fetches::Fetches() : m_multi(curl_multi_init()) {
    // Of what is paused a connection must not hold up another one's bytes.
    curl_multi_setopt(m_multi.get(), CURLMOPT_PIPELINING, CURLPIPE_NOTHING);
    curl_multi_setopt(m_multi.get(), CURLMOPT_MAXCONNECTS, kKeptConnections);
}

Fetches::~Fetches() = default;

bool Fetches::turn() {
    if (m_fetches.empty() && !m_is_asked) {
        return false;
    }
    wait();
    int running = 0;
    curl_multi_perform(m_multi.get(), &running);
    take_ends();
    drop_ended();
    return true;
}

void Fetches::wait() {
    std::vector<curl_waitfd> wanted;
    wanted.reserve(m_fetches.size() + 1);
    for (const auto& fetch : m_fetches) {
        wanted.push_back(fetch->wanted());
    }
    if (m_is_asked) {
        wanted.push_back({kFetcherSocket, CURL_WAIT_POLLIN, 0});
    }
    curl_multi_poll(m_multi.get(), wanted.data(), static_cast<unsigned>(wanted.size()),
                    kUntilWokenMs, nullptr);
    for (size_t n = 0; n < m_fetches.size(); ++n) {
        m_fetches[n]->on_events(wanted[n].revents);
    }
    if (m_is_asked && wanted.back().revents != 0) {
        take_requests();
    }
}

void Fetches::take_requests() {
    std::string packet(kMaxFetchBytes, '\0');
    for (;;) {
        nuvio::Descriptors descriptors;
        const ssize_t got = nuvio::receive_packet(kFetcherSocket, packet.data(), packet.size(),
                                                  &descriptors, MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return;
        }
        FetchRequest request{};
        if (got < static_cast<ssize_t>(sizeof request)) {
            m_is_asked = false;
            return;
        }
        std::memcpy(&request, packet.data(), sizeof request);
        const std::string_view texts(packet.data(), static_cast<size_t>(got));
        m_fetches.push_back(std::make_unique<Fetch>(m_multi.get(), std::move(descriptors[0]),
                                                    request, texts.substr(sizeof request)));
    }
}

void Fetches::take_ends() {
    int left = 0;
    while (const CURLMsg* const message = curl_multi_info_read(m_multi.get(), &left)) {
        Fetch* fetch = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &fetch);
        if (message->msg == CURLMSG_DONE && fetch != nullptr) {
            fetch->finish(message->data.result);
        }
    }
}

void Fetches::drop_ended() {
    std::erase_if(m_fetches, [this](const auto& fetch) {
        m_abandoned_lookups += fetch->is_over() && fetch->is_looking_up() ? 1 : 0;
        return fetch->is_over();
    });
    if (m_is_asked && m_abandoned_lookups >= kMostAbandonedLookups) {
        shutdown(kFetcherSocket, SHUT_RDWR);  // what was asked before that is still taken
    }
}

}  // namespace local_core
