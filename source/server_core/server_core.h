#pragma once
// The running server's hub: request handlers and the watchdog reach the device
// configuration registry, the event queue and the CDS thread through it. All three
// operations are for the I/O thread only.
#include "threads/commands/thread_command.h"
#include "util/generic_err.h"

#include <memory>

class CModbusConfig;
class CEventQueue;
class CThreadBase;

class CServerCore {
public:
    // Start-up failed; the program's entry ends the process.
    struct init_err : generic_err {};

    // Assembles a core from ready parts (any may be null until it is needed).
    CServerCore(std::shared_ptr<CModbusConfig> cfg, std::unique_ptr<CEventQueue> ev_queue,
                std::unique_ptr<CThreadBase> cds_thread);
    ~CServerCore();
    CServerCore(const CServerCore&) = delete;
    CServerCore& operator=(const CServerCore&) = delete;

    CModbusConfig& get_config() const;
    const CEventQueue& ev_queue() const;
    // Hands cmd to the CDS thread, urgent ones to the front of its queue; never blocks.
    void add_cds_cmd(cmd_ptr_t cmd, bool urgent);
    CThreadBase& cds_thread() const;

private:
    std::unique_ptr<CThreadBase> _cds_thread;
    std::shared_ptr<CModbusConfig> _cfg;
    std::unique_ptr<CEventQueue> _ev_queue;
};
