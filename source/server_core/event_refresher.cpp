#include "server_core/event_refresher.h"

#include "cds/event_queue.h"
#include "store/store_worker.h"
#include "util/log.h"

std::shared_ptr<CEventRefresher> CEventRefresher::create(CIoManager& manager, CEventQueue& queue,
                                                         const tk_string& log_path,
                                                         CStoreWorker& worker) {
    std::shared_ptr<CEventRefresher> refresher(
        new CEventRefresher(manager, queue, log_path, worker));
    refresher->start();
    return refresher;
}

CEventRefresher::CEventRefresher(CIoManager& manager, CEventQueue& queue, const tk_string& log_path,
                                 CStoreWorker& worker)
    : CPeriodicActor(manager, std::chrono::seconds(1)), _queue(queue), _log_path(log_path),
      _worker(worker) {}

void CEventRefresher::tick() {
    LOG_STACK();
    if (_pending)
        return;
    _pending = true;
    const unsigned length = static_cast<unsigned>(_queue.size());
    auto fresh = std::make_shared<std::unique_ptr<CEventQueue>>();
    std::weak_ptr<CEventRefresher> weak =
        std::static_pointer_cast<CEventRefresher>(shared_from_this());
    _worker.run(
        // When the log cannot be read the queue's error says why, and the store worker, which
        // catches it, logs it; the registers then keep the events read before.
        [fresh, length, path = _log_path](CCdsHandle&) {
            fresh->reset(new CEventQueue(length, path));
            return true;
        },
        [weak, fresh](bool ok) {
            const auto self = weak.lock();
            if (!self)
                return;
            self->_pending = false;
            if (ok && *fresh)
                self->_queue = std::move(**fresh);
        });
}
