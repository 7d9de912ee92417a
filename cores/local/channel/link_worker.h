// The link's thread: all of the WebSocket library's calls. Made, run and destroyed there; the loop
// reaches it through what they share. A module: the library, and what it needs in turn, is loaded
// with the first link.
#pragma once

#include <libwebsockets.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "local/channel/link_shared.h"

namespace local_core {

class LinkWorker {
  public:
    LinkWorker(std::shared_ptr<Link::Shared> shared, LinkTarget target)
        : m_shared(std::move(shared)), m_target(std::move(target)) {}
    LinkWorker(const LinkWorker&) = delete;
    LinkWorker& operator=(const LinkWorker&) = delete;
    ~LinkWorker() { destroy(); }

    // Until the link is closed, its token is over or the server wants no more of it.
    void run();

  private:
    // Why a connection is about to be closed for what its server has sent.
    struct WhyRefused {
        lws_close_status status;
        const char* why;
    };

    // A moment at which one of the worker's functions is called.
    struct Alarm {
        lws_sorted_usec_list_t entry;  // first: the library hands it back
        LinkWorker* worker;
        void (LinkWorker::*function)();
    };

    static int on_event(lws* connection, lws_callback_reasons reason, void* user, void* in,
                        size_t length);
    int handle_event(lws* connection, lws_callback_reasons reason, void* in, size_t length);

    void set(Alarm& alarm, lws_usec_t delay);
    bool create();
    void destroy();
    void rest();
    void end_connections();
    void cancel_alarms();
    void connect();
    int add_token(lws* connection, void* in, size_t length) const;
    bool speaks_the_protocol(lws* connection) const;
    void begin_connection();
    void end_connection();
    std::string why_lost() const;
    void fail(lws* connection, const char* why);
    void give_up(const std::string& why);
    void receive(lws* connection, const char* bytes, size_t length);
    void refuse(lws* connection, lws_close_status status, const char* why);
    void take_message();
    int write(lws* connection);
    void heed_the_loop();
    void pace_reading();
    bool has_turn();
    void end_stalled();
    void end_expired();
    void end();

    const std::shared_ptr<Link::Shared> m_shared;
    const LinkTarget m_target;
    lws_context* m_context = nullptr;
    lws* m_connection = nullptr;  // made, or being made
    std::vector<lws*> m_living;   // those that the library has not freed
    bool m_established = false;
    bool m_over = false;
    bool m_closing = false;
    bool m_is_patient = true;
    bool m_failing = false;  // since the last connection, told of in the log
    bool m_stalled = false;
    std::optional<WhyRefused> m_refusal;
    uint16_t m_tries = 0;
    uint64_t m_number = 0;
    lws_usec_t m_begin = 0;  // of the connection
    std::string m_incoming;
    double m_turns = Link::kCommandBurst;  // commands that may be read now
    lws_usec_t m_turns_time = 0;           // when they were counted
    double m_cpu_left = 0;                 // microseconds that may be used now
    double m_cpu_used = 0;                 // by the thread, when they were counted
    lws_usec_t m_rest_time = 0;
    Alarm m_retry{{}, this, &LinkWorker::connect};
    Alarm m_resume{{}, this, &LinkWorker::pace_reading};
    Alarm m_stall{{}, this, &LinkWorker::end_stalled};
    Alarm m_expiry{{}, this, &LinkWorker::end_expired};
    Alarm m_patience{{}, this, &LinkWorker::end};
};

}  // namespace local_core
