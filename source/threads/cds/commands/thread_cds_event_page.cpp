#include "threads/cds/commands/thread_cds_event_page.h"

#include "util/generic_err.h"
#include "util/log.h"

CThreadCdsEventPage::CThreadCdsEventPage(const std::weak_ptr<CThreadResponseHandler>& requester,
                                         unsigned length, const tk_string& log_path)
    : CThreadCommand(requester), _length(length), _log_path(log_path) {}

void CThreadCdsEventPage::execute(CThreadBase*) {
    if (!has_handler())
        return;
    try {
        _queue.reset(new CEventQueue(_length, _log_path));
    } catch (const generic_err&) {
        // The queue's constructor said why; the registers keep the events read before.
        _queue.reset();
    }
}
