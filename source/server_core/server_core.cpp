#include "server_core/server_core.h"

#include "cds/cds_handle.h"
#include "cds/event_queue.h"
#include "io/io_manager.h"
#include "io/io_sighandler.h"
#include "io/serial/serial_connection.h"
#include "io/serial/serial_master.h"
#include "io/tcp/tcp_listener.h"
#include "io/tls/tls_loader.h"
#include "io/udp/udp_listener.h"
#include "io/watchdog_timer.h"
#include "modbus/config/modbus_config.h"
#include "modbus/config/modbus_settings.h"
#include "modbus/gateway/gateway_router.h"
#include "modbus/handler/modbus_rtu_over_tcp_protocol_handler.h"
#include "modbus/handler/modbus_serial_protocol_handler.h"
#include "modbus/handler/modbus_tcp_protocol_handler.h"
#include "modbus/handler/modbus_udp_protocol_handler.h"
#include "server_core/daemon_launch.h"
#include "server_core/event_refresher.h"
#include "server_core/server_options.h"
#include "server_core/statistics_writer.h"
#include "store/store_access.h"
#include "store/store_worker.h"
#include "util/log.h"
#include "util/systemd_notify.h"
#include "util/util.h"

#include "toolkit/kvr.h"

#include <boost/asio/post.hpp>

#include <algorithm>
#include <bitset>
#include <cassert>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <limits>
#include <unistd.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace {

const char* const ups_status_path = "/Software/Device Handlers/UPS/Status/Value";
// The certificate extension that names a secure client's role.
const char* const role_oid = "1.3.6.1.4.1.50316.802.1";
// The waiting server says so at most this often.
const std::chrono::seconds ups_report_interval(60);

// "1, 2, 17" of the keys' unit ids or slave addresses.
template <class Keys, class Id> tk_string id_list(const Keys& keys, Id id) {
    tk_string text;
    for (const auto& key : keys)
        text += (text.empty() ? "" : ", ") + std::to_string(static_cast<unsigned>(id(key)));
    return text.empty() ? "none" : text;
}

// "1-10, 20" of the slave addresses behind a gateway line.
tk_string ranges_text(const std::bitset<256>& ids) {
    tk_string text;
    for (unsigned id = 0; id < 256; ++id) {
        if (!ids.test(id))
            continue;
        unsigned last = id;
        while (last + 1 < 256 && ids.test(last + 1))
            ++last;
        text += (text.empty() ? "" : ", ") + std::to_string(id);
        if (last != id)
            text += "-" + std::to_string(last);
        id = last;
    }
    return text.empty() ? "none" : text;
}

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

// Start-up parsed the mapping files and read the store through caches that serving does not
// use; the heap keeps what they freed unless told to give it back.
void give_back_memory() {
#ifdef __GLIBC__
    ::malloc_trim(0);
#endif
}

} // namespace

CServerCore::CServerCore() = default;

CServerCore::~CServerCore() {
    shutdown();
}

void CServerCore::start_up(int argc, const char* const* argv) {
    try {
        start(argc, argv);
    } catch (...) {
        shutdown();
        throw;
    }
}

