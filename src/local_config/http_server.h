// The local HTTP server: display and connection information for controllers, and the hand-over of
// a session.
//
//   GET  /get-display-info     who this device is (JSON)
//   GET  /get-connect-info     application id and current session (JSON)
//   POST /connect-to-nconnect  join a session (JSON body)
//
// Creation    http_server_new makes the object and its loop handles; nothing listens yet. The
//             SDK starts and stops listening through the delegate, any number of times.
// Destruction http_server_free stops a running server, then releases everything; the loop handles
//             finish closing on a later pass of the loop.
// Threads     every function below: the loop thread only. Requests are parsed on CivetWeb's worker;
//             whatever touches the core, the device info or the renderer runs on the loop thread.
// Stopping    returns at once; a request that waits for the loop is answered 500. The old server
//             ends on a thread of its own (about 10 ms), and a start that comes meanwhile takes
//             effect when it has. http_server_free waits for that end.
// Errors      a port that cannot be listened on is logged; the SDK may start again. A null argument
//             is fatal, but for the core.
// Peers       one worker serves one connection at a time, the others wait. A connection is cut off
//             5 s after its start, earlier in a crowd; see connection_guard.h.
#pragma once

#include <uv.h>

#include <cstdint>
#include <string_view>

#include "device_info/device_info.h"
#include "media/audio_renderer.h"
#include "sdk/nuvio_connect.h"

struct http_server;

// Borrows device_info and audio_renderer, which must outlive the server. Never
// returns null.
http_server* http_server_new(uv_loop_t* event_loop, uint16_t port, device_info* info,
                             audio_renderer* renderer);
void http_server_free(http_server* self);

// Borrows the core; before the SDK can ask for the server to start.
void http_server_set_core(http_server* self, nuv_connect* core);

// Further names by which controllers may ask for the device, comma separated; ".name": all below
// that domain. One that is known already is no second one. Also while the server runs.
void http_server_add_own_names(http_server* self, std::string_view names);

nuv_local_config_server_delegate http_server_get_local_config_server_delegate(http_server* self);
void http_server_on_start_local_config_server(nuv_connect* core, void* context);
void http_server_on_stop_local_config_server(nuv_connect* core, void* context);

// Whether the HTTP library listens on IPv6 too.
bool http_server_supports_ipv6(const http_server* self);
uint16_t http_server_get_port(const http_server* self);
// "/": the prefix of every endpoint; constant.
const char* http_server_get_base_service_path(const http_server* self);
