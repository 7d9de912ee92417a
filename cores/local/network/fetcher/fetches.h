// The fetcher's requests: libcurl's part of http_transfer.h, in a process of its own. One thread.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <vector>

#include "common/released_by.h"

namespace local_core {

class Fetch;

class Fetches {
  public:
    Fetches();
    ~Fetches();
    Fetches(const Fetches&) = delete;
    Fetches& operator=(const Fetches&) = delete;

    // Waits until there is something to do, and does it. False: nobody wants anything any more.
    bool turn();

  private:
    void wait();
    void take_requests();
    void take_ends();
    void drop_ended();

    const std::unique_ptr<CURLM, nuvio::ReleasedBy<curl_multi_cleanup>> m_multi;
    std::vector<std::unique_ptr<Fetch>> m_fetches;
    bool m_is_asked = true;  // more requests may come
    int m_abandoned_lookups = 0;
};

}  // namespace local_core
