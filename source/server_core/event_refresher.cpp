#include "server_core/event_refresher.h"

#include "cds/event_queue.h"
#include "io/io_timer.h"
#include "threads/cds/commands/thread_cds_event_page.h"
#include "util/cast.h"
#include "util/log.h"

namespace {
const uint32_t refresh_period_us = 1000000;
}

std::shared_ptr<CEventRefresher> CEventRefresher::create(CIoManager& manager, CEventQueue& queue,
                                                         const tk_string& log_path,
                                                         submit_t submit) {
    std::shared_ptr<CEventRefresher> refresher(
        new CEventRefresher(manager, queue, log_path, std::move(submit)));
    refresher->_timer->reset();
    return refresher;
}

CEventRefresher::CEventRefresher(CIoManager& manager, CEventQueue& queue, const tk_string& log_path,
                                 submit_t submit)
    : CIoActor(manager), _queue(queue), _log_path(log_path), _submit(std::move(submit)),
      _timer(CIoTimer::create(*this, refresh_period_us)) {
    _timer->assign(this);
}

void CEventRefresher::timeout(const CIoTimer&) {
    LOG_STACK();
    if (!_pending) {
        _pending = true;
        std::shared_ptr<CThreadResponseHandler> self =
            std::static_pointer_cast<CEventRefresher>(shared_from_this());
        _submit(std::make_unique<CThreadCdsEventPage>(self, static_cast<unsigned>(_queue.size()),
                                                      _log_path));
    }
    _timer->reset(refresh_period_us);
}

void CEventRefresher::post(CThreadCommand& cmd, bool) {
    _pending = false;
    std::unique_ptr<CEventQueue>& fresh = poly_cast<CThreadCdsEventPage*>(&cmd)->queue();
    if (fresh)
        _queue = std::move(*fresh);
}

void CEventRefresher::close() {
    _timer->assign(nullptr);
    _timer->cancel();
}
