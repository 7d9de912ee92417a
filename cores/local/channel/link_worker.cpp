#include "local/channel/link_worker.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <iterator>
#include <mutex>
#include <string_view>
#include <thread>

#include "common/bearer.h"
#include "common/utf8.h"
#include "local/channel/tls_library.h"

namespace local_core {

namespace {

constexpr int kConnectSeconds = 10;
constexpr lws_usec_t kSecond = LWS_US_PER_SEC;
constexpr lws_usec_t kStallTime = 20 * kSecond;
constexpr lws_usec_t kClosingTime = 2 * kSecond;
constexpr lws_usec_t kKillingTime = kSecond / 2;
constexpr lws_usec_t kStableTime = 10 * kSecond;
// What the thread may use of a core: a share of the time, and so much at once (a handshake for TLS
// takes a slow processor some tenths of a second).
constexpr double kShareOfACore = 0.1;
constexpr double kCpuBurst = 0.5 * static_cast<double>(kSecond);
constexpr double kLongestRest = static_cast<double>(kSecond);  // what the loop asks for waits, too
constexpr lws_usec_t kLongestWait = 3600 * kSecond;  // for a moment by the wall clock, which is set

constexpr uint32_t kPausesMs[] = {500, 1000, 2000, 4000, 8000, 16000, 32000, 60000};
constexpr lws_retry_bo_t kPolicy = {
    kPausesMs, std::size(kPausesMs), LWS_RETRY_CONCEAL_ALWAYS, 30, 45, 25};

double thread_cpu_usecs() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * static_cast<double>(kSecond) +
           static_cast<double>(used.tv_nsec) / 1000;
}

}  // namespace

// ---- The thread -------------------------------------------------------------------------------

void LinkWorker::run() {
    if (!create()) {
        m_shared->log(true, "Remote control: no WebSocket to be had");
        return;
    }
    end_expired();
    connect();
    heed_the_loop();  // what it asked for before there was anything to wake
    while (!m_over && lws_service(m_context, 0) >= 0) {
        rest();
    }
    end_connections();
}

// After what was more than its share. Pings and pongs are the library's own affair, which takes
// them as fast as they come; meanwhile they wait in the network.
void LinkWorker::rest() {
    const lws_usec_t now = lws_now_usecs();
    const double cpu = thread_cpu_usecs();
    const auto passed = static_cast<double>(now - std::exchange(m_rest_time, now));
    m_cpu_left = std::min(m_cpu_left + passed * kShareOfACore, kCpuBurst) -
                 (cpu - std::exchange(m_cpu_used, cpu));
    if (m_cpu_left < 0) {
        const double wanted = std::min(-m_cpu_left / kShareOfACore, kLongestRest);
        std::this_thread::sleep_for(std::chrono::microseconds(std::llround(wanted)));
    }
}

