// MetricsSocket: the page of metrics over HTTP on a unix socket, for a collector on this machine.
//
//   curl --unix-socket /run/nuvio-connect/metrics http://localhost/metrics
//
// Belongs to one thread, which polls what prepare names and then calls dispatch. Nothing is done
// and nothing put together before somebody asks. At most four peers are served at a time, each for
// ten seconds: a fifth takes the place of the one that came first.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/unique_fd.h"
#include "device/device_model.h"

namespace nuvio::host {

class MetricsSocket {
  public:
    using Clock = std::chrono::steady_clock;

    // Without a path there is no socket. The model is borrowed.
    MetricsSocket(std::string path, const DeviceModel& device)
        : m_path(std::move(path)), m_device(device) {}
    ~MetricsSocket() { close(); }
    MetricsSocket(const MetricsSocket&) = delete;
    MetricsSocket& operator=(const MetricsSocket&) = delete;

    // Makes the socket, for the account and its group; one that a dead process left is replaced.
    // What is in the way is one line in the system log.
    void open();
    // Lets go of all peers and takes the socket away.
    void close();

    // Adds the descriptors to wait for, and moves the deadline forward if something is due earlier.
    void prepare(std::vector<pollfd>& descriptors, std::optional<Clock::time_point>& deadline);
    // Does what is due; the descriptors are those of the last prepare. Never waits.
    void dispatch(const std::vector<pollfd>& descriptors);

  private:
    struct Peer {
        UniqueFd fd;
        Clock::time_point until;
        std::string request;
        std::string answer;  // once the request is whole
        size_t sent = 0;
    };

    void accept_peers();
    std::string answer_to(const std::string& request) const;
    bool serve(Peer& peer) const;

    const std::string m_path;
    const DeviceModel& m_device;
    UniqueFd m_listener;
    std::list<Peer> m_peers;                  // the oldest first
    size_t m_first = 0;                       // of the descriptors, which are ours
    std::optional<Clock::time_point> m_rest;  // no peer is accepted before, for want of descriptors
};

}  // namespace nuvio::host
