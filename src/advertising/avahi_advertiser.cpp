#include "advertising/avahi_advertiser.h"

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "advertising/avahi_libuv_poll.h"
#include "common/released_by.h"
#include "utility/check.h"
#include "utility/log_delegate.h"
#include "utility/uv_utilities.h"

namespace {

using avahi_text = std::unique_ptr<char, nuvio::ReleasedBy<avahi_free>>;
using client_ptr = std::unique_ptr<AvahiClient, nuvio::ReleasedBy<avahi_client_free>>;
using group_ptr = std::unique_ptr<AvahiEntryGroup, nuvio::ReleasedBy<avahi_entry_group_free>>;
using poll_ptr = std::unique_ptr<avahi_libuv_poll, nuvio::ReleasedBy<avahi_libuv_poll_free>>;
using timer_ptr = std::unique_ptr<uv_timer_t, nuvio::ReleasedBy<uv_timer_free>>;

}  // namespace

// Released in avahi_advertiser_do_stop_advertising, whose order counts.
struct avahi_advertiser {
    uv_loop_t* event_loop;
    struct device_info* device_info;  // borrowed, as are the two below
    struct http_server* http_server;
    nuv_connect* core = nullptr;
    avahi_text name{};
    avahi_text service_name{};
    client_ptr client{};  // null while started: no bus to reach Avahi over
    group_ptr group{};    // belongs to the client: never outlives it
    poll_ptr poll{};
    timer_ptr reconnect{};      // armed while the client is about to be replaced
    uint64_t bus_retry_ms = 0;  // the last pause before an attempt without a bus; 0: there was none
    int client_error = 0;       // Avahi's, of the last attempt to make a client
};

