#include "threads/cds/commands/thread_cds_leaves.h"

#include "cds/cds_handle.h"
#include "threads/cds/cds_thread.h"
#include "threads/commands/thread_response_handler.h"
#include "util/cast.h"

void CThreadCdsGetLeaves::execute(CThreadBase* thread) {
    if (has_handler())
        poly_cast<CCdsThread*>(thread)->handle().get(_leaves, _prefix);
}

void CThreadCdsGetLeaves::post(CThreadResponseHandler& handler, bool timed_out) {
    handler.post(*this, timed_out);
}

void CThreadCdsSetLeaves::execute(CThreadBase* thread) {
    if (has_handler())
        poly_cast<CCdsThread*>(thread)->handle().set(_leaves, _prefix);
}

void CThreadCdsSetLeaves::post(CThreadResponseHandler& handler, bool timed_out) {
    handler.post(*this, timed_out);
}
