// What `nuvio-connect --check` tells: whether this machine has what the service needs.
#pragma once

// Looks at the settings and the HTTP port, the output device, the mixer element, the system bus and
// the Avahi daemon as the service would use them, and writes one line each on standard output: "ok"
// and what there is, or "FAIL", what is missing and what to do. Plays nothing and changes nothing.
// Returns the process's exit status, EXIT_FAILURE when a line says FAIL. The main thread's.
int run_self_check();

// The same as one line of JSON at the end: {"checks":[{"subject","ok","text"},...],"ok":...}.
int run_self_check_for_programs();
