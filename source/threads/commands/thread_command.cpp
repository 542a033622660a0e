#include "threads/commands/thread_command.h"

#include "io/io_timer.h"
#include "threads/commands/thread_response_handler.h"

#include <cassert>

CThreadResponseHandler::~CThreadResponseHandler() = default;

CThreadCommand::CThreadCommand(const std::weak_ptr<CThreadResponseHandler>& requester)
    : _requester(requester) {}

CThreadCommand::~CThreadCommand() {
    std::shared_ptr<CIoTimer> timer;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        timer = _timer;
    }
    // Waits for an expiry that is calling this command right now.
    if (timer)
        timer->assign(nullptr);
}

void CThreadCommand::timeout(const CIoTimer&) {
    post_(true);
}

void CThreadCommand::post(CThreadResponseHandler& handler, bool timed_out) {
    handler.post(*this, timed_out);
}

void CThreadCommand::post_(bool timed_out) {
    if (const auto handler = get_handler(true))
        post(*handler, timed_out);
}

bool CThreadCommand::has_handler() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return !_requester.expired();
}

std::shared_ptr<CThreadResponseHandler> CThreadCommand::get_handler(bool take) {
    std::lock_guard<std::mutex> lock(_mutex);
    auto handler = _requester.lock();
    if (take)
        _requester.reset();
    return handler;
}

// The timer is (re)assigned outside the command's lock: an expiry holds the timer's lock
// while it calls back into the command, so the two locks are never taken in that order.
void CThreadCommand::give_timer(std::shared_ptr<CIoTimer>& timer) {
    std::shared_ptr<CIoTimer> old;
    std::shared_ptr<CIoTimer> mine = std::move(timer);
    timer.reset();
    {
        std::lock_guard<std::mutex> lock(_mutex);
        old = std::move(_timer);
        _timer = mine;
    }
    if (old)
        old->assign(nullptr);
    if (mine)
        mine->assign(this);
}

std::shared_ptr<CIoTimer> CThreadCommand::take_timer() {
    std::shared_ptr<CIoTimer> timer;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        timer = std::move(_timer);
    }
    if (timer)
        timer->assign(nullptr);
    return timer;
}