void CServerCore::start(int argc, const char* const* argv) {
    LOG_STACK();
    try {
        _options.reset(new CServerOptions(argc, argv));
    } catch (const CError& e) {
        throw init_err(e); // told by the option parser, with the usage
    }
    toolkit::CSysLog& log = thread_log();
    log._verbosity = _options->verbosity();

    if (_options->check() || _options->statistics_leaves()) {
        try {
            _cds = std::make_unique<CCdsHandle>();
        } catch (const CError& e) {
            LOG_CAUGHT(e);
            throw LOGGED(init_err("Couldn't connect to CDS"));
        }
        // A check is for the person at the terminal: nothing goes to syslog.
        setup_verbosity(_options->verbosity(), _options->subsystem_levels(),
                        _options->main_verbosity(), false);
        CLogStack::cache_max_verbosity(_options->verbosity(), {_options->main_verbosity()});
        _check_status = _options->check() ? check() : print_statistics_leaves();
        return;
    }

    if (_options->daemon()) {
        try {
            _launch.reset(new CDaemonLaunch);
        } catch (const CError& e) {
            LOG_CAUGHT(e);
            throw init_err(e);
        }
        toolkit::CSysLog::set_ident("modbus_server");
    }
    if (_options->process_priority())
        CUtil::set_process_prio(*_options->process_priority());
    if (_options->thread_priority())
        CUtil::set_thread_prio(*_options->thread_priority());

    try {
        _cds = std::make_unique<CCdsHandle>();
    } catch (const CError& e) {
        LOG_CAUGHT(e);
        throw LOGGED(init_err("Couldn't connect to CDS"));
    }
    // The verbosity table and the syslog switch are complete before the store worker exists;
    // every thread only reads them afterwards.
    setup_verbosity(_options->verbosity(), _options->subsystem_levels(), _options->main_verbosity(),
                    !_options->no_syslogd());
    CLogStack::cache_max_verbosity(_options->verbosity(),
                                   {_options->main_verbosity(), _options->cds_verbosity()});

    try {
        if (!wait_for_ups()) {
            _stopped = true;
            return;
        }
    } catch (const CError& e) {
        LOG_CAUGHT(e);
        throw init_err(e);
    }
    load_configuration();
    _cfg->warn_overlaps();
    try {
        _cfg->warn_missing_leaves(*_cds);
    } catch (const CError& e) {
        LOG_CAUGHT(e);
        throw LOGGED(init_err("Couldn't read the mapped leaves from the store"));
    }
    try {
        _cds->bind(_cfg->leaves());
        _reader.reset(new CCdsHandle);
        _reader->bind(_cfg->leaves());
        // The store worker checkpoints the WAL; no request pays for one.
        _cds->set_auto_checkpoint(false);
        _reader->set_auto_checkpoint(false);
        // Start-up read every mapped leaf by path; serving reads by id.
        for (CCdsHandle* cds : {_cds.get(), _reader.get()}) {
            cds->set_cache_size(_cfg->store_cache_kib());
            cds->release_memory();
        }
    } catch (const CError& e) {
        LOG_CAUGHT(e);
        throw LOGGED(init_err("Couldn't connect to CDS"));
    }
    try {
        _ev_queue.reset(
            new CEventQueue(static_cast<unsigned>(_cfg->max_event_index() + 1), event_log_path()));
    } catch (const CError& e) {
        LOG_CAUGHT(e);
        throw LOGGED(init_err("Couldn't read the event log"));
    }
}

bool CServerCore::wait_for_ups() {
    LOG_STACK();
    assert(_cds);
    using clock = std::chrono::steady_clock;
    const clock::time_point start = clock::now();
    clock::time_point next_report = start;
    bool reported = false;
    CStartupSignals signals;
    for (;;) {
        const boost::optional<toolkit::CElement> status = _cds->get(ups_status_path);
        if (status && status->to_int() == 1)
            return true;
        if (g_stop_requested) {
            LOG_INFO(SS_DEFAULT, 2, "Stopped while waiting for the UPS handler");
            return false;
        }
        const clock::time_point now = clock::now();
        if (now >= next_report) {
            const tk_string seen = status ? "is " + status->str() : tk_string("is missing");
            const long long waited =
                std::chrono::duration_cast<std::chrono::seconds>(now - start).count();
            if (!reported)
                LOG_INFO(SS_DEFAULT, 0, "Waiting for the UPS handler: '%s' %s, not 1",
                         ups_status_path, seen.c_str());
            else
                LOG_INFO(SS_DEFAULT, 0,
                         "Still waiting for the UPS handler after %lld s: '%s' %s, not 1", waited,
                         ups_status_path, seen.c_str());
            if (_launch && !reported)
                _launch->waiting();
            reported = true;
            next_report = now + ups_report_interval;
        }
        ::usleep(500000);
    }
}

void CServerCore::load_configuration() {
    LOG_STACK();
    try {
        _settings.reset(new CModbusSettings(*_cds));
        _cfg = std::make_shared<CModbusConfig>(*_settings);
        _gateway = std::make_unique<CGatewayRouter>(*_settings);
    } catch (const CError& e) {
        LOG_CAUGHT(e); // nothing more for broken mapping files: the registry named them
        throw LOGGED(init_err("Couldn't initialize settings / configuration"));
    }
}

int CServerCore::print_statistics_leaves() {
    try {
        load_configuration();
    } catch (const init_err& e) {
        LOG_CAUGHT(e);
        return 1;
    }
    const tk_string json = CStatisticsWriter::leaves_json(
        *_cfg, _settings->serial().interfaces(), _settings->tcp().rtu_over_tcp_port() != 0,
        _settings->tcp().udp_port() != 0, _gateway->statistics());
    std::fputs(json.c_str(), stdout);
    std::fflush(stdout);
    return 0;
}

