#pragma once
// The test's end of a serial line: raw bytes out, bytes in with a time-out.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

class CPtyPeer {
public:
    explicit CPtyPeer(const std::string& path) {
        _fd = ::open(path.c_str(), O_RDWR | O_NOCTTY);
        if (_fd < 0)
            return;
        termios tio{};
        if (::tcgetattr(_fd, &tio) == 0) {
            ::cfmakeraw(&tio);
            ::tcsetattr(_fd, TCSANOW, &tio);
        }
    }
    ~CPtyPeer() {
        if (_fd >= 0)
            ::close(_fd);
    }
    CPtyPeer(const CPtyPeer&) = delete;
    CPtyPeer& operator=(const CPtyPeer&) = delete;

    bool ok() const { return _fd >= 0; }

    bool send(const std::vector<uint8_t>& bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::write(_fd, bytes.data() + done, bytes.size() - done);
            if (n <= 0)
                return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }

    // Reads until count bytes came or timeout_ms passed; returns what came.
    std::vector<uint8_t> receive(size_t count, int timeout_ms = 2000) {
        std::vector<uint8_t> out;
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (out.size() < count) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                break;
            pollfd p{_fd, POLLIN, 0};
            if (::poll(&p, 1, static_cast<int>(left.count())) <= 0)
                break;
            uint8_t buf[512];
            const ssize_t n = ::read(_fd, buf, std::min(sizeof buf, count - out.size()));
            if (n <= 0)
                break;
            out.insert(out.end(), buf, buf + n);
        }
        return out;
    }

    // True when nothing arrives for ms milliseconds.
    bool silent_for(int ms) { return receive(1, ms).empty(); }

private:
    int _fd = -1;
};