// The library never frees a TLS connection that it still shuts down when its context goes.
void LinkWorker::end_connections() {
    m_over = true;
    cancel_alarms();
    for (lws* const connection : m_living) {
        lws_set_timeout(connection, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
    }
    set(m_patience, kKillingTime);
    m_is_patient = true;
    while (!m_living.empty() && m_is_patient && lws_service(m_context, 0) >= 0) {
    }
    m_is_patient = false;
}

bool LinkWorker::create() {
    static const lws_protocols kProtocols[] = {
        {kSubprotocol, &LinkWorker::on_event, 0, kMaxMessageBytes, 0, nullptr, 0},
        {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
    static std::once_flag once;
    std::call_once(once, [] {
        keep_tls_library();
        lws_set_log_level(0, nullptr);
    });
    lws_context_creation_info info{};
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.protocols = kProtocols;
    info.user = this;
    info.fd_limit_per_thread = 8;  // else a table for every descriptor that the process may have
    info.pt_serv_buf_size = 16U * 1024;
    info.timeout_secs = kConnectSeconds;
    info.connect_timeout_secs = kConnectSeconds;
    info.retry_and_idle_policy = &kPolicy;
    info.options = m_target.tls ? LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT : 0;
    if (!m_target.authorities.empty()) {
        info.client_ssl_ca_filepath = m_target.authorities.c_str();
        info.options |= LWS_SERVER_OPTION_DISABLE_OS_CA_CERTS;
    }
    m_context = lws_create_context(&info);
    const std::lock_guard lock(m_shared->mutex);
    m_shared->wake_thread = m_context == nullptr ? std::function<void()>() : [context = m_context] {
        lws_cancel_service(context);
    };
    return m_context != nullptr;
}

void LinkWorker::destroy() {
    {
        const std::lock_guard lock(m_shared->mutex);
        m_shared->wake_thread = nullptr;
    }
    m_over = true;
    if (m_context != nullptr) {
        cancel_alarms();
        lws_context_destroy(m_context);
    }
}

void LinkWorker::cancel_alarms() {
    for (Alarm* const alarm : {&m_retry, &m_resume, &m_stall, &m_expiry, &m_patience}) {
        lws_sul_cancel(&alarm->entry);
    }
}

void LinkWorker::set(Alarm& alarm, lws_usec_t delay) {
    const auto ring = [](lws_sorted_usec_list_t* entry) {
        auto* const self = reinterpret_cast<Alarm*>(entry);
        (self->worker->*self->function)();
    };
    lws_sul_schedule(m_context, 0, &alarm.entry, ring, delay);
}

int LinkWorker::on_event(lws* connection, lws_callback_reasons reason, void* /*user*/, void* in,
                         size_t length) {
    auto* const self = static_cast<LinkWorker*>(lws_context_user(lws_get_context(connection)));
    if (self != nullptr && reason == LWS_CALLBACK_WSI_DESTROY) {
        std::erase(self->m_living, connection);
        if (self->m_over && self->m_is_patient && self->m_living.empty()) {
            lws_cancel_service(self->m_context);  // else it waits for the next alarm first
        }
    }
    return self != nullptr && self->m_context != nullptr && !self->m_over
               ? self->handle_event(connection, reason, in, length)
               : 0;
}

// Not 0: the library ends the connection. It is left at that in the handshake and in write(); of
// what was read, see refuse().
int LinkWorker::handle_event(lws* connection, lws_callback_reasons reason, void* in,
                             size_t length) {
    switch (reason) {
        case LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER:
            return add_token(connection, in, length);
        case LWS_CALLBACK_CLIENT_FILTER_PRE_ESTABLISH:
            return speaks_the_protocol(connection) ? 0 : -1;
        case LWS_CALLBACK_CLIENT_ESTABLISHED:
            begin_connection();
            return 0;
        case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
            fail(connection, static_cast<const char*>(in));
            return 0;
        case LWS_CALLBACK_CLIENT_RECEIVE:
            receive(connection, static_cast<const char*>(in), length);
            return 0;
        case LWS_CALLBACK_CLIENT_WRITEABLE:
            return write(connection);
        case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE: {
            const auto* const code = static_cast<const uint8_t*>(in);
            if (length >= 2 && code[0] * 256 + code[1] == LWS_CLOSE_STATUS_POLICY_VIOLATION) {
                give_up("the server wants no more of it");
            }
            return 0;
        }
        case LWS_CALLBACK_CLIENT_CLOSED:
            end_connection();
            return 0;
        case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
            heed_the_loop();
            return 0;
        default:
            return 0;
    }
}

// ---- Connecting -------------------------------------------------------------------------------

void LinkWorker::connect() {
    const bool is_v6 = m_target.host.find(':') != std::string::npos;
    const std::string host = is_v6 ? "[" + m_target.host + "]" : m_target.host;
    const bool usual_port = m_target.port == (m_target.tls ? 443 : 80);
    const std::string host_header = usual_port ? host : host + ":" + std::to_string(m_target.port);
    lws_client_connect_info info{};
    info.context = m_context;
    info.address = m_target.host.c_str();
    info.port = m_target.port;
    // A redirection could lead the token elsewhere.
    info.ssl_connection = (m_target.tls ? LCCSCF_USE_SSL : 0) | LCCSCF_HTTP_NO_FOLLOW_REDIRECT;
    info.path = m_target.path.c_str();
    info.host = host_header.c_str();
    info.protocol = kSubprotocol;
    info.local_protocol_name = kSubprotocol;
    info.alpn = "http/1.1";
    info.pwsi = &m_connection;
    info.retry_and_idle_policy = &kPolicy;
    lws_sul_cancel(&m_retry.entry);
    if (lws* const made = lws_client_connect_via_info(&info)) {
        m_living.push_back(made);
    } else {
        fail(nullptr, "can't connect");
    }
}

int LinkWorker::add_token(lws* connection, void* in, size_t length) const {
    if (m_target.token.empty()) {
        return 0;
    }
    const std::string value = nuvio::bearer_value(m_target.token);
    auto** const at = static_cast<unsigned char**>(in);
    return lws_add_http_header_by_token(connection, WSI_TOKEN_HTTP_AUTHORIZATION,
                                        reinterpret_cast<const unsigned char*>(value.data()),
                                        static_cast<int>(value.size()), at, *at + length);
}

bool LinkWorker::speaks_the_protocol(lws* connection) const {
    char chosen[sizeof kSubprotocol + 1] = "";
    lws_hdr_copy(connection, chosen, sizeof chosen, WSI_TOKEN_PROTOCOL);
    return std::string_view(chosen) == kSubprotocol;
}

void LinkWorker::begin_connection() {
    m_established = true;
    m_failing = false;
    m_begin = lws_now_usecs();
    m_shared->log(false, "Remote control by " + m_target.host);
    m_shared->begin(++m_number);
    heed_the_loop();
}

void LinkWorker::end_connection() {
    m_connection = nullptr;
    lws_sul_cancel(&m_stall.entry);
    lws_sul_cancel(&m_resume.entry);
    m_incoming.clear();
    if (std::exchange(m_established, false)) {
        m_shared->begin(0);
        if (lws_now_usecs() - m_begin >= kStableTime) {
            m_tries = 0;
        }
        if (!m_closing && !m_over) {
            m_shared->log(true, "Remote control: " + why_lost());
        }
    }
    m_stalled = false;
    m_refusal.reset();
    if (m_closing || m_over || m_target.is_for_once) {
        m_over = true;
        return;
    }
    set(m_retry,
        lws_usec_t{lws_retry_get_delay_ms(m_context, &kPolicy, &m_tries, nullptr)} * LWS_US_PER_MS);
}

std::string LinkWorker::why_lost() const {
    if (m_stalled) {
        return "the server does not read";
    }
    return m_refusal ? std::string("closed for ") + m_refusal->why : "connection lost";
}

// `connection` may be null. The library may report one failure twice.
void LinkWorker::fail(lws* connection, const char* why) {
    constexpr unsigned kUnauthorized = 401;
    constexpr unsigned kForbidden = 403;
    if (m_over || (connection == nullptr && m_retry.entry.list.owner != nullptr)) {
        return;
    }
    const unsigned status = connection == nullptr ? 0 : lws_http_client_http_response(connection);
    if (status == kUnauthorized || status == kForbidden) {
        give_up("the server refuses the token");
        return;
    }
    if (!std::exchange(m_failing, true)) {
        m_shared->log(true, "Remote control: can't reach " + m_target.host + ": " +
                                (why == nullptr ? "no answer" : why));
    }
    end_connection();
}

void LinkWorker::give_up(const std::string& why) {
    m_shared->log(true, "No remote control any more: " + why);
    m_over = true;
}

// ---- Reading ----------------------------------------------------------------------------------

void LinkWorker::receive(lws* connection, const char* bytes, size_t length) {
    if (m_refusal) {
        return;  // passed over until the connection is closed
    }
    if (lws_frame_is_binary(connection) != 0) {
        refuse(connection, LWS_CLOSE_STATUS_UNACCEPTABLE_OPCODE, "a message that is no text");
        return;
    }
    if (m_incoming.size() + length > kMaxMessageBytes) {
        refuse(connection, LWS_CLOSE_STATUS_MESSAGE_TOO_LARGE, "a message that is too large");
        return;
    }
    lws_validity_confirmed(connection);  // one that speaks needs no ping
    m_incoming.append(bytes, length);
    if (lws_remaining_packet_payload(connection) != 0 || lws_is_final_fragment(connection) == 0) {
        return;
    }
    if (!nuvio::is_utf8(m_incoming)) {
        refuse(connection, LWS_CLOSE_STATUS_INVALID_PAYLOAD, "a message that is no UTF-8");
        return;
    }
    take_message();
}

// The connection is closed when next something could be written, and not by the answer to what was
// read: at any but 0 the library leaves what it has of the frame in its buffer and, while it waits
// for the server to close too, adds what follows, beyond the buffer's end.
void LinkWorker::refuse(lws* connection, lws_close_status status, const char* why) {
    m_refusal = {status, why};
    m_incoming.clear();
    set(m_stall, kStallTime);
    lws_callback_on_writable(connection);
}

void LinkWorker::take_message() {
    Link::Incoming incoming{m_number, read_command(m_incoming)};
    m_incoming.clear();
    m_turns -= 1;
    if (!m_closing) {
        const std::lock_guard lock(m_shared->mutex);
        m_shared->inbox.push_back(std::move(incoming));
        m_shared->tell_change();
    }
    pace_reading();
}

bool LinkWorker::has_turn() {
    const lws_usec_t now = lws_now_usecs();
    const double more = static_cast<double>(now - std::exchange(m_turns_time, now)) *
                        Link::kCommandsASecond / static_cast<double>(kSecond);
    m_turns = std::min<double>(m_turns + more, Link::kCommandBurst);
    return m_turns >= 1;
}

// Reads on or not: what is not read fills the network's buffers, and then the server waits.
void LinkWorker::pace_reading() {
    if (!m_established) {
        return;
    }
    const bool turn = has_turn();
    bool reads = false;
    {
        const std::lock_guard lock(m_shared->mutex);
        reads = turn && m_shared->has_room();
        m_shared->reading = reads;
    }
    lws_rx_flow_control(m_connection, reads ? 1 : 0);
    if (!turn) {
        set(m_resume, kSecond / Link::kCommandsASecond);
    }
}

// ---- Writing ----------------------------------------------------------------------------------

int LinkWorker::write(lws* connection) {
    if (m_refusal) {
        lws_close_reason(connection, m_refusal->status, nullptr, 0);
        return -1;
    }
    const std::string text = m_shared->next_text();
    if (text.empty()) {
        lws_sul_cancel(&m_stall.entry);
        if (m_closing) {
            lws_close_reason(connection, LWS_CLOSE_STATUS_NORMAL, nullptr, 0);
            return -1;
        }
        return 0;
    }
    std::string framed(LWS_PRE, '\0');
    framed += text;
    if (lws_write(connection, reinterpret_cast<unsigned char*>(framed.data()) + LWS_PRE,
                  text.size(), LWS_WRITE_TEXT) < 0) {
        return -1;
    }
    // Once more, also for the last one: only then it has left.
    set(m_stall, kStallTime);
    lws_callback_on_writable(connection);
    pace_reading();
    return 0;
}

// The loop has said something, made room or asked for the end.
void LinkWorker::heed_the_loop() {
    {
        const std::lock_guard lock(m_shared->mutex);
        if (m_shared->closing && !std::exchange(m_closing, true)) {
            set(m_patience, m_shared->goodbye.empty() ? 0 : kClosingTime);
        }
    }
    if (!m_established) {
        m_over = m_over || m_closing;
        return;
    }
    if (m_closing || m_shared->has_text()) {
        if (m_stall.entry.list.owner == nullptr) {
            set(m_stall, kStallTime);
        }
        lws_callback_on_writable(m_connection);
    }
    pace_reading();
}

void LinkWorker::end_stalled() {
    m_stalled = true;
    lws_set_timeout(m_connection, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
}

void LinkWorker::end_expired() {
    const std::time_t now = std::time(nullptr);
    if (m_target.expiry_s == 0 || now < 0) {
        return;
    }
    const auto now_s = static_cast<uint64_t>(now);
    if (now_s < m_target.expiry_s) {
        const uint64_t left_s = std::min<uint64_t>(m_target.expiry_s - now_s,
                                                   static_cast<uint64_t>(kLongestWait / kSecond));
        set(m_expiry, static_cast<lws_usec_t>(left_s) * kSecond);
        return;
    }
    m_shared->log(true, "No remote control any more: its token is over");
    {
        const std::lock_guard lock(m_shared->mutex);
        m_shared->closing = true;
        m_shared->goodbye = write_goodbye("token_expired");
    }
    heed_the_loop();
}

void LinkWorker::end() {
    m_over = true;
    m_is_patient = false;
}

extern "C" __attribute__((visibility("default"))) void nuvio_run_link(
    std::shared_ptr<Link::Shared> shared, LinkTarget target) {
    LinkWorker(std::move(shared), std::move(target)).run();
}

}  // namespace local_core
