#pragma once
// A blocking TCP client for tests: connect, send raw bytes, receive with a time-out.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

class CTestClient {
public:
    // Connects to 127.0.0.1:port (or ::1 with ipv6); fd() < 0 when that failed.
    explicit CTestClient(uint16_t port, bool ipv6 = false, int timeout_ms = 3000) {
        _fd = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
        if (_fd < 0)
            return;
        timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
        ::setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        int one = 1;
        ::setsockopt(_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        int rc;
        if (ipv6) {
            sockaddr_in6 addr{};
            addr.sin6_family = AF_INET6;
            addr.sin6_port = htons(port);
            addr.sin6_addr = in6addr_loopback;
            rc = ::connect(_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        } else {
            sockaddr_in addr{};
            addr.sin_family = AF_INET;
            addr.sin_port = htons(port);
            addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            rc = ::connect(_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        }
        if (rc != 0) {
            ::close(_fd);
            _fd = -1;
        }
    }
    // Connects from the IPv4 address from (any when null) to the IPv4 address to, so that
    // tests can be other loopback hosts (127.0.0.2).
    CTestClient(const char* to, uint16_t port, const char* from = nullptr, int timeout_ms = 3000) {
        _fd = ::socket(AF_INET, SOCK_STREAM, 0);
        if (_fd < 0)
            return;
        timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
        ::setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        bool ok = true;
        if (from) {
            ok = ::inet_pton(AF_INET, from, &addr.sin_addr) == 1 &&
                 ::bind(_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        }
        addr.sin_port = htons(port);
        ok = ok && ::inet_pton(AF_INET, to, &addr.sin_addr) == 1 &&
             ::connect(_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        if (!ok)
            close();
    }
    ~CTestClient() { close(); }
    CTestClient(const CTestClient&) = delete;
    CTestClient& operator=(const CTestClient&) = delete;

    int fd() const { return _fd; }
    bool send(const std::vector<uint8_t>& bytes) { return send(bytes.data(), bytes.size()); }
    bool send(const std::string& text) {
        return send(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    bool send(const uint8_t* data, size_t len) {
        while (len > 0) {
            const ssize_t n = ::send(_fd, data, len, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            data += n;
            len -= static_cast<size_t>(n);
        }
        return true;
    }
    // Exactly count bytes, or fewer when the time-out or the peer's close came first.
    std::vector<uint8_t> receive(size_t count) {
        std::vector<uint8_t> out(count);
        size_t got = 0;
        while (got < count) {
            const ssize_t n = ::recv(_fd, out.data() + got, count - got, 0);
            if (n <= 0)
                break;
            got += static_cast<size_t>(n);
        }
        out.resize(got);
        return out;
    }
    std::string receive_text(size_t count) {
        const auto bytes = receive(count);
        return std::string(bytes.begin(), bytes.end());
    }
    // True when the peer closed the connection (read gives end of stream or reset).
    bool peer_closed() {
        uint8_t byte;
        const ssize_t n = ::recv(_fd, &byte, 1, 0);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }
    void shutdown_write() { ::shutdown(_fd, SHUT_WR); }
    // Closes with a reset instead of an orderly close.
    void reset() {
        linger l{1, 0};
        ::setsockopt(_fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
        close();
    }
    void close() {
        if (_fd >= 0)
            ::close(_fd);
        _fd = -1;
    }

private:
    int _fd = -1;
};
