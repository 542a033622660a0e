#include "util/util.h"

#include "util/log.h"
#include "util/realtime_priority.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

void CUtil::daemonize() {
    LOG_STACK();
    pid_t pid = ::fork();
    if (pid < 0)
        throw generic_err();
    if (pid > 0) {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            ::_exit(0);
        throw generic_err();
    }
    ::setsid();
    pid = ::fork();
    if (pid != 0)
        ::_exit(pid < 0 ? 1 : 0);
    if (::chdir("/") != 0)
        throw generic_err();
    ::close(0);
    ::close(1);
    ::close(2);
    if (::open("/dev/null", O_RDWR) != 0)
        throw generic_err();
    if (::dup(0) != 1 || ::dup(0) != 2)
        throw generic_err();
    ::umask(022);
}

void CUtil::set_uid(const tk_string& name) {
    LOG_STACK();
    uid_t uid = 0;
    if (const passwd* pw = ::getpwnam(name.c_str())) {
        uid = pw->pw_uid;
    } else {
        LOG_WARN(SS_DEFAULT, 1, "No user named '%s'", name.c_str());
        char* end = nullptr;
        errno = 0;
        const long long value = std::strtoll(name.c_str(), &end, 0);
        if (name.empty() || *end != '\0' || value < 0 || errno == ERANGE ||
            static_cast<unsigned long long>(value) > static_cast<uid_t>(-1))
            throw no_such_user();
        uid = static_cast<uid_t>(value);
    }
    if (::setuid(uid) != 0)
        throw generic_err();
}

void CUtil::set_process_prio(int prio) {
    LOG_STACK();
    if (::setpriority(PRIO_PROCESS, 0, prio) != 0)
        LOG_WARN(SS_DEFAULT, 1, "Couldn't set specified process scheduling parameters");
}

void CUtil::set_thread_prio(const CRealtimePriority& prio) {
    LOG_STACK();
    assert(prio.priority() >= ::sched_get_priority_min(prio.policy()) &&
           prio.priority() <= ::sched_get_priority_max(prio.policy()));
    sched_param param{};
    param.sched_priority = prio.priority();
    if (::sched_setscheduler(0, prio.policy(), &param) != 0)
        LOG_WARN(SS_DEFAULT, 1, "Couldn't set specified [RT] thread scheduling parameters");
}

void CUtil::alter_signal_mask(bool block) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGSEGV);
    sigaddset(&set, SIGILL);
    sigaddset(&set, SIGFPE);
    ::pthread_sigmask(block ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}
