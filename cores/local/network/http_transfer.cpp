#include "local/network/http_transfer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <mutex>
#include <system_error>
#include <utility>

#include "common/code_pages.h"
#include "common/detached_thread.h"
#include "common/process/child_process.h"
#include "common/process/packets.h"
#include "common/unique_fd.h"
#include "local/network/fetcher/fetch_protocol.h"

namespace local_core {

namespace {

// What libcurl and OpenSSL, and the system as it looks names up, read.
constexpr std::string_view kShown[] = {
    "http_proxy=",    "https_proxy=",  "HTTPS_PROXY=", "all_proxy=",
    "ALL_PROXY=",     "no_proxy=",     "NO_PROXY=",    "SSL_CERT_DIR=",
    "SSL_CERT_FILE=", "OPENSSL_CONF=", "LOCALDOMAIN=", "RES_OPTIONS="};
constexpr std::chrono::seconds kForTheWay{3};
constexpr int kMostPackets = 16;  // of one perform()

// The text of a request behind its record: each of its lines ends with '\n', and has none in it.
std::string texts_of(const HttpTransfer::Request& request, size_t* lines_bytes) {
    std::string texts = request.url + request.authorities;
    const size_t before = texts.size();
    for (const std::string& line : request.lines) {
        texts += line + '\n';
    }
    *lines_bytes = texts.size() - before;
    return texts;
}

class Fetcher final : public HttpTransfer::Connections {
  public:
    // The one there is, or one that has not started yet.
    static std::shared_ptr<Fetcher> instance();

    // False, with why in *error, where it can't be started.
    bool prepare(std::string* error) {
        const std::lock_guard lock(m_mutex);
        return is_there(error);
    }
    struct Fetch {
        nuvio::UniqueFd socket;
        std::shared_ptr<nuvio::ChildProcess> process;  // lives as long as this needs it
    };
    // Without a socket, with why in *error, where it can't be asked.
    Fetch ask(const HttpTransfer::Request& request, std::string* error);
    // Of a fetch that has ended early: why.
    std::string lose(const std::shared_ptr<nuvio::ChildProcess>& process);

  private:
    bool is_there(std::string* error);

    std::mutex m_mutex;
    std::shared_ptr<nuvio::ChildProcess> m_process;
};

std::shared_ptr<Fetcher> Fetcher::instance() {
    // Never destroyed: a thread that hangs may outlive the process's end of the rest.
    static auto* const mutex = new std::mutex;
    static auto* const kept = new std::weak_ptr<Fetcher>;
    const std::lock_guard lock(*mutex);
    auto fetcher = kept->lock();
    if (!fetcher) {
        fetcher = std::make_shared<Fetcher>();
        *kept = fetcher;
    }
    return fetcher;
}

// Its end is waited for by a thread of its own, whoever was the last to need it.
void end_aside(nuvio::ChildProcess* process) {
    try {
        nuvio::start_detached("fetcher-end", [process] { delete process; });
    } catch (const std::system_error&) {
        delete process;
    }
}

bool Fetcher::is_there(std::string* error) {
    if (!m_process) {
        m_process = {new nuvio::ChildProcess(kFetcher, nullptr, error, kShown), end_aside};
        if (!m_process->socket()) {
            m_process.reset();
        }
    }
    return m_process != nullptr;
}

Fetcher::Fetch Fetcher::ask(const HttpTransfer::Request& request, std::string* error) {
    size_t lines_bytes = 0;
    const std::string texts = texts_of(request, &lines_bytes);
    const FetchRequest record{request.from, static_cast<uint32_t>(request.stalled_after.count()),
                              static_cast<uint32_t>(request.url.size()),
                              static_cast<uint32_t>(request.authorities.size()),
                              static_cast<uint32_t>(lines_bytes)};
    std::array<int, 2> pair{};
    if (sizeof record + texts.size() > kMaxFetchBytes) {
        *error = "too long a request";
        return {};
    }
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()) != 0) {
        *error = std::strerror(errno);
        return {};
    }
    nuvio::UniqueFd own(pair[0]);
    const nuvio::UniqueFd its(pair[1]);
    const std::lock_guard lock(m_mutex);
    for (int tries = 0; tries < 2 && is_there(error); ++tries) {
        if (nuvio::send_packet(m_process->socket().get(), {nuvio::bytes_of(record), texts},
                               {its.get()})) {
            return {std::move(own), m_process};
        }
        *error = std::strerror(errno);
        m_process.reset();  // it has ended, hangs, or takes no more
    }
    return {};
}

std::string Fetcher::lose(const std::shared_ptr<nuvio::ChildProcess>& process) {
    const std::lock_guard lock(m_mutex);
    if (m_process != process) {
        return "its fetcher is gone";
    }
    m_process.reset();
    return "its fetcher " + process->end().reason;
}

class FetchedTransfer final : public HttpTransfer {
  public:
    // `wake`: an eventfd.
    FetchedTransfer(Handlers handlers, std::shared_ptr<Fetcher> fetcher, nuvio::UniqueFd wake)
        : m_handlers(std::move(handlers)), m_fetcher(std::move(fetcher)), m_wake(std::move(wake)) {}