namespace {

// Pauses between attempts to reach a system bus that is not there: each twice the one before.
constexpr uint64_t kFirstBusRetryMs = 3'000;
constexpr uint64_t kLongestBusRetryMs = 60'000;

// A TXT entry with its terminator; the longest text is 127 bytes.
using txt_entry = std::array<char, 128>;
using txt_entries = std::array<txt_entry, 4>;  // path, device_uuid, sdk_version, type

void avahi_advertiser_create_service(avahi_advertiser* self);

struct state_name {
    int state;
    const char* name;
};

constexpr std::array kClientStates = {
    state_name{AVAHI_CLIENT_S_REGISTERING, "REGISTERING"},
    state_name{AVAHI_CLIENT_S_RUNNING, "RUNNING"},
    state_name{AVAHI_CLIENT_S_COLLISION, "COLLISION"},
    state_name{AVAHI_CLIENT_FAILURE, "FAILURE"},
    state_name{AVAHI_CLIENT_CONNECTING, "CONNECTING"},
};

constexpr std::array kGroupStates = {
    state_name{AVAHI_ENTRY_GROUP_UNCOMMITED, "UNCOMMITED"},
    state_name{AVAHI_ENTRY_GROUP_REGISTERING, "REGISTERING"},
    state_name{AVAHI_ENTRY_GROUP_ESTABLISHED, "ESTABLISHED"},
    state_name{AVAHI_ENTRY_GROUP_COLLISION, "COLLISION"},
    state_name{AVAHI_ENTRY_GROUP_FAILURE, "FAILURE"},
};

template <size_t Size>
const char* name_of(const std::array<state_name, Size>& names, int state) {
    const auto* found = std::ranges::find(names, state, &state_name::state);
    return found == names.end() ? "UNKNOWN" : found->name;
}

const char* client_error(const avahi_advertiser* self) {
    return avahi_strerror(avahi_client_errno(self->client.get()));
}

// ---- TXT entries --------------------------------------------------------------------------------

// Logs a value that is missing or too long, and returns false.
bool format_entry(txt_entry& entry, const char* key, const char* value) {
    if (value == nullptr) {
        app_log(LOG_LEVEL_ERROR, "Unable to publish the service: no value for TXT entry '%s'", key);
        return false;
    }
    const int length = std::snprintf(entry.data(), entry.size(), "%s=%s", key, value);
    if (length < 1 || static_cast<size_t>(length) >= entry.size()) {
        app_log(LOG_LEVEL_ERROR,
                "Unable to publish the service: TXT entry '%s' does not fit (%d characters)", key,
                length);
        return false;
    }
    return true;
}

// Null, and logged, when the SDK has none to give.
const char* get_device_uuid(nuv_connect* core) {
    const char* uuid = nullptr;
    const nuv_error error = nuv_connect_get_device_uuid(core, &uuid);
    if (error == NUV_ERROR_OK) {
        return uuid;
    }
    app_log(LOG_LEVEL_ERROR, "Unable to retrieve the device UUID: %s", nuv_error_to_string(error));
    return nullptr;
}

std::optional<txt_entries> make_txt_entries(const avahi_advertiser* self, const char* path) {
    const char* type = nuv_device_type_to_string(device_info_get_device_type(self->device_info));
    NUV_CHECK(type != NULL);
    txt_entries entries{};
    if (format_entry(entries[0], "path", path) &&
        format_entry(entries[1], "device_uuid", get_device_uuid(self->core)) &&
        format_entry(entries[2], "sdk_version", nuv_connect_get_sdk_version()) &&
        format_entry(entries[3], "type", type)) {
        return entries;
    }
    return std::nullopt;
}

// ---- Publishing ---------------------------------------------------------------------------------

void avahi_advertiser_handle_collision(avahi_advertiser* self) {
    NUV_CHECK(self != NULL);
    const char* name = self->name.get();
    NUV_CHECK(name != NULL);
    avahi_text alternative(avahi_alternative_service_name(name));
    const char* new_name = alternative.get();
    NUV_CHECK(new_name != NULL);
    app_log(LOG_LEVEL_WARNING,
            "Unable to add service '%s' to the Avahi entry group because of collision, trying '%s'",
            name, new_name);
    self->name = std::move(alternative);
    avahi_advertiser_create_service(self);
}

// Avahi does not touch the group afterwards: what fails in here may free it.
void avahi_advertiser_on_entry_group_callback(AvahiEntryGroup* group, AvahiEntryGroupState state,
                                              void* user_data) {
    auto* self = static_cast<avahi_advertiser*>(user_data);
    NUV_CHECK(self != NULL);
    NUV_CHECK(group != NULL);
    app_log(LOG_LEVEL_DEBUG, "Avahi entry group state changed: %s", name_of(kGroupStates, state));
    if (state == AVAHI_ENTRY_GROUP_COLLISION) {
        avahi_advertiser_handle_collision(self);
    }
}

// Leaves an empty group behind; false, logged, and no group if Avahi refuses.
bool prepare_group(avahi_advertiser* self) {
    if (self->group == nullptr) {
        self->group.reset(avahi_entry_group_new(self->client.get(),
                                                avahi_advertiser_on_entry_group_callback, self));
        if (self->group == nullptr) {
            app_log(LOG_LEVEL_ERROR, "Unable to create Avahi entry group: %s", client_error(self));
            return false;
        }
    }
    if (avahi_entry_group_reset(self->group.get()) != AVAHI_OK) {
        app_log(LOG_LEVEL_ERROR, "Unable to reset Avahi entry group: %s", client_error(self));
        self->group.reset();
        return false;
    }
    return true;
}

// Returns Avahi's result.
int add_service(avahi_advertiser* self, uint16_t port, const txt_entries& txt) {
    const AvahiProtocol protocol =
        http_server_supports_ipv6(self->http_server) ? AVAHI_PROTO_UNSPEC : AVAHI_PROTO_INET;
    return avahi_entry_group_add_service(
        self->group.get(), AVAHI_IF_UNSPEC, protocol, AvahiPublishFlags{}, self->name.get(),
        self->service_name.get(), nullptr, nullptr, port, txt[0].data(), txt[1].data(),
        txt[2].data(), txt[3].data(), static_cast<const char*>(nullptr));
}

void commit_group(avahi_advertiser* self) {
    const int result = avahi_entry_group_commit(self->group.get());
    if (result != AVAHI_OK) {
        app_log(LOG_LEVEL_ERROR, "Unable to commit Avahi entry group: %s", avahi_strerror(result));
        self->group.reset();
    }
}

// Every failure but a collision leaves the service unpublished, without a group, until the next
// RUNNING report or the next start.
void avahi_advertiser_create_service(avahi_advertiser* self) {
    NUV_CHECK(self != NULL);
    AvahiClient* client = self->client.get();
    NUV_CHECK(client != NULL);
    // Controllers ask by the host name that is published: the daemon's may be in any domain.
    if (const char* domain = avahi_client_get_domain_name(client)) {
        http_server_add_own_names(self->http_server, std::string(".") + domain);
    }
    if (!prepare_group(self)) {
        return;
    }
    const uint16_t port = http_server_get_port(self->http_server);
    const char* path = http_server_get_base_service_path(self->http_server);
    NUV_CHECK(path != NULL);
    const std::optional<txt_entries> txt = make_txt_entries(self, path);
    if (!txt) {
        self->group.reset();
        return;
    }
    const int result = add_service(self, port, *txt);
    if (result == AVAHI_OK) {
        commit_group(self);
    } else if (result == AVAHI_ERR_COLLISION) {
        avahi_advertiser_handle_collision(self);
    } else {
        app_log(LOG_LEVEL_ERROR, "Unable to add service '%s' to the Avahi entry group: %s",
                self->name.get(), avahi_strerror(result));
        self->group.reset();
    }
}

// ---- The client ---------------------------------------------------------------------------------

void avahi_advertiser_on_reconnect(uv_timer_t* timer);

void replace_client_in(avahi_advertiser* self, uint64_t delay_ms) {
    const int rc =
        uv_timer_start(self->reconnect.get(), avahi_advertiser_on_reconnect, delay_ms, 0);
    NUV_CHECK(rc == 0);
}

void avahi_advertiser_on_client_callback(AvahiClient* client, AvahiClientState state,
                                         void* user_data) {
    auto* self = static_cast<avahi_advertiser*>(user_data);
    NUV_CHECK(self != NULL);
    NUV_CHECK(client != NULL);
    app_log(LOG_LEVEL_DEBUG, "Avahi client state changed: %s", name_of(kClientStates, state));
    if (state == AVAHI_CLIENT_S_RUNNING) {
        if (self->client == nullptr) {
            self->client.reset(client);  // avahi_client_new has not returned yet
        }
        avahi_advertiser_create_service(self);
    } else if (state == AVAHI_CLIENT_FAILURE) {
        // A client that lost its daemon stays lost, also when the daemon is back. It cannot be
        // freed from its own callback.
        replace_client_in(self, 0);
    }
}

uint64_t next_bus_retry_ms(uint64_t last_ms) {
    return std::clamp(2 * last_ms, kFirstBusRetryMs, kLongestBusRetryMs);
}

// The client waits for an absent daemon by itself. Only without a bus there is none: then the
// attempt is repeated, which the log is not told again until the reason changes.
void create_client(avahi_advertiser* self) {
    int error = 0;
    AvahiClient* client =
        avahi_client_new(avahi_libuv_poll_get(self->poll.get()), AVAHI_CLIENT_NO_FAIL,
                         avahi_advertiser_on_client_callback, self, &error);
    // The callback may have stored the client, also one that Avahi has given up and freed by now.
    (void)self->client.release();
    self->client.reset(client);
    if (std::exchange(self->client_error, error) != error && error != 0) {
        app_log(LOG_LEVEL_ERROR, "Unable to create Avahi client: %s", avahi_strerror(error));
    }
    if (client == nullptr) {
        (void)self->group.release();
        self->bus_retry_ms = next_bus_retry_ms(self->bus_retry_ms);
        replace_client_in(self, self->bus_retry_ms);
    } else {
        self->bus_retry_ms = 0;
    }
}

void avahi_advertiser_on_reconnect(uv_timer_t* timer) {
    auto* self = static_cast<avahi_advertiser*>(timer->data);
    self->group.reset();
    self->client.reset();
    create_client(self);
}

void avahi_advertiser_do_stop_advertising(avahi_advertiser* self) {
    app_log(LOG_LEVEL_DEBUG, "Stopping Avahi advertiser");
    self->reconnect.reset();
    self->group.reset();
    self->client.reset();
    self->poll.reset();  // after the client, which releases its watches and timeouts through it
    self->name.reset();
    self->service_name.reset();
}

}  // namespace

