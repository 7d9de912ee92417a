#include "controller/discovery/discovery.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/address.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>
#include <avahi-common/thread-watch.h>
#include <avahi-common/timeval.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <stdexcept>
#include <tuple>

#include "common/released_by.h"
#include "controller/base/log.h"
#include "controller/discovery/announced.h"

namespace nuvio::controller {

namespace {

constexpr char kServiceType[] = "_nuvio-connect._tcp";
constexpr size_t kMaxDevices = 64;
constexpr size_t kMaxInstances = 1'024;  // with those that wait
constexpr unsigned kFirstPauseMs = 1'000;
constexpr unsigned kLongestPauseMs = 60'000;

using ResolverPtr = std::unique_ptr<AvahiServiceResolver, ReleasedBy<avahi_service_resolver_free>>;

// What is tried first: devices serve IPv4 above all, and hardly an address of link scope alone.
int rank_of(const std::string& address) {
    return address.find(':') == std::string::npos ? 0 : address.starts_with("fe80:") ? 2 : 1;
}

std::string text_of(const AvahiAddress& address) {
    std::array<char, AVAHI_ADDRESS_STR_MAX> text{};
    avahi_address_snprint(text.data(), text.size(), &address);
    return text.data();
}

// A link-local IPv6 address means nothing without its interface.
std::string with_scope(const std::string& address, AvahiIfIndex interface) {
    std::array<char, IF_NAMESIZE> name{};
    const bool is_scoped = address.starts_with("fe80:") &&
                           if_indextoname(static_cast<unsigned>(interface), name.data()) != nullptr;
    return address + (is_scoped ? "%" + std::string(name.data()) : "");
}

std::string entry_of(const std::vector<std::string>& txt, const std::string& key) {
    for (const std::string& entry : txt) {
        if (entry.starts_with(key + "=")) {
            return entry.substr(key.size() + 1);
        }
    }
    return {};
}

std::vector<std::string> entries_of(const AvahiStringList* txt) {
    std::vector<std::string> entries;
    for (const AvahiStringList* entry = txt; entry != nullptr; entry = entry->next) {
        entries.emplace_back(reinterpret_cast<const char*>(entry->text), entry->size);
    }
    std::ranges::sort(entries);
    return entries;
}

}  // namespace

// All but construction and destruction runs on Avahi's thread.
class Discovery::Browser {
  public:
    explicit Browser(OnChange on_change)
        : m_on_change(std::move(on_change)), m_poll(avahi_threaded_poll_new()) {
        if (m_poll == nullptr) {
            throw std::runtime_error("no memory or descriptors for Avahi");
        }
        const AvahiPoll* api = avahi_threaded_poll_get(m_poll.get());
        m_again = api->timeout_new(api, nullptr, on_again, this);
        connect();
        avahi_threaded_poll_start(m_poll.get());
    }

    ~Browser() {
        avahi_threaded_poll_stop(m_poll.get());
        disconnect();
        avahi_threaded_poll_get(m_poll.get())->timeout_free(m_again);
    }

    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

  private:
    // What one network interface and protocol has of an instance, and where it leads to.
    using Key = std::tuple<std::string, AvahiIfIndex, AvahiProtocol>;
    struct Instance {
        Browser* browser = nullptr;
        std::string domain;
        std::vector<ResolverPtr> resolvers;  // none while it waits
        uint64_t place = 0;                  // in the order in which they have said their ids
        FoundDevice device;                  // without its addresses
        std::map<AvahiProtocol, std::string> addresses;
    };

    void connect() {
        int error = 0;
        m_client.reset(avahi_client_new(avahi_threaded_poll_get(m_poll.get()), AVAHI_CLIENT_NO_FAIL,
                                        on_client, this, &error));
        if (m_client == nullptr) {
            again_later(error);
        }
    }

    // Never from inside a callback of the client.
    void disconnect() {
        m_instances.clear();
        m_browser.reset();
        m_client.reset();
    }

