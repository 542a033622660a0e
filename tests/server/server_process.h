#pragma once
// The real modbus_server binary run by a test: started with arguments in the background,
// its stderr caught in a file, stopped by a signal.
#include "support/test_port.h"
#include "toolkit/store_fixture.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>

class CServerProcess {
public:
    CServerProcess(const CTempDir& dir, const std::vector<tk_string>& args)
        : _log(dir.file("server.log")) {
        const tk_string exe = MB_BINARY_DIR "/modbus_server";
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(exe.c_str()));
        for (const tk_string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        _pid = ::fork();
        BOOST_REQUIRE(_pid >= 0);
        if (_pid == 0) {
            const int fd = ::open(_log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ::dup2(fd, 1);
            ::dup2(fd, 2);
            ::execv(exe.c_str(), argv.data());
            ::_exit(127);
        }
    }
    ~CServerProcess() {
        if (_pid > 0) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
        }
    }

    // Exit status once it ended within ms (-1 still running, -2 killed by a signal).
    int wait(int ms) {
        for (int i = 0; i < ms / 10 + 1; ++i) {
            int status = 0;
            if (::waitpid(_pid, &status, WNOHANG) == _pid) {
                _pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -2;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }
    void signal(int sig) { ::kill(_pid, sig); }
    pid_t pid() const { return _pid; }
    tk_string log() const { return read_text(_log); }

private:
    tk_string _log;
    pid_t _pid = -1;
};
