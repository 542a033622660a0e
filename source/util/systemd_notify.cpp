#include "util/systemd_notify.h"

#include "util/log.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// A whole decimal number without sign or trailing text; false otherwise (or on overflow).
bool parse_decimal(const char* text, unsigned long long& value) {
    if (!text || *text < '0' || *text > '9')
        return false;
    errno = 0;
    char* end = nullptr;
    value = std::strtoull(text, &end, 10);
    return errno == 0 && *end == '\0';
}

} // namespace

CSystemdNotify::CSystemdNotify() {
    const char* socket = std::getenv("NOTIFY_SOCKET");
    if (socket && (socket[0] == '/' || socket[0] == '@') && socket[1] != '\0') {
        if (std::strlen(socket) < sizeof(sockaddr_un::sun_path))
            _socket = socket;
        else
            LOG_WARN(SS_DEFAULT, 0,
                     "NOTIFY_SOCKET '%s' is too long for a socket address: "
                     "systemd gets no notices",
                     socket);
    }

    unsigned long long usec = 0;
    if (!parse_decimal(std::getenv("WATCHDOG_USEC"), usec) || usec == 0)
        return;
    const char* pid_text = std::getenv("WATCHDOG_PID");
    unsigned long long pid = 0;
    if (pid_text &&
        (!parse_decimal(pid_text, pid) || pid != static_cast<unsigned long long>(::getpid())))
        return;
    _watchdog = std::chrono::microseconds(static_cast<std::chrono::microseconds::rep>(usec));
}

bool CSystemdNotify::notify(std::string_view state) const noexcept {
    if (_socket.empty())
        return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, _socket.data(), _socket.size());
    // An abstract name starts with a NUL byte and is exactly as long as given.
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + _socket.size());

    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool sent = false;
    int error = errno;
    if (fd >= 0) {
        const ssize_t n = ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
                                   reinterpret_cast<const sockaddr*>(&address), length);
        error = errno;
        sent = n == static_cast<ssize_t>(state.size());
        ::close(fd);
    }
    if (!sent && !_failure_logged.exchange(true)) {
        // Logging may allocate; a notice that cannot even be logged must not end the caller.
        try {
            LOG_WARN(SS_DEFAULT, 0, "Can't send '%.*s' to systemd's socket '%s': %s",
                     static_cast<int>(state.size()), state.data(), _socket.c_str(),
                     std::strerror(error));
        } catch (...) {
        }
    }
    return sent;
}
