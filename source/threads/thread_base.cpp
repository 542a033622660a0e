#include "threads/thread_base.h"

#include "threads/commands/thread_quit.h"
#include "util/generic_err.h"
#include "util/log.h"
#include "util/util.h"

#include <chrono>

#include <cassert>
#include <pthread.h>

CThreadBase::CThreadBase(const tk_string& name, const boost::optional<CRealtimePriority>& priority)
    : _name(name), _priority(priority), _command_queue(new CThreadCommandQueue),
      _response_queue(new CThreadResponseQueue) {
    start();
}

CThreadBase::~CThreadBase() {
    if (_thr)
        stop(5);
}

void CThreadBase::start() {
    LOG_STACK();
    if (_thr) {
        assert(_thr->get_id() != std::this_thread::get_id());
        LOG_THREAD(err, 0, "Attempt to create a 2nd thread on a single object");
        throw generic_err();
    }
    _ended = false;
    _thr.reset(new std::thread([this] {
        struct CEndSignal {
            CThreadBase& thread;
            ~CEndSignal() {
                std::lock_guard<std::mutex> lock(thread._end_mutex);
                thread._ended = true;
                thread._end_cond.notify_all();
            }
        } signal{*this};
        (*this)();
    }));
}

void CThreadBase::send(cmd_ptr_t cmd, bool urgent) {
    assert(_command_queue);
    _command_queue->add(std::move(cmd), urgent);
}

cmdlist_t CThreadBase::receive() {
    assert(_response_queue);
    return _response_queue->remove(true);
}

void CThreadBase::create_actor(CIoManager& manager) {
    assert(_response_queue);
    _response_queue->create_actor(manager);
}

bool CThreadBase::execute_commands() {
    LOG_STACK();
    cmdlist_t batch = _command_queue->remove(true);
    for (auto it = batch.begin(); it != batch.end(); ++it) {
        if (!execute(**it)) {
            // The worker ends. Commands not delivered go back to the queue: stop() drops
            // them on its own thread, where the event loop of their timers lives.
            cmdlist_t rest;
            rest.splice(rest.end(), batch, it, batch.end());
            _command_queue->put_back(std::move(rest));
            return true;
        }
        _response_queue->add(std::move(*it), false);
    }
    return false;
}

bool CThreadBase::execute(CThreadCommand& cmd) {
    cmd.set_failed(false);
    try {
        cmd.execute(this);
    } catch (const CThreadCommand::worker_quit&) {
        return false;
    } catch (const generic_err& e) {
        if (thread_log()._verbosity >= 2)
            thread_log().err(2, __PRETTY_FUNCTION__, "Caught exception '%s'", e.what());
        cmd.set_failed(true);
    } catch (const std::exception&) {
        LOG_THREAD(err, 0, "Unexpected std::exception!");
        cmd.set_failed(true);
        return false;
    } catch (...) {
        // Also the unwinding of a cancelled thread, which must go on.
        LOG_THREAD(err, 0, "Unexpected exception!");
        throw;
    }
    return true;
}

void CThreadBase::operator()() {
    install_thread_log(make_thread_log(_name.c_str()));
    if (_priority)
        CUtil::set_thread_prio(*_priority);
    while (!execute_commands()) {
    }
    _response_queue->exit();
}

void CThreadBase::stop(size_t timeout) {
    LOG_STACK();
    if (!_thr)
        return;
    assert(_thr->get_id() != std::this_thread::get_id());
    send(cmd_ptr_t(new CThreadQuit), true);
    bool ended;
    {
        std::unique_lock<std::mutex> lock(_end_mutex);
        ended = _end_cond.wait_for(lock, std::chrono::seconds(timeout), [this] { return _ended; });
    }
    if (!ended) {
        LOG_THREAD(err, 1, "Timed out waiting for '%s' to exit! Forcing thread to exit...",
                   _name.c_str());
        ::pthread_cancel(_thr->native_handle());
    }
    _thr->join();
    _thr.reset();
    // Commands still queued either way hold timers of the caller's event loop, so they are
    // destroyed here, on the caller's thread, while that loop still exists.
    _command_queue->remove(false);
    _response_queue->remove(false);
}