avahi_advertiser* avahi_advertiser_new(uv_loop_t* event_loop, device_info* info,
                                       http_server* server) {
    NUV_CHECK(event_loop != NULL);
    NUV_CHECK(info != NULL);
    NUV_CHECK(server != NULL);
    return new avahi_advertiser{
        .event_loop = event_loop, .device_info = info, .http_server = server};
}

void avahi_advertiser_free(avahi_advertiser* self) {
    NUV_CHECK(self != NULL);
    avahi_advertiser_do_stop_advertising(self);
    delete self;
}

void avahi_advertiser_set_core(avahi_advertiser* self, nuv_connect* core) {
    NUV_CHECK(self != NULL);
    NUV_CHECK(core != NULL);
    self->core = core;
}

nuv_advertising_delegate avahi_advertiser_get_advertising_delegate(avahi_advertiser* self) {
    NUV_CHECK(self != NULL);
    return {.context = self,
            .start = avahi_advertiser_on_start_advertising,
            .stop = avahi_advertiser_on_stop_advertising};
}

void avahi_advertiser_on_start_advertising(nuv_connect* core, const char* name,
                                           const char* service_name, void* context) {
    auto* self = static_cast<avahi_advertiser*>(context);
    NUV_CHECK(self != NULL);
    NUV_CHECK(core != NULL);
    NUV_CHECK(name != NULL);
    NUV_CHECK(service_name != NULL);
    app_log(LOG_LEVEL_INFO, "Starting Avahi advertising, name: %s, service name: %s", name,
            service_name);
    if (self->poll == nullptr) {
        self->poll.reset(avahi_libuv_poll_new(self->event_loop));
    }
    const AvahiClient* client = self->client.get();
    NUV_CHECK(client == NULL);
    self->name.reset(avahi_strdup(name));
    self->service_name.reset(avahi_strdup(service_name));
    self->reconnect.reset(uv_timer_new(self->event_loop, self));
    self->bus_retry_ms = 0;
    self->client_error = 0;
    create_client(self);
}

void avahi_advertiser_on_stop_advertising(nuv_connect* core, void* context) {
    auto* self = static_cast<avahi_advertiser*>(context);
    NUV_CHECK(self != NULL);
    NUV_CHECK(core != NULL);
    avahi_advertiser_do_stop_advertising(self);
}
