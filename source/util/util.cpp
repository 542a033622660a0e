#include "util/util.h"

#include "util/log.h"
#include "util/realtime_priority.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

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
            throw no_such_user("Couldn't set UID");
        uid = static_cast<uid_t>(value);
    }
    if (::setuid(uid) != 0)
        throw CError("Couldn't set UID");
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
