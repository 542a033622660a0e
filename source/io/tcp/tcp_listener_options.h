#pragma once
// Who may connect to a TCP listener, for how long a connection may stay silent, and whether
// it speaks TLS.
#include "io/tcp/tcp_allow_list.h"

#include <cstdint>
#include <memory>
#include <string>

namespace boost {
namespace asio {
namespace ssl {
class context;
}
} // namespace asio
} // namespace boost

struct CTcpListenerOptions {
    // An IPv4 or IPv6 address of this host; empty: every address, IPv6 and IPv4 alike.
    std::string bind_address;
    // Open connections at most; the next one is accepted and closed at once.
    uint32_t max_connections = 64;
    // Seconds a connection may send nothing before it is closed; 0: forever.
    uint32_t idle_timeout_s = 0;
    CTcpAllowList allow;
    // Set: every connection speaks TLS with this context before its first request.
    std::shared_ptr<boost::asio::ssl::context> tls;
    // Seconds a TLS client has to complete its handshake before it is dropped.
    uint32_t handshake_timeout_s = 10;
    // The certificate extension (dotted OID) whose text is handed to the protocol handler as
    // the peer's identity; empty: none is handed.
    std::string identity_oid;
};
