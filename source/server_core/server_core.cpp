#include "server_core/server_core.h"

#include "cds/cds_handle.h"
#include "cds/event_queue.h"
#include "io/io_manager.h"
#include "io/io_sighandler.h"
#include "io/serial/serial_connection.h"
#include "io/tcp/tcp_listener.h"
#include "io/watchdog_timer.h"
#include "modbus/config/modbus_config.h"
#include "modbus/config/modbus_settings.h"
#include "modbus/protocol/serial/modbus_serial_protocol_handler.h"
#include "modbus/protocol/tcp/modbus_tcp_protocol_handler.h"
#include "server_core/server_options.h"
#include "threads/cds/cds_thread.h"
#include "threads/commands/thread_set_verbosity.h"
#include "util/log.h"
#include "util/util.h"

#include <cassert>
#include <csignal>
#include <unistd.h>

namespace {

const char* const ups_status_path = "/Software/Device Handlers/UPS/Status/Value";

// A terminating signal during start-up (before the event loop handles them) ends the wait
// for the UPS handler cleanly.
volatile sig_atomic_t g_stop_requested = 0;
void request_stop(int) {
    g_stop_requested = 1;
}

class CStartupSignals {
public:
    CStartupSignals() {
        struct sigaction action {};
        action.sa_handler = request_stop;
        sigemptyset(&action.sa_mask);
        for (size_t i = 0; i < count; ++i)
            ::sigaction(signals[i], &action, &_old[i]);
    }
    ~CStartupSignals() {
        for (size_t i = 0; i < count; ++i)
            ::sigaction(signals[i], &_old[i], nullptr);
    }

private:
    static constexpr size_t count = 4;
    static constexpr int signals[count] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
    struct sigaction _old[count];
};
constexpr int CStartupSignals::signals[];

} // namespace

CServerCore::CServerCore(std::shared_ptr<CModbusConfig> cfg, std::unique_ptr<CEventQueue> ev_queue,
                         std::unique_ptr<CThreadBase> cds_thread)
    : _cds_thread(std::move(cds_thread)), _cfg(std::move(cfg)), _ev_queue(std::move(ev_queue)) {}

CServerCore::CServerCore(int argc, const char* const* argv) {
    try {
        start_up(argc, argv);
    } catch (...) {
        shutdown();
        throw;
    }
}

CServerCore::~CServerCore() = default;

void CServerCore::start_up(int argc, const char* const* argv) {
    LOG_STACK();
    try {
        _options.reset(new CServerOptions(argc, argv));
    } catch (const generic_err&) {
        throw init_err();
    }
    toolkit::CSysLog& log = thread_log();
    log._verbosity = _options->verbosity();

    if (_options->daemon()) {
        try {
            CUtil::daemonize();
        } catch (const generic_err&) {
            LOG_THREAD(err, 0, "Couldn't daemonize process");
            throw init_err();
        }
        toolkit::CSysLog::set_ident("modbus_server");
    }
    if (_options->process_priority())
        CUtil::set_process_prio(*_options->process_priority());
    if (_options->thread_priority())
        CUtil::set_thread_prio(*_options->thread_priority());

    try {
        _cds = std::make_shared<CCdsHandle>();
    } catch (const generic_err&) {
        LOG_THREAD(err, 0, "Couldn't connect to CDS");
        throw init_err();
    }
    // The verbosity table and the syslog switch are complete before the CDS thread exists;
    // every thread only reads them afterwards.
    const int32_t cds_level =
        _options->cds_verbosity() ? *_options->cds_verbosity() : log._verbosity;
    setup_verbosity(_options->verbosity(), _options->subsystem_levels(),
                    _options->main_verbosity(), !_options->no_syslogd());
    CLogStack::cache_max_verbosity(_options->verbosity(),
                                   {_options->main_verbosity(), _options->cds_verbosity()});
    _cds_thread.reset(new CCdsThread(boost::none, _cds));
    _cds_thread->send(cmd_ptr_t(new CThreadSetVerbosity(cds_level)), false);

    LOG_INFO(SS_DEFAULT, 2, "Wait for UPS Handler to complete initialization");
    {
        CStartupSignals signals;
        while (!is_ups_ready()) {
            if (g_stop_requested) {
                LOG_INFO(SS_DEFAULT, 2, "Stopped while waiting for the UPS handler");
                _stopped = true;
                return;
            }
            ::usleep(500000);
        }
    }

    try {
        _settings.reset(new CModbusSettings(*_cds));
        _cfg = std::make_shared<CModbusConfig>(*_settings);
        _ev_queue.reset(new CEventQueue(static_cast<unsigned>(_cfg->max_event_index() + 1),
                                        _options->event_log()));
    } catch (const generic_err&) {
        LOG_ERR(SS_DEFAULT, 1, "Couldn't initialize settings / configuration");
        throw init_err();
    }
}

