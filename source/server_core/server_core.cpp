#include "server_core/server_core.h"

#include "cds/event_queue.h"
#include "threads/thread_base.h"

#include <cassert>

CServerCore::CServerCore(std::shared_ptr<CModbusConfig> cfg, std::unique_ptr<CEventQueue> ev_queue,
                         std::unique_ptr<CThreadBase> cds_thread)
    : _cds_thread(std::move(cds_thread)), _cfg(std::move(cfg)), _ev_queue(std::move(ev_queue)) {}

CServerCore::~CServerCore() = default;

CModbusConfig& CServerCore::get_config() const {
    assert(_cfg);
    return *_cfg;
}

const CEventQueue& CServerCore::ev_queue() const {
    assert(_ev_queue);
    return *_ev_queue;
}

void CServerCore::add_cds_cmd(cmd_ptr_t cmd, bool urgent) {
    assert(_cds_thread);
    _cds_thread->send(std::move(cmd), urgent);
}

CThreadBase& CServerCore::cds_thread() const {
    assert(_cds_thread);
    return *_cds_thread;
}
