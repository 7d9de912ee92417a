// Whether the HTTP port can be had. Binds it for a moment; any thread.
#pragma once

#include <cstdint>
#include <string>

// What is wrong and what to do; empty when the port is free, or held by the service itself. Who
// holds it is known for processes of the caller's own account, to root for all.
std::string port_problem(uint16_t port);
