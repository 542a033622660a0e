#pragma once
// The running server, in three steps:
// - start_up() from the command line: options, optional daemon, priorities, the data store,
//   the wait for the UPS handler, the settings and the unit registry, and a check that the
//   store holds every mapped leaf. With --check it only checks the configuration, and
//   check_status() holds the program's exit status.
// - attach() puts what is served into an event loop: the store worker and the I/O thread's
//   way to the store, the watchdog ping, the TCP listeners and the serial lines, each handler
//   given its services.
// - main() makes the loop, attaches, and serves until a terminating signal or a fault;
//   shutdown() stops the store worker.
// Tests call start_up() and attach() on a loop of their own.
#include "modbus/config/modbus_roles.h"
#include "modbus/handler/modbus_services.h"
#include "toolkit/tk_string.h"
#include "util/error.h"
#include "util/systemd_notify.h"

#include <boost/optional.hpp>

#include <memory>
#include <vector>

class CCdsHandle;
class CDaemonLaunch;
class CEventQueue;
class CGatewayRouter;
class CIoManager;
class CModbusConfig;
class CModbusSerialInterfaceSettings;
class CModbusSettings;
class CServerOptions;
class CStoreAccess;
class CStoreWorker;

class CServerCore {
public:
    // Start-up cannot go on. Thrown reported: why has been logged (or told by the option
    // parser), and the program's entry only ends the process.
    struct init_err : CError {
        using CError::CError;
        // Start-up fails for cause: its message, and whether it has been logged.
        explicit init_err(const CError& cause) : CError(cause) {}
    };

    CServerCore();
    ~CServerCore();
    CServerCore(const CServerCore&) = delete;
    CServerCore& operator=(const CServerCore&) = delete;

    // Throws init_err when a step fails (logged, and what started is shut down again) and
    // COptionsBase::help_shown after -h or -v.
    void start_up(int argc, const char* const* argv);
    // Adds the served actors to manager and returns the one-line summary of what is served;
    // throws init_err when the watchdog or a transport cannot be set up (logged).
    tk_string attach(CIoManager& manager);
    // The TCP port listened on, once attached.
    uint16_t tcp_port() const { return _tcp_port; }
    // The RTU over TCP and UDP ports listened on, once attached (0: none).
    uint16_t rtu_over_tcp_port() const { return _rtu_over_tcp_port; }
    uint16_t udp_port() const { return _udp_port; }
    // Serves until a terminating signal (at once when one came during start-up); false when
    // the transports could not be set up or the event loop failed.
    bool main();
    // Stops the store worker (5 seconds at most) and lets go of the store.
    void shutdown();
    // Set after a --check: 0 clean, 1 errors, 2 warnings only; after --statistics-leaves: 0,
    // or 1 when the configuration is unusable. main() is then not called.
    const boost::optional<int>& check_status() const { return _check_status; }
    // The store worker, once attached.
    CStoreWorker* worker() const { return _worker.get(); }
    // Whether the store worker could not go on (the loop then ends, and main() fails).
    bool failed() const { return _failed; }

private:
    void start(int argc, const char* const* argv);
    // False when a signal ended the wait.
    bool wait_for_ups();
    // Reads the settings and mapping files; logs and throws init_err when they are unusable.
    void load_configuration();
    int check();
    int print_statistics_leaves();
    tk_string add_transports(CIoManager& manager);
    // The master side of a gateway line; what it serves, or nothing when its port did not
    // open (its requests are then answered with exception 10).
    tk_string add_gateway_line(CIoManager& manager, const CModbusSerialInterfaceSettings& iface,
                               CTransportCounters* counters);
    // RTU over TCP and UDP, when their ports are set; what they serve goes into served.
    void add_other_framings(CIoManager& manager, std::vector<tk_string>& served);
    // The event log: -e's file, else the store's.
    tk_string event_log_path() const;

    // Makes the store worker, with the connection start-up used, on manager's loop.
    void start_worker(CIoManager& manager);

    std::unique_ptr<CServerOptions> _options;
    // The connection start-up reads through; the store worker's from attach() on.
    std::unique_ptr<CCdsHandle> _cds;
    // The I/O thread's own store connection: requests read and write through it.
    std::unique_ptr<CCdsHandle> _reader;
    std::unique_ptr<CStoreWorker> _worker;
    std::unique_ptr<CStoreAccess> _store;
    CModbusServices _services;
    // READY=1 once serving, WATCHDOG=1 with the watchdog pings, when systemd asks for them.
    CSystemdNotify _systemd;
    bool _failed = false;
    // What the transports have seen: TCP, RTU over TCP, UDP, and each serial interface by
    // number.
    CTransportCounters _tcp_counters;
    CTransportCounters _rtu_over_tcp_counters;
    CTransportCounters _udp_counters;
    std::vector<CTransportCounters> _serial_counters;
    std::unique_ptr<CModbusSettings> _settings;
    // The secure clients' rights, kept for the handlers after the settings are gone.
    CModbusRoles _roles;
    std::shared_ptr<CModbusConfig> _cfg;
    // The gateway lines and the units behind them.
    std::unique_ptr<CGatewayRouter> _gateway;
    std::unique_ptr<CEventQueue> _ev_queue;
    std::unique_ptr<CDaemonLaunch> _launch; // with -d, until start-up has been reported
    bool _stopped = false;                  // a signal ended the start-up
    uint16_t _tcp_port = 0;
    uint16_t _rtu_over_tcp_port = 0;
    uint16_t _udp_port = 0;
    boost::optional<int> _check_status;
};
