// What a service manager is told (systemd's protocol of datagrams), without its library. Nothing
// happens where there is no manager.
#pragma once

#include <cstdint>

// Time in which the manager wants to hear from the service, in us; 0 when it does not, or asks
// another process. As the environment says it: before it is changed by anybody.
uint64_t service_manager_watchdog_us();

// Lines of "NAME=value". Any thread; never waits: lost where the manager takes nothing more.
void service_manager_notify(const char* lines);
