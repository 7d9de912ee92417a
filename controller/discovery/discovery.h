// Which devices are on the network, by DNS-SD: they come, go, are renamed and move, and so does the
// Avahi daemon.
//
// Threads  one of its own (Avahi's), from construction to destruction; `on_change` is called on it
//          with all devices there are, whenever something has changed.
// Peers    anyone on the network can announce anything: at most 64 devices are followed at once,
//          the next ones when some of them go; names and TXT entries are as announced. Of several
//          that say the same id the first one is told of while it is there; the others are logged.
//          Paths and addresses are those that announced.h takes.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace nuvio::controller {

// One device, with an address for each way it was found.
struct FoundDevice {
    std::string id;    // its UUID; where it tells none, its name
    std::string name;  // of the DNS-SD instance
    std::string path;  // before the endpoints' names: "/"
    uint16_t port = 0;
    std::vector<std::string> addresses;  // IPv4 first; a link-local one has its interface behind %
    std::vector<std::string> txt;        // the record's entries

    bool operator==(const FoundDevice&) const = default;
};

class Discovery {
  public:
    using OnChange = std::function<void(const std::vector<FoundDevice>&)>;

    explicit Discovery(OnChange on_change);
    ~Discovery();
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

  private:
    class Browser;
    std::unique_ptr<Browser> m_browser;
};

}  // namespace nuvio::controller
