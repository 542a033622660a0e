#include "threads/thread_io_actor.h"

#include "threads/queue/thread_queue.h"
#include "util/log.h"

#include <boost/asio/post.hpp>

#include <cassert>

std::shared_ptr<CThreadIoActor> CThreadIoActor::create(CIoManager& manager,
                                                       CThreadResponseQueue& queue) {
    return std::shared_ptr<CThreadIoActor>(new CThreadIoActor(manager, queue));
}

void CThreadIoActor::post() {
    auto self = std::static_pointer_cast<CThreadIoActor>(shared_from_this());
    boost::asio::post(get_io_service(), [self] { self->handler(); });
}

void CThreadIoActor::handler() {
    LOG_STACK();
    if (!_queue)
        return;
    for (cmd_ptr_t& cmd : _queue->remove(false)) {
        assert(cmd);
        cmd->post_(false);
    }
}

void CThreadIoActor::close() {
    if (_queue)
        _queue->detach(this);
}
