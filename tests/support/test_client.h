#pragma once
// A blocking TCP client for tests: connect, send raw bytes, receive with a time-out.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

class CTestClient {
public:
    // Connects to the address to (IPv4 or IPv6) on port, from the IPv4 address from when
    // given, so that tests can be other loopback hosts (127.0.0.2); fd() < 0 when that failed.
    explicit CTestClient(uint16_t port, const char* to = "127.0.0.1", const char* from = nullptr,
                         int timeout_ms = 3000) {
        const int family = std::strchr(to, ':') ? AF_INET6 : AF_INET;
        _fd = ::socket(family, SOCK_STREAM, 0);
        const timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
        ::setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        const int one = 1;
        ::setsockopt(_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        const auto address = [family](const char* text, uint16_t p, sockaddr_storage& out) {
            auto& a4 = reinterpret_cast<sockaddr_in&>(out);
            auto& a6 = reinterpret_cast<sockaddr_in6&>(out);
            out.ss_family = static_cast<sa_family_t>(family);
            (family == AF_INET ? a4.sin_port : a6.sin6_port) = htons(p);
            void* at = family == AF_INET ? static_cast<void*>(&a4.sin_addr) : &a6.sin6_addr;
            return ::inet_pton(family, text, at) != 1 ? socklen_t(0)
                   : family == AF_INET                ? socklen_t(sizeof a4)
                                                      : socklen_t(sizeof a6);
        };
        sockaddr_storage local{}, remote{};
        socklen_t n = 0;
        const bool ok = _fd >= 0 &&
                        (!from || ((n = address(from, 0, local)) != 0 &&
                                   ::bind(_fd, reinterpret_cast<sockaddr*>(&local), n) == 0)) &&
                        (n = address(to, port, remote)) != 0 &&
                        ::connect(_fd, reinterpret_cast<sockaddr*>(&remote), n) == 0;
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
    // Not closed by the peer, without waiting: nothing to read and no end of stream.
    bool still_open() const {
        uint8_t byte;
        return ::recv(_fd, &byte, 1, MSG_DONTWAIT) < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
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