bool CServerCore::is_ups_ready() {
    assert(_cds);
    const boost::optional<toolkit::CElement> status = _cds->get(ups_status_path);
    if (!status) {
        LOG_WARN(SS_DEFAULT, 2, "Couldn't get UPS status");
        return false;
    }
    return status->to_int() == 1;
}

void CServerCore::add_transports(CIoManager& manager) {
    LOG_STACK();
    assert(_settings);
    const uint32_t port = _settings->tcp().port();
    if (port > 0xFFFF) {
        LOG_ERR(SS_TCP_IO, 0, "TCP port %u is out of range", port);
        throw init_err();
    }
    const CModbusTcpProtocolHandler tcp_prototype(nullptr);
    manager.add(CTcpListener::create(manager, tcp_prototype, static_cast<uint16_t>(port)));

    using C = CSerialConnection;
    const CModbusSerialProtocolHandler serial_prototype(nullptr);
    for (const auto& iface : _settings->serial().interfaces()) {
        auto conn = C::create(manager, serial_prototype, iface.serial_port(), iface.number());
        if (!conn->is_open())
            continue;
        conn->set_baud_rate(iface.baud_rate());
        conn->set_flow_control(static_cast<C::flow_ctrl_t>(iface.flow_control()));
        conn->set_char_size(iface.char_size());
        conn->set_parity(static_cast<C::parity_t>(iface.parity()));
        conn->set_stop_bits(static_cast<C::stop_bits_t>(iface.stop_bits()));
        conn->generate_RTU_timers(
            iface.baud_rate(), iface.char_size(), static_cast<C::parity_t>(iface.parity()),
            static_cast<C::stop_bits_t>(iface.stop_bits()), _cfg->serial_timeout());
        manager.add(conn);
        conn->start();
    }
}

bool CServerCore::main() {
    LOG_STACK();
    if (_stopped)
        return true;
    try {
        CIoManager manager(*this);
        // Declared after the manager, so it runs first: commands still in flight hold
        // timers of the manager's loop and must go while that loop exists.
        struct CStopCdsThread {
            CThreadBase& thread;
            ~CStopCdsThread() { thread.stop(5); }
        } stop_cds_thread{*_cds_thread};
        manager.add(CIoSighandler::create(manager));
        const unsigned watchdog = _options ? _options->watchdog_ms() : 0;
        if (watchdog != 0) {
            LOG_INFO(SS_DEFAULT, 2, "Using watchdog timer with a timeout of %u msecs", watchdog);
            try {
                _cds->watchdog_register(watchdog);
            } catch (const generic_err&) {
                return false;
            }
            manager.add(CWatchdogTimer::create(manager, watchdog));
        } else {
            LOG_INFO(SS_DEFAULT, 2, "Watchdog timer disabled.");
        }
        _cds_thread->create_actor(manager);
        try {
            add_transports(manager);
        } catch (const boost::system::system_error&) {
            return false;
        } catch (const init_err&) {
            return false;
        }
        _settings.reset();
        if (_options && !_options->user().empty()) {
            try {
                CUtil::set_uid(_options->user());
            } catch (const generic_err&) {
                LOG_THREAD(err, 0, "Couldn't set UID (but continuing)...");
            }
        }
        manager.run();
    } catch (const boost::system::system_error& e) {
        LOG_THREAD(err, 0, "System error encountered in I/O manager");
        LOG_THREAD(err, 0, "%s", e.what());
    }
    return true;
}

void CServerCore::shutdown() {
    LOG_STACK();
    if (_cds_thread) {
        LOG_INFO(SS_DEFAULT, 3, "Stopping CDS thread");
        _cds_thread->stop(5);
        _cds_thread.reset();
    }
    _cds.reset();
    LOG_INFO(SS_DEFAULT, 3, "Server core shutdown complete.");
}

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