    void again_later(int error) {
        if (m_pause_ms == kFirstPauseMs) {
            log_line(LogLevel::warning,
                     std::string("No devices are found without Avahi: ") + avahi_strerror(error));
        }
        timeval at{};
        avahi_elapse_time(&at, m_pause_ms, 0);
        avahi_threaded_poll_get(m_poll.get())->timeout_update(m_again, &at);
        m_pause_ms = std::min(m_pause_ms * 2, kLongestPauseMs);
    }

    static void on_again(AvahiTimeout*, void* context) {
        auto* self = static_cast<Browser*>(context);
        self->disconnect();
        self->report();
        self->connect();
    }

    static void on_client(AvahiClient* client, AvahiClientState state, void* context) {
        auto* self = static_cast<Browser*>(context);
        if (state == AVAHI_CLIENT_FAILURE) {
            self->again_later(avahi_client_errno(client));
        } else if ((state == AVAHI_CLIENT_S_RUNNING || state == AVAHI_CLIENT_S_REGISTERING ||
                    state == AVAHI_CLIENT_S_COLLISION) &&
                   self->m_browser == nullptr) {
            self->m_browser.reset(
                avahi_service_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, kServiceType,
                                          nullptr, AvahiLookupFlags{}, on_browse, self));
            if (self->m_browser == nullptr) {
                self->again_later(avahi_client_errno(client));
            } else {
                self->m_pause_ms = kFirstPauseMs;
            }
        }
    }

    // Resolvers may be freed in here: Avahi touches none afterwards.
    static void on_browse(AvahiServiceBrowser* browser, AvahiIfIndex interface,
                          AvahiProtocol protocol, AvahiBrowserEvent event, const char* name,
                          const char*, const char* domain, AvahiLookupResultFlags, void* context) {
        auto* self = static_cast<Browser*>(context);
        if (event == AVAHI_BROWSER_NEW && self->m_instances.size() < kMaxInstances) {
            Instance& instance = self->m_instances[{name, interface, protocol}];
            instance.browser = self;
            instance.domain = domain;
            self->follow(avahi_service_browser_get_client(browser));
        } else if (event == AVAHI_BROWSER_REMOVE) {
            self->m_instances.erase({name, interface, protocol});
            self->follow(avahi_service_browser_get_client(browser));
            self->report();
        } else if (event == AVAHI_BROWSER_FAILURE) {
            self->again_later(avahi_client_errno(avahi_service_browser_get_client(browser)));
        }
    }

    // All that there is room for. What is announced by several interfaces and protocols is one.
    void follow(AvahiClient* client) {
        std::set<std::string> followed;
        for (const auto& [key, instance] : m_instances) {
            if (!instance.resolvers.empty()) {
                followed.insert(std::get<0>(key));
            }
        }
        bool is_full = false;
        for (auto& [key, instance] : m_instances) {
            const std::string& name = std::get<0>(key);
            if (followed.size() >= kMaxDevices && !followed.contains(name)) {
                is_full = true;
            } else if (instance.resolvers.empty()) {
                followed.insert(name);
                resolve(client, key, &instance);
            }
        }
        if (is_full && !m_is_full) {
            log_line(LogLevel::warning, "More than " + std::to_string(kMaxDevices) +
                                            " devices are announced: the others wait");
        }
        m_is_full = is_full;
    }

    // The resolvers stay, and report a moved device. A device may be shown by IPv6 alone although
    // it serves IPv4 only, so both kinds of address are asked for.
    static void resolve(AvahiClient* client, const Key& key, Instance* instance) {
        for (const AvahiProtocol addresses : {AVAHI_PROTO_INET, AVAHI_PROTO_INET6}) {
            instance->resolvers.emplace_back(avahi_service_resolver_new(
                client, std::get<1>(key), std::get<2>(key), std::get<0>(key).c_str(), kServiceType,
                instance->domain.c_str(), addresses, AvahiLookupFlags{}, on_resolve, instance));
        }
    }