int CServerCore::check() {
    LOG_STACK();
    const toolkit::CSysLog& log = thread_log();
    const uint32_t errors = log.errors();
    const uint32_t warnings = log.warnings();
    try {
        load_configuration();
        _cfg->warn_overlaps();
        _cfg->warn_missing_leaves(*_cds);
    } catch (const init_err& e) {
        LOG_CAUGHT(e);
    } catch (const CError& e) {
        LOG_CAUGHT(e);
        LOG_ERR(SS_DEFAULT, 0, "Couldn't read the mapped leaves from the store");
    }
    if (_settings) {
        std::printf("TCP port %u, time-out %u ms\n", _settings->tcp().port(),
                    _settings->tcp().timeout());
        if (_cfg) {
            for (const auto& unit : _cfg->tcp_units())
                std::printf("  unit %u: device '%s', %zu mappings\n",
                            static_cast<unsigned>(unit.first), unit.second->path().c_str(),
                            unit.second->mapping_count());
        }
        const CModbusTcpSettings& tcp = _settings->tcp();
        if (tcp.rtu_over_tcp_port() != 0) {
            std::printf("RTU over TCP port %u\n", tcp.rtu_over_tcp_port());
            if (_cfg)
                for (const auto& unit : _cfg->rtu_over_tcp_units())
                    std::printf("  unit %u: device '%s', %zu mappings\n",
                                static_cast<unsigned>(unit.first), unit.second->path().c_str(),
                                unit.second->mapping_count());
        }
        if (tcp.udp_port() != 0)
            std::printf("UDP port %u (the TCP units), at most %u requests a second per peer\n",
                        tcp.udp_port(), tcp.udp_rate_limit());
        for (const auto& iface : _settings->serial().interfaces()) {
            std::printf("Serial interface %u on '%s', %u baud, time-out %u ms%s\n", iface.number(),
                        iface.serial_port().c_str(), iface.baud_rate(),
                        _settings->serial().timeout(),
                        iface.protocol() == CModbusSerialInterfaceSettings::PROTOCOL_ASCII
                            ? ", ASCII"
                            : "");
            if (iface.role() == CModbusSerialInterfaceSettings::ROLE_GATEWAY) {
                const CGatewaySettings& g = iface.gateway();
                std::printf("  gateway to slaves %s: response time-out %u ms, %u retries\n",
                            ranges_text(g.downstream).c_str(), g.response_timeout_ms, g.retries);
            }
            if (!_cfg)
                continue;
            for (const auto& slave : _cfg->serial_units())
                if (slave.first.first == iface.number())
                    std::printf("  slave %u: device '%s', %zu mappings\n",
                                static_cast<unsigned>(slave.first.second),
                                slave.second->path().c_str(), slave.second->mapping_count());
        }
    }
    const uint32_t new_errors = log.errors() - errors;
    const uint32_t new_warnings = log.warnings() - warnings;
    std::printf("%u errors, %u warnings\n", new_errors, new_warnings);
    std::fflush(stdout);
    return new_errors ? 1 : new_warnings ? 2 : 0;
}

