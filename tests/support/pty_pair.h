#pragma once
// Two connected pseudo-terminals made by a socat process, standing in for the two ends of a
// serial line. stop() kills socat, which takes both ends away.
#include "support/wait.h"

#include <boost/test/unit_test.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

extern char** environ;

class CPtyPair {
public:
    // For a test that needs socat: skipped where it is missing.
    static boost::test_tools::assertion_result needed(boost::unit_test::test_unit_id) {
        const char* path = std::getenv("PATH");
        std::istringstream dirs(path ? path : "/usr/bin:/bin");
        boost::test_tools::assertion_result found(false);
        for (std::string dir; !found && std::getline(dirs, dir, ':');)
            found = !dir.empty() && ::access((dir + "/socat").c_str(), X_OK) == 0;
        found.message() << "socat is not installed";
        return found;
    }

    // ok() tells whether both ends appeared in time.
    CPtyPair() {
        char tmpl[] = "/tmp/mb_pty_XXXXXX";
        if (::mkdtemp(tmpl) == nullptr)
            return;
        _dir = tmpl;
        const std::string a = "pty,raw,echo=0,link=" + end_a();
        const std::string b = "pty,raw,echo=0,link=" + end_b();
        char* argv[] = {const_cast<char*>("socat"), const_cast<char*>(a.c_str()),
                        const_cast<char*>(b.c_str()), nullptr};
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        const int rc = ::posix_spawnp(&_pid, "socat", &actions, nullptr, argv, environ);
        ::posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            _pid = -1;
            return;
        }
        _ok = eventually([this] {
            return ::access(end_a().c_str(), F_OK) == 0 && ::access(end_b().c_str(), F_OK) == 0;
        });
    }
    ~CPtyPair() {
        stop();
        if (_dir.empty())
            return;
        ::unlink(end_a().c_str());
        ::unlink(end_b().c_str());
        ::rmdir(_dir.c_str());
    }
    CPtyPair(const CPtyPair&) = delete;
    CPtyPair& operator=(const CPtyPair&) = delete;

    bool ok() const { return _ok; }
    std::string end_a() const { return _dir + "/a"; }
    std::string end_b() const { return _dir + "/b"; }

    void stop() {
        if (_pid <= 0)
            return;
        ::kill(_pid, SIGTERM);
        int status = 0;
        ::waitpid(_pid, &status, 0);
        _pid = -1;
    }

private:
    std::string _dir;
    pid_t _pid = -1;
    bool _ok = false;
};
