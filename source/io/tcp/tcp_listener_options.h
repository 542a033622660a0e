#pragma once
// Who may connect to a TCP listener and for how long a connection may stay silent.
#include "io/tcp/tcp_allow_list.h"

#include <cstdint>
#include <string>

struct CTcpListenerOptions {
    // An IPv4 or IPv6 address of this host; empty: every address, IPv6 and IPv4 alike.
    std::string bind_address;
    // Open connections at most; the next one is accepted and closed at once.
    uint32_t max_connections = 64;
    // Seconds a connection may send nothing before it is closed; 0: forever.
    uint32_t idle_timeout_s = 0;
    CTcpAllowList allow;
};