    static void on_resolve(AvahiServiceResolver*, AvahiIfIndex interface, AvahiProtocol,
                           AvahiResolverEvent event, const char* name, const char*, const char*,
                           const char*, const AvahiAddress* address, uint16_t port,
                           AvahiStringList* txt, AvahiLookupResultFlags, void* context) {
        auto* instance = static_cast<Instance*>(context);
        if (event != AVAHI_RESOLVER_FOUND || address == nullptr) {
            return;
        }
        FoundDevice device{.id = {},
                           .name = name,
                           .path = {},
                           .port = port,
                           .addresses = {},
                           .txt = entries_of(txt)};
        device.id = entry_of(device.txt, "device_uuid");
        device.id = device.id.empty() ? device.name : device.id;
        device.path = path_taken(entry_of(device.txt, "path"));
        if (device.id != instance->device.id) {
            instance->place = ++instance->browser->m_places;
        }
        instance->device = std::move(device);
        instance->addresses.erase(address->proto);
        const std::string text = text_of(*address);
        if (is_address_taken(text, static_cast<unsigned>(interface) == if_nametoindex("lo"))) {
            instance->addresses[address->proto] = with_scope(text, interface);
        }
        instance->browser->report();
    }

    // Whoever has said an id first has it as long as it is there, and nobody else leads its
    // requests elsewhere. On another interface or by another protocol it is the same device.
    void report() {
        std::vector<const Instance*> instances;
        for (const auto& [key, instance] : m_instances) {
            if (!instance.addresses.empty()) {
                instances.push_back(&instance);
            }
        }
        std::ranges::sort(instances, {}, &Instance::place);
        std::map<std::string, FoundDevice> devices;
        std::map<std::string, std::string> copies;
        for (const Instance* instance : instances) {
            const FoundDevice& said = instance->device;
            FoundDevice& device = devices.try_emplace(said.id, said).first->second;
            if (device.name != said.name) {
                copies[said.name] = device.name;
            } else if (device.port == said.port && device.path == said.path) {
                add_addresses(&device.addresses, *instance);
            }
        }
        log_new(std::move(copies));
        hand_over(std::move(devices));
    }

    static void add_addresses(std::vector<std::string>* addresses, const Instance& instance) {
        for (const auto& [protocol, address] : instance.addresses) {
            if (std::ranges::find(*addresses, address) == addresses->end()) {
                addresses->push_back(address);
            }
        }
    }

    void log_new(std::map<std::string, std::string> copies) {
        for (const auto& [copy, first] : copies) {
            if (!m_copies.contains(copy)) {
                log_line(LogLevel::warning, std::string("'")
                                                .append(copy)
                                                .append("' says that it is the same device as '")
                                                .append(first)
                                                .append("': not shown while that one is there"));
            }
        }
        m_copies = std::move(copies);
    }

    void hand_over(std::map<std::string, FoundDevice> devices) {
        std::vector<FoundDevice> all;
        for (auto& [id, device] : devices) {
            std::ranges::stable_sort(device.addresses, {}, rank_of);
            all.push_back(std::move(device));
        }
        if (all != m_reported) {
            m_reported = all;
            m_on_change(all);
        }
    }

    const OnChange m_on_change;
    std::unique_ptr<AvahiThreadedPoll, ReleasedBy<avahi_threaded_poll_free>> m_poll;
    AvahiTimeout* m_again = nullptr;
    unsigned m_pause_ms = kFirstPauseMs;
    std::unique_ptr<AvahiClient, ReleasedBy<avahi_client_free>> m_client;
    std::unique_ptr<AvahiServiceBrowser, ReleasedBy<avahi_service_browser_free>> m_browser;
    std::map<Key, Instance> m_instances;
    bool m_is_full = false;
    uint64_t m_places = 0;
    std::map<std::string, std::string> m_copies;  // left out: names, and whose id they have
    std::vector<FoundDevice> m_reported;
};

Discovery::Discovery(OnChange on_change)
    : m_browser(std::make_unique<Browser>(std::move(on_change))) {}

Discovery::~Discovery() = default;

}  // namespace nuvio::controller
