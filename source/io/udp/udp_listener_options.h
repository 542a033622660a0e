#pragma once
// Who may send to a UDP listener, how fast, and how many of its requests may wait for their
// answers at once.
#include "io/tcp/tcp_allow_list.h"

#include <cstdint>
#include <string>

struct CTransportCounters;

struct CUdpListenerOptions {
    // An IPv4 or IPv6 address of this host; empty: every address, IPv6 and IPv4 alike.
    std::string bind_address;
    CTcpAllowList allow;
    // Datagrams a second taken from one peer address, in bursts of as many; 0: no limit.
    uint32_t peer_rate = 0;
    // Requests that may wait for the store at once; while that many wait nothing is read.
    unsigned max_waiting = 8;
    // Where refused datagrams are counted; null: nowhere.
    CTransportCounters* counters = nullptr;
};
