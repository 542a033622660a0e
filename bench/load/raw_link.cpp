#include "raw_link.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

uint16_t crc16(const uint8_t* p, size_t n) {
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : crc >> 1;
    }
    return crc;
}

// The length of the RTU answer frame whose first n >= 3 bytes are given.
size_t rtu_answer_length(const uint8_t* p) {
    if (p[1] & 0x80)
        return 5;
    switch (p[1]) {
    case 1:
    case 2:
    case 3:
    case 4:
        return 5u + p[2];
    default:
        return 8; // the writes echo address and quantity
    }
}

} // namespace

CRawLink::CRawLink(framing_t framing, const std::string& host, uint16_t port, uint8_t unit,
                   unsigned timeout_ms)
    : _framing(framing), _host(host), _port(port), _unit(unit), _timeout_ms(timeout_ms) {}

CRawLink::~CRawLink() {
    close();
}

void CRawLink::close() {
    if (_fd >= 0)
        ::close(_fd);
    _fd = -1;
    _in.clear();
}

bool CRawLink::connect(std::string& error) {
    close();
    const bool udp = _framing == framing_t::udp;
    const std::string where = _host + ":" + std::to_string(_port);
    addrinfo hints{};
    hints.ai_socktype = udp ? SOCK_DGRAM : SOCK_STREAM;
    addrinfo* found = nullptr;
    const int rc = getaddrinfo(_host.c_str(), std::to_string(_port).c_str(), &hints, &found);
    if (rc != 0) {
        error = "Couldn't resolve " + _host + ": " + gai_strerror(rc);
        return false;
    }
    _fd = ::socket(found->ai_family, found->ai_socktype, 0);
    // Over UDP, connect() only fixes the peer: answers from elsewhere are not taken.
    if (_fd < 0 || ::connect(_fd, found->ai_addr, found->ai_addrlen) != 0) {
        error = "Couldn't connect to " + where + ": " + std::strerror(errno);
        freeaddrinfo(found);
        close();
        return false;
    }
    freeaddrinfo(found);
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(_timeout_ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>((_timeout_ms % 1000) * 1000);
    ::setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (!udp) {
        const int on = 1;
        ::setsockopt(_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    return true;
}

CRawLink::result_t CRawLink::transact(const std::vector<uint8_t>& pdu,
                                      std::vector<uint8_t>& answer) {
    if (_fd < 0)
        return BROKEN;
    _out.clear();
    if (_framing == framing_t::udp) {
        ++_tid;
        const size_t length = pdu.size() + 1;
        _out = {static_cast<uint8_t>(_tid >> 8), static_cast<uint8_t>(_tid), 0, 0,
                static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length), _unit};
        _out.insert(_out.end(), pdu.begin(), pdu.end());
    } else {
        _out.push_back(_unit);
        _out.insert(_out.end(), pdu.begin(), pdu.end());
        const uint16_t crc = crc16(_out.data(), _out.size());
        _out.push_back(static_cast<uint8_t>(crc & 0xFF));
        _out.push_back(static_cast<uint8_t>(crc >> 8));
    }
    if (::send(_fd, _out.data(), _out.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(_out.size()))
        return _framing == framing_t::udp ? FAILED : BROKEN;
    return _framing == framing_t::udp ? udp_answer(answer) : rtu_answer(answer);
}

CRawLink::result_t CRawLink::udp_answer(std::vector<uint8_t>& answer) {
    uint8_t datagram[512];
    for (;;) {
        const ssize_t n = ::recv(_fd, datagram, sizeof datagram, 0);
        if (n < 0)
            return FAILED; // time-out, or the port refused
        // A late answer to an earlier request is passed over.
        if (n < 9 || datagram[0] != (_tid >> 8) || datagram[1] != (_tid & 0xFF) ||
            datagram[6] != _unit)
            continue;
        answer.assign(datagram + 7, datagram + n);
        return (answer[0] & 0x80) ? EXCEPTION : ANSWER;
    }
}

CRawLink::result_t CRawLink::rtu_answer(std::vector<uint8_t>& answer) {
    uint8_t chunk[512];
    for (;;) {
        if (_in.size() >= 3) {
            const size_t length = rtu_answer_length(_in.data());
            if (_in.size() >= length) {
                const uint16_t crc = crc16(_in.data(), length - 2);
                const bool good = _in[0] == _unit && _in[length - 2] == (crc & 0xFF) &&
                                  _in[length - 1] == (crc >> 8);
                answer.assign(_in.begin() + 1, _in.begin() + static_cast<long>(length) - 2);
                _in.erase(_in.begin(), _in.begin() + static_cast<long>(length));
                if (!good) {
                    _in.clear(); // out of step: start over with the next answer
                    return FAILED;
                }
                return (answer[0] & 0x80) ? EXCEPTION : ANSWER;
            }
        }
        const ssize_t n = ::recv(_fd, chunk, sizeof chunk, 0);
        if (n == 0)
            return BROKEN;
        if (n < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? FAILED : BROKEN;
        _in.insert(_in.end(), chunk, chunk + n);
    }
}