tk_string CServerCore::add_transports(CIoManager& manager) {
    LOG_STACK();
    assert(_settings);
    assert(_cfg);
    const uint32_t port = _settings->tcp().port();
    _services.config = _cfg.get();
    _services.store = _store.get();
    _services.events = _ev_queue.get();
    _services.tcp_counters = &_tcp_counters;
    _serial_counters.assign(_settings->serial().interfaces().size(), CTransportCounters());
    const CModbusTcpSecuritySettings& security = _settings->tcp().security();
    _roles = security.roles();
    _services.roles = &_roles;
    // Before the first listener: a listener may make a handler at once (UDP does).
    if (!_gateway->empty()) {
        boost::asio::io_context& io = manager.service();
        _gateway->set_defer([&io](std::function<void()> done) { boost::asio::post(io, done); });
        _services.gateway = _gateway.get();
    }
    const CModbusServices& services = _services;
    const handler_factory_t tcp_handler = [&services] {
        return std::make_unique<CModbusTcpProtocolHandler>(services);
    };
    CTcpListenerOptions access = _settings->tcp().listener();
    access.counters = &_tcp_counters;
    const tk_string where = access.bind_address.empty() ? "" : " of " + access.bind_address;
    const tk_string units =
        " (units " + id_list(_cfg->tcp_units(), [](const auto& unit) { return unit.first; }) + ")";
    std::vector<tk_string> served;
    if (security.plain_port_open()) {
        auto listener =
            CTcpListener::create(manager, tcp_handler, static_cast<uint16_t>(port), access);
        manager.add(listener);
        _tcp_port = listener->port();
        served.push_back("Modbus TCP on port " + std::to_string(port) + where + units);
    }
    if (security.port() != 0) {
        CTcpListenerOptions secure = access;
        try {
            // OpenSSL is loaded here, and only here.
            secure.tls = CTlsLoader::engine(security.certificate(), security.private_key(),
                                            security.ca_bundle(), security.tls12_ciphers());
        } catch (const CTlsLoader::error& e) {
            throw LOGGED(init_err("Couldn't open the secure Modbus TCP port " +
                                  std::to_string(security.port()) + ": " + e.what()));
        }
        secure.identity_oid = role_oid;
        secure.handshake_timeout_s = security.handshake_timeout();
        auto listener = CTcpListener::create(manager, tcp_handler,
                                             static_cast<uint16_t>(security.port()), secure);
        manager.add(listener);
        served.push_back("Modbus TCP over TLS on port " + std::to_string(security.port()) + where +
                         units);
    }

    add_other_framings(manager, served);

    using C = CSerialConnection;
    for (const auto& iface : _settings->serial().interfaces()) {
        CTransportCounters* line = &_serial_counters[iface.number()];
        if (iface.role() == CModbusSerialInterfaceSettings::ROLE_GATEWAY) {
            const tk_string gateway = add_gateway_line(manager, iface, line);
            if (!gateway.empty())
                served.push_back(gateway);
            continue;
        }
        auto handler =
            std::make_unique<CModbusSerialProtocolHandler>(_services, iface.number(), line);
        C::framing_t framing;
        for (const uint8_t address : handler->served())
            framing.served.set(address);
        framing.length = &CModbusSerialProtocolHandler::frame_length;
        framing.counters = line;
        const bool ascii = iface.protocol() == CModbusSerialInterfaceSettings::PROTOCOL_ASCII;
        framing.ascii = ascii;
        framing.ascii_timeout_us = static_cast<int64_t>(iface.char_timeout_ms()) * 1000;
        auto conn = C::create(manager, std::move(handler), iface.serial_port(), framing);
        if (!conn->is_open())
            continue;
        conn->set_baud_rate(iface.baud_rate());
        conn->set_flow_control(static_cast<C::flow_ctrl_t>(iface.flow_control()));
        conn->set_char_size(iface.char_size());
        conn->set_parity(static_cast<C::parity_t>(iface.parity()));
        conn->set_stop_bits(static_cast<C::stop_bits_t>(iface.stop_bits()));
        conn->set_timing(iface.baud_rate(), iface.char_size(),
                         static_cast<C::parity_t>(iface.parity()),
                         static_cast<C::stop_bits_t>(iface.stop_bits()));
        conn->set_rs485(iface.rs485());
        conn->set_local_echo(iface.local_echo());
        conn->set_response_delay(iface.response_delay_ms());
        manager.add(conn);
        conn->start();
        std::vector<unsigned> slaves;
        for (const auto& slave : _cfg->serial_units())
            if (slave.first.first == iface.number())
                slaves.push_back(slave.first.second);
        served.push_back((ascii ? "ASCII on '" : "RTU on '") + iface.serial_port() + "' at " +
                         std::to_string(iface.baud_rate()) + " baud (slaves " +
                         id_list(slaves, [](unsigned a) { return a; }) + ")");
    }
    tk_string summary = "Serving";
    for (size_t i = 0; i < served.size(); ++i)
        summary += (i == 0 ? " " : ", ") + served[i];
    return served.empty() ? tk_string("Serving nothing: no TCP port is open and no serial line")
                          : summary;
}

