#include "threads/cds/commands/thread_cds_set_leaves.h"

#include "cds/cds_handle.h"
#include "threads/cds/cds_thread.h"
#include "util/cast.h"
#include "util/generic_err.h"

CThreadCdsSetLeaves::CThreadCdsSetLeaves(const std::weak_ptr<CThreadResponseHandler>& requester,
                                         std::unordered_set<CCdsLeaf> leaves)
    : CThreadCommand(requester), _leaves(std::move(leaves)) {}

void CThreadCdsSetLeaves::execute(CThreadBase* thread) {
    if (!has_handler())
        return;
    try {
        poly_cast<CCdsThread*>(thread)->handle().set(_leaves, tk_string());
    } catch (const generic_err&) {
        set_failed(true); // the handle logged why
    }
}
