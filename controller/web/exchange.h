// One HTTP request and its answer. Lives on CivetWeb's worker for the length of the request.
//
// Every answer has the headers that keep a browser from doing anything with it but what the page
// does: nothing is loaded from elsewhere, no script runs that is not a file of the page's own.
#pragma once

#include <civetweb.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/json/json.h"
#include "controller/web/guarded_connection.h"
#include "controller/web/places.h"

namespace nuvio::controller {

class Exchange {
  public:
    // What the answer to a request that has come may take, and what a body may take to come.
    static constexpr std::chrono::seconds kAnswerPatience{45};
    static constexpr std::chrono::seconds kBodyPatience{5};

    // Gives the connection its deadline. `bodies`: places for those that are being read; borrowed.
    // `base`: what the request's path begins with, before its own '/'.
    Exchange(mg_connection* connection, HttpGuard& guard, Places& bodies, std::string base);

    const std::string& method() const { return m_method; }
    const std::string& base() const { return m_base; }
    // Behind the base.
    const std::string& path() const { return m_path; }  // decoded
    const std::string& encoded_path() const { return m_encoded_path; }
    const mg_connection* connection() const { return m_connection; }
    GuardedConnection& guarded() { return m_guarded; }
    // Null: absent.
    const char* header(const char* name) const { return mg_get_header(m_connection, name); }
    // The value of a parameter of the URL, decoded; empty: absent.
    std::string parameter(const char* name) const;
    int64_t number_parameter(const char* name, int64_t otherwise) const;
    // Whether the body is, by its Content-Type, whose parameters don't count.
    bool is_of_type(std::string_view type) const;
    bool takes_gzip() const;
    // Of "Authorization: Bearer TOKEN".
    std::string_view bearer() const;
    // The peer's address.
    std::string peer() const { return mg_get_request_info(m_connection)->remote_addr; }
    // The JSON object of the body. Null: there is none, and the request has been answered with
    // status().
    JsonPtr body();

    // ---- Answers: one of these, once; the status comes back ----

    int status() const { return m_status; }  // 0 before

    // `headers`: further ones, "Name: value\r\n" each. Without the body where the method is HEAD.
    int reply(int status, std::string_view type, std::string_view body,
              const std::string& headers = {});
    // Compressed where that is worth it and the peer takes it.
    int reply_json(const JsonPtr& document);
    // {"error": text}, for people, and what is in `document`.
    int fail(int status, std::string_view text, const std::string& headers = {},
             JsonPtr document = new_object());
    // 503: it may be asked again.
    int fail_as_busy(std::string_view text) { return fail(503, text, "Retry-After: 1\r\n"); }
    // The head alone; `size` bytes follow by `write`, in any number of calls.
    void begin(int status, std::string_view type, int64_t size, const std::string& headers);
    // Waits for the peer. False: it is gone.
    bool write(const char* data, size_t size);

  private:
    mg_connection* const m_connection;
    GuardedConnection m_guarded;
    Places& m_bodies;
    const std::string m_method;
    const std::string m_base;
    const std::string m_encoded_path;
    const std::string m_path;
    int m_status = 0;
};

}  // namespace nuvio::controller
