// CSystemdNotify against real AF_UNIX datagram sockets, as systemd's notify socket is one.
#include "util/systemd_notify.h"

#include <boost/test/unit_test.hpp>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Sets (or, given nullptr, unsets) an environment variable for one scope.
struct CEnvVar {
    CEnvVar(const char* name, const char* value)
        : name(name), had(std::getenv(name) != nullptr), old(had ? std::getenv(name) : "") {
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~CEnvVar() { had ? ::setenv(name, old.c_str(), 1) : ::unsetenv(name); }
    const char* name;
    bool had;
    std::string old;
};

// A bound datagram socket standing in for systemd's: a path, or an abstract name given
// with its leading '@'.
class CNotifySocket {
public:
    explicit CNotifySocket(const std::string& name) : _name(name) {
        _fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        BOOST_REQUIRE(_fd >= 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name[0] == '@')
            address.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        BOOST_REQUIRE(::bind(_fd, reinterpret_cast<const sockaddr*>(&address), length) == 0);
        timeval timeout{1, 0};
        ::setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }
    ~CNotifySocket() {
        ::close(_fd);
        if (_name[0] == '/')
            ::unlink(_name.c_str());
    }
    // The next datagram, or "(none)" after a second.
    std::string receive() {
        char buffer[256];
        const ssize_t n = ::recv(_fd, buffer, sizeof buffer, 0);
        return n < 0 ? std::string("(none)") : std::string(buffer, static_cast<size_t>(n));
    }

private:
    std::string _name;
    int _fd = -1;
};

std::string unique_name(const char* prefix) {
    return prefix + std::to_string(::getpid()) + "_" + std::to_string(::rand());
}

} // namespace

BOOST_AUTO_TEST_SUITE(util)
BOOST_AUTO_TEST_SUITE(systemd_notify)

BOOST_AUTO_TEST_CASE(datagrams_reach_a_path_and_an_abstract_socket) {
    for (const std::string& name : {unique_name("/tmp/mb_notify_"), unique_name("@mb_notify_")}) {
        CNotifySocket socket(name);
        CEnvVar env("NOTIFY_SOCKET", name.c_str());
        const CSystemdNotify notify;
        BOOST_TEST(notify.enabled());
        BOOST_TEST(notify.notify("READY=1"), name);
        BOOST_TEST(socket.receive() == "READY=1", name);
        BOOST_TEST(notify.notify("WATCHDOG=1\nSTATUS=serving"), name);
        BOOST_TEST(socket.receive() == "WATCHDOG=1\nSTATUS=serving", name);
    }
}

BOOST_AUTO_TEST_CASE(no_socket_or_an_unusable_one_sends_nothing_and_does_not_throw) {
    // None; nobody listens there; a relative name is no socket address, and a name longer
    // than a socket address holds is refused at start.
    const std::string nobody = unique_name("/tmp/mb_no_listener_");
    const std::string too_long = "/tmp/" + std::string(200, 'x');
    for (const char* name :
         {static_cast<const char*>(nullptr), nobody.c_str(), "relative", "@", too_long.c_str()}) {
        CEnvVar env("NOTIFY_SOCKET", name);
        const CSystemdNotify notify;
        BOOST_TEST(notify.enabled() == (name == nobody.c_str()), (name ? name : "(unset)"));
        BOOST_CHECK_NO_THROW(BOOST_TEST(!notify.notify("READY=1")));
        BOOST_CHECK_NO_THROW(BOOST_TEST(!notify.notify("WATCHDOG=1")));
    }
}

BOOST_AUTO_TEST_CASE(watchdog_interval_only_for_this_process) {
    const std::string me = std::to_string(::getpid());
    const std::string other = std::to_string(::getpid() + 1);
    struct {
        const char* usec;
        const char* pid;
        long long want_usec;
    } cases[] = {
        {"2500000", nullptr, 2500000},
        {"2500000", me.c_str(), 2500000},
        {"2500000", other.c_str(), 0},
        {"2500000", "garbage", 0},
        {nullptr, nullptr, 0},
        {"0", nullptr, 0},
        {"-5", nullptr, 0},
        {"12abc", nullptr, 0},
        {"", nullptr, 0},
        {"99999999999999999999999", nullptr, 0},
        // Past 32 bits: an hour and a quarter in microseconds.
        {"4500000000", nullptr, 4500000000LL},
    };
    for (const auto& c : cases) {
        CEnvVar usec("WATCHDOG_USEC", c.usec);
        CEnvVar pid("WATCHDOG_PID", c.pid);
        const CSystemdNotify notify;
        BOOST_TEST(notify.watchdog_interval().count() == c.want_usec,
                   (c.usec ? c.usec : "(unset)") << " pid " << (c.pid ? c.pid : "(unset)"));
    }
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