void CServerCore::add_other_framings(CIoManager& manager, std::vector<tk_string>& served) {
    const CModbusTcpSettings& tcp = _settings->tcp();
    const CModbusServices& services = _services;
    _services.rtu_over_tcp_counters = &_rtu_over_tcp_counters;
    _services.udp_counters = &_udp_counters;
    const tk_string where = tcp.listener().bind_address.empty()
                                ? tk_string()
                                : " of " + tcp.listener().bind_address;
    if (tcp.rtu_over_tcp_port() != 0) {
        CTcpListenerOptions options = tcp.listener();
        options.counters = &_rtu_over_tcp_counters;
        // A stream of RTU frames that stops inside one would hold the connection for good.
        options.frame_timeout_ms = tcp.timeout();
        const handler_factory_t make = [&services] {
            return std::make_unique<CModbusRtuOverTcpProtocolHandler>(services);
        };
        auto listener = CTcpListener::create(
            manager, make, static_cast<uint16_t>(tcp.rtu_over_tcp_port()), options);
        manager.add(listener);
        _rtu_over_tcp_port = listener->port();
        served.push_back("RTU over TCP on port " + std::to_string(tcp.rtu_over_tcp_port()) +
                         where + " (units " +
                         id_list(_cfg->rtu_over_tcp_units(),
                                 [](const auto& unit) { return unit.first; }) +
                         ")");
    }
    if (tcp.udp_port() != 0) {
        CUdpListenerOptions options;
        options.bind_address = tcp.listener().bind_address;
        options.allow = tcp.listener().allow;
        options.peer_rate = tcp.udp_rate_limit();
        options.counters = &_udp_counters;
        const handler_factory_t make = [&services] {
            return std::make_unique<CModbusUdpProtocolHandler>(services);
        };
        auto listener =
            CUdpListener::create(manager, make, static_cast<uint16_t>(tcp.udp_port()), options);
        manager.add(listener);
        _udp_port = listener->port();
        served.push_back("Modbus/UDP on port " + std::to_string(tcp.udp_port()) + where +
                         " (the TCP units)");
    }
}

tk_string CServerCore::add_gateway_line(CIoManager& manager,
                                        const CModbusSerialInterfaceSettings& iface,
                                        CTransportCounters* counters) {
    using C = CSerialConnection;
    CGatewayLine* line = _gateway->line_of(iface.number());
    assert(line != nullptr);
    line->set_counters(counters);
    CSerialMaster::options_t options;
    options.line.baud = iface.baud_rate();
    options.line.char_size = iface.char_size();
    options.line.parity = static_cast<C::parity_t>(iface.parity());
    options.line.stop_bits = static_cast<C::stop_bits_t>(iface.stop_bits());
    options.line.flow = static_cast<C::flow_ctrl_t>(iface.flow_control());
    options.line.rs485 = iface.rs485();
    options.local_echo = iface.local_echo();
    options.counters = counters;
    auto master = CSerialMaster::create(manager, *line, iface.serial_port(), options);
    if (!master->is_open()) {
        master->start(); // tells the line it is unavailable
        return tk_string();
    }
    manager.add(master);
    master->start();
    return "RTU gateway on '" + iface.serial_port() + "' at " + std::to_string(iface.baud_rate()) +
           " baud (slaves " + ranges_text(iface.gateway().downstream) + " behind it)";
}

void CServerCore::start_worker(CIoManager& manager) {
    assert(_cds && _reader);
    CStoreWorker::options_t options;
    options.name = "store";
    options.verbosity = _options && _options->cds_verbosity() ? *_options->cds_verbosity()
                                                              : thread_log()._verbosity;
    options.checkpoint_frames = _cfg->checkpoint_frames();
    // The worker cannot go on: the loop ends, and the process with a failure, so that a
    // service manager restarts it.
    boost::asio::io_context& io = manager.service();
    options.fatal = [this, &io, &manager](const std::string& why) {
        boost::asio::post(io, [this, &manager, why] {
            LOG_ERR(SS_DEFAULT, 0, "Stopping: %s", why.c_str());
            _failed = true;
            manager.quit();
        });
    };
    _worker.reset(new CStoreWorker(std::move(_cds), io, options));
    _store.reset(new CStoreAccess(*_reader, *_worker, io));
}

