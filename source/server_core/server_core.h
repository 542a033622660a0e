#pragma once
// The running server. Constructed from the command line it starts up completely: options,
// optional daemon, priorities, the data store and its CDS thread, the wait for the UPS
// handler, the settings and the unit registry; main() then serves Modbus TCP and RTU until
// a terminating signal, and shutdown() stops the CDS thread.
//
// It is also the hub through which request handlers and the watchdog reach the registry,
// the event queue and the CDS thread; those services are for the I/O thread only.
#include "threads/commands/thread_command.h"
#include "util/generic_err.h"

#include <memory>

class CCdsHandle;
class CEventQueue;
class CIoManager;
class CModbusConfig;
class CModbusSettings;
class CServerOptions;
class CThreadBase;

class CServerCore {
public:
    // Start-up failed (already logged); the program's entry ends the process.
    struct init_err : generic_err {};

    // Full start-up from the command line.
    CServerCore(int argc, const char* const* argv);
    // Assembles a core from ready parts (any may be null until it is needed).
    CServerCore(std::shared_ptr<CModbusConfig> cfg, std::unique_ptr<CEventQueue> ev_queue,
                std::unique_ptr<CThreadBase> cds_thread);
    ~CServerCore();
    CServerCore(const CServerCore&) = delete;
    CServerCore& operator=(const CServerCore&) = delete;

    // Serves until a terminating signal (at once when one came during start-up); false when
    // the transports could not be set up.
    bool main();
    // Stops the CDS thread (5 seconds at most) and lets go of the store.
    void shutdown();
    // Whether the device's UPS handler has finished its own start-up.
    bool is_ups_ready();

    CModbusConfig& get_config() const;
    const CEventQueue& ev_queue() const;
    // Hands cmd to the CDS thread, urgent ones to the front of its queue; never blocks.
    void add_cds_cmd(cmd_ptr_t cmd, bool urgent);
    CThreadBase& cds_thread() const;

private:
    void start_up(int argc, const char* const* argv);
    void add_transports(CIoManager& manager);

    std::unique_ptr<CServerOptions> _options;
    std::unique_ptr<CThreadBase> _cds_thread;
    std::shared_ptr<CCdsHandle> _cds;
    std::unique_ptr<CModbusSettings> _settings;
    std::shared_ptr<CModbusConfig> _cfg;
    std::unique_ptr<CEventQueue> _ev_queue;
    bool _stopped = false; // a signal ended the start-up
};
