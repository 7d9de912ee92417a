// Publishes the device as a DNS-SD service through the system's Avahi daemon.
//
// The SDK decides when, and under which name and type, through the advertising delegate; port and
// TXT entries (path, device_uuid, sdk_version, type) come from the device, whose server is told the
// domain that Avahi publishes in. A name that is taken on the network is replaced by an alternative
// one; a daemon that is absent, or goes and comes back, is waited for without polling. Only while
// there is no system bus at all, which leaves nothing to wait on, the attempt is repeated, after 3
// s at first and in the end once a minute.
//
// Threads: the loop thread only. Null arguments are fatal, and so is a second start without a stop.
// Errors:  logged; what cannot be published now is tried again when the daemon is back or at the
//          next start.
#pragma once

#include <uv.h>

#include "device_info/device_info.h"
#include "local_config/http_server.h"
#include "sdk/nuvio_connect.h"

struct avahi_advertiser;

// Borrows all three, which must outlive the advertiser. Nothing is published yet. Never null.
avahi_advertiser* avahi_advertiser_new(uv_loop_t* event_loop, device_info* info,
                                       http_server* server);
// Withdraws what is published; loop handles finish closing on a later pass of the loop.
void avahi_advertiser_free(avahi_advertiser* self);

// Borrows the core; before the SDK can ask for advertising.
void avahi_advertiser_set_core(avahi_advertiser* self, nuv_connect* core);

nuv_advertising_delegate avahi_advertiser_get_advertising_delegate(avahi_advertiser* self);
void avahi_advertiser_on_start_advertising(nuv_connect* core, const char* name,
                                           const char* service_name, void* context);
void avahi_advertiser_on_stop_advertising(nuv_connect* core, void* context);