    bool start(const Request& request, std::string* error) override {
        stop();
        m_longest_silence = 2 * request.stalled_after + kForTheWay;
        note_word();
        m_fetch = m_fetcher->ask(request, error);
        return is_active();
    }
    void stop() override {
        m_fetch = {};
        m_line.clear();
        m_size = 0;
        m_is_paused = false;
    }
    bool is_active() const override { return static_cast<bool>(m_fetch.socket); }
    void resume() override {
        m_is_paused = false;
        note_word();
    }
    std::optional<Outcome> perform() override;
    void wait(std::chrono::steady_clock::duration longest) override;
    void wake() override {
        const uint64_t one = 1;
        static_cast<void>(write(m_wake.get(), &one, sizeof one) > 0);
    }

  private:
    void note_word() { m_silent_until = std::chrono::steady_clock::now() + m_longest_silence; }
    bool is_received();
    std::optional<Outcome> take_packet();
    bool take_lines(std::string_view bytes);

    const Handlers m_handlers;
    const std::shared_ptr<Fetcher> m_fetcher;
    const nuvio::UniqueFd m_wake;
    Fetcher::Fetch m_fetch;
    std::string m_line;  // as far as it has come
    // A fetcher at work tells sooner that the server is silent.
    std::chrono::steady_clock::duration m_longest_silence{};
    std::chrono::steady_clock::time_point m_silent_until;
    bool m_is_paused = false;
    size_t m_size = 0;  // of the packet at hand; 0: none
    std::array<char, 1 + kFetchPieceBytes> m_packet{};
};

// False: there is none yet.
bool FetchedTransfer::is_received() {
    if (m_size > 0) {
        return true;
    }
    const ssize_t got = nuvio::receive_packet(m_fetch.socket.get(), m_packet.data(),
                                              m_packet.size(), nullptr, MSG_DONTWAIT);
    m_size = static_cast<size_t>(std::max<ssize_t>(got, 0));
    if (got > 0) {
        note_word();
    }
    return got >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

std::optional<HttpTransfer::Outcome> FetchedTransfer::perform() {
    std::optional<Outcome> outcome;
    for (int n = 0; n < kMostPackets && is_active() && !m_is_paused && !outcome; ++n) {
        if (is_received()) {
            outcome = take_packet();
        } else if (std::chrono::steady_clock::now() >= m_silent_until) {
            outcome = {false, false, m_fetcher->lose(m_fetch.process)};
        } else {
            break;
        }
    }
    if (outcome) {
        stop();
    }
    return outcome;
}

std::optional<HttpTransfer::Outcome> FetchedTransfer::take_packet() {
    if (m_size == 0) {
        return Outcome{false, false, m_fetcher->lose(m_fetch.process)};
    }
    static std::once_flag once;
    const std::string_view bytes(m_packet.data() + 1, m_size - 1);
    auto answer = Handlers::Answer::taken;
    switch (static_cast<FetchPacket>(m_packet[0])) {
        case FetchPacket::lines:
            answer = take_lines(bytes) ? answer : Handlers::Answer::stop;
            break;
        case FetchPacket::body:
            std::call_once(once, nuvio::give_back_code_pages);  // what only the beginning needed
            answer = m_handlers.on_body(bytes);
            break;
        case FetchPacket::end: {
            const bool is_whole = bytes.size() >= 2;
            return Outcome{is_whole && bytes[0] != 0, is_whole && bytes[1] != 0,
                           std::string(bytes.substr(std::min<size_t>(bytes.size(), 2)))};
        }
    }
    m_is_paused = answer == Handlers::Answer::no_room;
    m_size = m_is_paused ? m_size : 0;
    return answer == Handlers::Answer::stop ? std::optional<Outcome>({false, false, "ended here"})
                                            : std::nullopt;
}

bool FetchedTransfer::take_lines(std::string_view bytes) {
    for (size_t end = 0; (end = bytes.find('\n')) != std::string_view::npos;
         bytes.remove_prefix(end + 1)) {
        m_line += bytes.substr(0, end);
        if (!m_handlers.on_line(std::exchange(m_line, {}))) {
            return false;
        }
    }
    m_line += bytes;
    return m_line.size() <= kMaxFetchBytes;
}

void FetchedTransfer::wait(std::chrono::steady_clock::duration longest) {
    constexpr auto kMost = std::numeric_limits<int>::max();
    if (is_active() && !m_is_paused) {
        longest = std::min(longest, m_silent_until - std::chrono::steady_clock::now());
    }
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(longest).count();
    std::array<pollfd, 2> watched = {
        {{m_wake.get(), POLLIN, 0}, {m_is_paused ? -1 : m_fetch.socket.get(), POLLIN, 0}}};
    poll(watched.data(), watched.size(), static_cast<int>(std::clamp<decltype(ms)>(ms, 0, kMost)));
    uint64_t count = 0;
    static_cast<void>(read(m_wake.get(), &count, sizeof count) > 0);
}

}  // namespace

std::unique_ptr<HttpTransfer> HttpTransfer::make(Handlers handlers, std::string* error) {
    nuvio::UniqueFd wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!wake) {
        *error = std::strerror(errno);
        return nullptr;
    }
    auto fetcher = Fetcher::instance();
    return fetcher->prepare(error) ? std::make_unique<FetchedTransfer>(
                                         std::move(handlers), std::move(fetcher), std::move(wake))
                                   : nullptr;
}

std::shared_ptr<HttpTransfer::Connections> HttpTransfer::keep_connections() {
    return Fetcher::instance();
}

}  // namespace local_core
