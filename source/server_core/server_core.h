#pragma once
// The running server. Constructed from the command line it starts up completely: options,
// optional daemon, priorities, the data store and its CDS thread, the wait for the UPS
// handler, the settings and the unit registry, and a check that the store holds every mapped
// leaf; main() then serves Modbus TCP and RTU until a terminating signal, and shutdown()
// stops the CDS thread. With --check the construction only checks the configuration and
// check_status() holds the program's exit status.
//
// It is also the hub through which request handlers and the watchdog reach the registry,
// the event queue and the CDS thread; those services are for the I/O thread only.
#include "modbus/protocol/modbus_services.h"
#include "threads/commands/thread_command.h"
#include "toolkit/tk_string.h"
#include "util/generic_err.h"

#include <boost/optional.hpp>

#include <memory>

class CCdsHandle;
class CDaemonLaunch;
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
    // Set after a --check: 0 clean, 1 errors, 2 warnings only. main() is then not called.
    const boost::optional<int>& check_status() const { return _check_status; }

    CModbusConfig& get_config() const;
    const CEventQueue& ev_queue() const;
    // Hands cmd to the CDS thread, urgent ones to the front of its queue; never blocks.
    void add_cds_cmd(cmd_ptr_t cmd, bool urgent);
    CThreadBase& cds_thread() const;

private:
    void start_up(int argc, const char* const* argv);
    // False when a signal ended the wait.
    bool wait_for_ups();
    // Reads the settings and mapping files; logs and throws init_err when they are unusable.
    void load_configuration();
    int check();
    // Returns the one-line summary of what is served.
    tk_string add_transports(CIoManager& manager);

    std::unique_ptr<CServerOptions> _options;
    std::unique_ptr<CThreadBase> _cds_thread;
    std::shared_ptr<CCdsHandle> _cds;
    // The I/O thread's own store connection: requests read through it without a thread hop.
    std::unique_ptr<CCdsHandle> _reader;
    CModbusServices _services;
    std::unique_ptr<CModbusSettings> _settings;
    std::shared_ptr<CModbusConfig> _cfg;
    std::unique_ptr<CEventQueue> _ev_queue;
    std::unique_ptr<CDaemonLaunch> _launch; // with -d, until start-up has been reported
    bool _stopped = false;                  // a signal ended the start-up
    boost::optional<int> _check_status;
};
