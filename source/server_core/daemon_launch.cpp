#include "server_core/daemon_launch.h"

#include "toolkit/sys_log.h"
#include "util/error.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void write_all(int fd, const char* data, size_t len) {
    while (len > 0) {
        const ssize_t n = ::write(fd, data, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        data += n;
        len -= static_cast<size_t>(n);
    }
}

ssize_t read_some(int fd, char* data, size_t len) {
    ssize_t n;
    do
        n = ::read(fd, data, len);
    while (n < 0 && errno == EINTR);
    return n;
}

void say(const char* text) {
    const tk_string line = toolkit::CSysLog::_ident + ": " + text + "\n";
    write_all(STDERR_FILENO, line.data(), line.size());
}

// The starting process: the daemon's stderr until it reports or ends, then its verdict.
[[noreturn]] void follow(int err_fd, int status_fd) {
    char buf[4096];
    bool heard = false;
    for (ssize_t n; (n = read_some(err_fd, buf, sizeof buf)) > 0;) {
        write_all(STDERR_FILENO, buf, static_cast<size_t>(n));
        heard = true;
    }
    // The daemon writes its report before letting go of stderr, so it is complete here.
    char report[32] = {};
    size_t got = 0;
    for (ssize_t n; got < sizeof report - 1 &&
                    (n = read_some(status_fd, report + got, sizeof report - 1 - got)) > 0;)
        got += static_cast<size_t>(n);
    const long pid = got > 1 ? std::strtol(report + 1, nullptr, 10) : 0;
    char text[160];
    if (report[0] == 'R') {
        std::snprintf(text, sizeof text, "serving in the background as process %ld", pid);
        say(text);
        ::_exit(0);
    }
    if (report[0] == 'U') {
        std::snprintf(text, sizeof text,
                      "process %ld waits in the background for the UPS handler; it reads its "
                      "configuration then and reports to syslog",
                      pid);
        say(text);
        ::_exit(0);
    }
    if (!heard)
        say("the daemon ended during start-up");
    ::_exit(1);
}

// Before anything is forked: the caller goes on in the foreground process or gives up.
[[noreturn]] void cannot_daemonize() {
    throw CError("Couldn't daemonize process");
}

} // namespace

CDaemonLaunch::CDaemonLaunch() {
    int err_pipe[2];
    int status_pipe[2];
    if (::pipe(err_pipe) != 0)
        cannot_daemonize();
    if (::pipe(status_pipe) != 0) {
        ::close(err_pipe[0]);
        ::close(err_pipe[1]);
        cannot_daemonize();
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
        for (int fd : {err_pipe[0], err_pipe[1], status_pipe[0], status_pipe[1]})
            ::close(fd);
        cannot_daemonize();
    }
    if (pid > 0) {
        ::close(err_pipe[1]);
        ::close(status_pipe[1]);
        // The intermediate process ends at once; the daemon is its orphan.
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        follow(err_pipe[0], status_pipe[0]);
    }
    ::close(err_pipe[0]);
    ::close(status_pipe[0]);
    ::setsid();
    const pid_t daemon = ::fork();
    if (daemon != 0) {
        if (daemon < 0)
            write_all(err_pipe[1], "Couldn't fork the daemon\n", 25);
        ::_exit(daemon < 0 ? 1 : 0);
    }
    _status_fd = status_pipe[1];
    const int null_fd = ::open("/dev/null", O_RDWR);
    if (null_fd < 0 || ::chdir("/") != 0) {
        write_all(err_pipe[1], "Couldn't open /dev/null or change to /\n", 39);
        ::_exit(1);
    }
    ::dup2(null_fd, STDIN_FILENO);
    ::dup2(null_fd, STDOUT_FILENO);
    ::dup2(err_pipe[1], STDERR_FILENO);
    ::close(err_pipe[1]);
    if (null_fd > STDERR_FILENO)
        ::close(null_fd);
    ::umask(022);
}

CDaemonLaunch::~CDaemonLaunch() {
    if (_status_fd >= 0)
        ::close(_status_fd);
}

void CDaemonLaunch::report(char status) {
    if (_status_fd < 0)
        return;
    char text[32];
    const int n = std::snprintf(text, sizeof text, "%c%ld", status, static_cast<long>(::getpid()));
    write_all(_status_fd, text, static_cast<size_t>(n));
    ::close(_status_fd);
    _status_fd = -1;
    const int null_fd = ::open("/dev/null", O_WRONLY);
    if (null_fd >= 0) {
        ::dup2(null_fd, STDERR_FILENO);
        if (null_fd > STDERR_FILENO)
            ::close(null_fd);
    }
}
