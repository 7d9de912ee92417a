// Places for what holds one of the web server's workers: so many in all, and fewer for any one
// peer, so that the others find some. A place is taken before the work begins.
//
// Threads  any.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace nuvio::controller {

class Places {
    using Peers = std::multiset<std::string>;
    struct GiveBack {
        Places* places = nullptr;
        Peers::const_iterator own;

        void operator()(const std::string*) const {
            const std::scoped_lock lock(places->m_mutex);
            places->m_peers.erase(own);
        }
    };

  public:
    // Is given back when it goes; goes before its Places.
    using Place = std::unique_ptr<const std::string, GiveBack>;

    Places(size_t most, size_t share) : m_most(most), m_share(share) {}

    // Null: all are taken, or `peer`, an address or a token, has its share.
    Place take(const std::string& peer) {
        const std::scoped_lock lock(m_mutex);
        if (m_peers.size() >= m_most || m_peers.count(peer) >= m_share) {
            return nullptr;
        }
        const auto own = m_peers.insert(peer);
        return {&*own, GiveBack{this, own}};
    }

  private:
    const size_t m_most;
    const size_t m_share;
    std::mutex m_mutex;
    Peers m_peers;  // one for each place that is taken
};

}  // namespace nuvio::controller