tk_string CServerCore::attach(CIoManager& manager) {
    LOG_STACK();
    assert(_cds);
    const unsigned store_watchdog = _options ? _options->watchdog_ms() : 0;
    if (store_watchdog != 0) {
        LOG_INFO(SS_DEFAULT, 2, "Using watchdog timer with a timeout of %u msecs", store_watchdog);
        try {
            _cds->watchdog_register(store_watchdog);
        } catch (const CError& e) {
            LOG_CAUGHT(e);
            throw init_err(e);
        }
    } else {
        LOG_INFO(SS_DEFAULT, 2, "Watchdog timer disabled.");
    }
    start_worker(manager);
    // systemd's watchdog (WatchdogSec=) is fed with the store's, at the shorter period, by the
    // worker: a stuck worker gets the service restarted.
    const unsigned systemd_watchdog = static_cast<unsigned>(std::min<int64_t>(
        _systemd.watchdog_interval().count() / 1000, std::numeric_limits<unsigned>::max()));
    unsigned watchdog = store_watchdog;
    if (systemd_watchdog != 0 && (watchdog == 0 || systemd_watchdog < watchdog))
        watchdog = systemd_watchdog;
    if (watchdog != 0) {
        CStoreWorker* worker = _worker.get();
        const bool store = store_watchdog != 0;
        const CSystemdNotify* systemd = systemd_watchdog != 0 ? &_systemd : nullptr;
        manager.add(CWatchdogTimer::create(manager, watchdog, [worker, store, systemd] {
            worker->run(
                [store, systemd](CCdsHandle& cds) {
                    if (store)
                        cds.watchdog_ping();
                    if (systemd)
                        systemd->notify("WATCHDOG=1");
                    return true;
                },
                {}, true);
        }));
    }
    // The event registers follow the event log while the server runs.
    if (_ev_queue && _cfg->has_events() && _options)
        manager.add(CEventRefresher::create(manager, *_ev_queue, event_log_path(), *_worker));
    tk_string summary;
    try {
        summary = add_transports(manager);
    } catch (const boost::system::system_error& e) {
        // The listener has said which port it could not bind.
        const init_err failed(e.what());
        failed.mark_reported();
        throw failed;
    }
    manager.add(CStatisticsWriter::create(manager, *_cfg, _tcp_counters, _serial_counters,
                                          _settings->serial().interfaces(), *_worker,
                                          _rtu_over_tcp_port != 0 ? &_rtu_over_tcp_counters
                                                                  : nullptr,
                                          _udp_port != 0 ? &_udp_counters : nullptr,
                                          _gateway->statistics()));
    _settings.reset();
    return summary;
}

bool CServerCore::main() {
    LOG_STACK();
    if (_stopped)
        return true;
    try {
        CIoManager manager;
        // Declared after the manager, so it runs first: the worker's completions belong to
        // the manager's loop and must go while that loop exists.
        struct CStopWorker {
            CServerCore& core;
            ~CStopWorker() {
                if (core._worker)
                    core._worker->stop();
            }
        } stop_worker{*this};
        manager.add(CIoSighandler::create(manager));
        tk_string summary;
        try {
            summary = attach(manager);
        } catch (const init_err& e) {
            LOG_CAUGHT(e);
            return false;
        }
        if (_options && !_options->user().empty()) {
            try {
                CUtil::set_uid(_options->user());
            } catch (const CError& e) {
                // Serving with more rights than asked beats not serving.
                LOG_THREAD(err, 0, "%s (but continuing)...", e.what());
            }
        }
        LOG_INFO(SS_DEFAULT, 0, "%s", summary.c_str());
        give_back_memory();
        if (_launch)
            _launch->ready();
        _systemd.notify("READY=1");
        // A loop that ended without a signal is a failure, so that a service manager
        // restarts the server.
        const bool served = manager.run() && !_failed;
        _systemd.notify("STOPPING=1");
        return served;
    } catch (const boost::system::system_error& e) {
        LOG_THREAD(err, 0, "Couldn't set up the event loop: %s", e.what());
        return false;
    }
}

tk_string CServerCore::event_log_path() const {
    // The store file holds the event log unless the command line names another, as for
    // cdsctl and the device's other programs.
    return _options && !_options->event_log().empty() ? _options->event_log() : kvr_store_path();
}

void CServerCore::shutdown() {
    LOG_STACK();
    if (_worker) {
        LOG_INFO(SS_DEFAULT, 3, "Stopping the store worker");
        _worker->stop();
    }
    _store.reset();
    _worker.reset();
    _reader.reset();
    _cds.reset();
    LOG_INFO(SS_DEFAULT, 3, "Server core shutdown complete.");
}
