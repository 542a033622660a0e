#pragma once
// Who may connect to a TCP listener, for how long a connection may stay silent, which one
// makes room for a newcomer at the limit, and whether it speaks TLS.
#include "io/tcp/tcp_allow_list.h"

#include <cstdint>
#include <memory>
#include <string>

class CTlsEngine;
struct CTransportCounters;

struct CTcpListenerOptions {
    // An IPv4 or IPv6 address of this host; empty: every address, IPv6 and IPv4 alike.
    std::string bind_address;
    // Open connections at most; the next one is accepted and closed at once, unless one of
    // them can be evicted for it.
    uint32_t max_connections = 64;
    // At the limit, the connection that waits longest for its client's next request is closed
    // to admit a newcomer, if its last whole request (or its accept) is at least this many
    // seconds old; 0: never, the newcomer is refused.
    uint32_t evict_after_s = 10;
    // Seconds a connection may send nothing before it is closed; 0: forever.
    uint32_t idle_timeout_s = 0;
    // Milliseconds that received bytes may wait to be taken as a request before the
    // connection is closed: a stream whose frames are not length-prefixed cannot tell a slow
    // request from bytes that will never make one. 0: they may wait for good.
    uint32_t frame_timeout_ms = 0;
    CTcpAllowList allow;
    // Set: every connection speaks TLS, with sessions this engine makes, before its first
    // request.
    std::shared_ptr<CTlsEngine> tls;
    // Seconds a TLS client has to complete its handshake before it is dropped.
    uint32_t handshake_timeout_s = 10;
    // The certificate extension (dotted OID) whose text is handed to the protocol handler as
    // the peer's identity; empty: none is handed.
    std::string identity_oid;
    // Where the listener counts evictions; null: nowhere.
    CTransportCounters* counters = nullptr;
};
