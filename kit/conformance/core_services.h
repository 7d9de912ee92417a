// The device's server and its advertising, as far as a core sees them. The loop thread's.
#pragma once

#include "common/unique_fd.h"
#include "conformance/core_loop.h"

namespace nuvio::kit {

class Services {
  public:
    Services(Loop& loop, Record& record, Breaches& breaches)
        : m_loop(loop), m_record(record), m_breaches(breaches) {}

    // Adds its delegates.
    void install(nuv_connect_config& config);
    Loop& loop() { return m_loop; }

  private:
    void on_server_start();
    void on_server_stop();
    void on_advertise(const char* name, const char* service);
    void on_stop_advertising();

    Loop& m_loop;
    Record& m_record;
    Breaches& m_breaches;
    bool m_serving = false;
    UniqueFd m_server;  // listens while it is so
    bool m_advertising = false;
};

}  // namespace nuvio::kit
