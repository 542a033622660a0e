#pragma once
// Command line of modbus_server.
#include "util/options_base.h"
#include "util/realtime_priority.h"

#include <boost/optional.hpp>

#include <cstdint>

class CServerOptions : public COptionsBase {
public:
    // Parses at once; throws CError, reported, once it has told the user why (see
    // COptionsBase::parse).
    CServerOptions(int argc, const char* const* argv);

    int32_t verbosity() const { return _verbosity; }
    const boost::optional<int32_t>& main_verbosity() const { return _main_verbosity; }
    const boost::optional<int32_t>& cds_verbosity() const { return _cds_verbosity; }
    const subsystem_levels_t& subsystem_levels() const { return _subsystem_levels; }
    bool no_syslogd() const { return _no_syslogd; }
    bool daemon() const { return _daemon; }
    // Check the settings and mapping files, report and exit; nothing is served.
    bool check() const { return _check; }
    // Print the statistics leaves of the configuration as JSON and exit.
    bool statistics_leaves() const { return _statistics_leaves; }
    const boost::optional<int32_t>& process_priority() const { return _process_priority; }
    const boost::optional<CRealtimePriority>& thread_priority() const { return _thread_priority; }
    unsigned watchdog_ms() const { return _watchdog_ms; }
    const tk_string& user() const { return _user; }
    const tk_string& event_log() const { return _event_log; }

private:
    int32_t _verbosity = 0;
    boost::optional<int32_t> _main_verbosity;
    boost::optional<int32_t> _cds_verbosity;
    subsystem_levels_t _subsystem_levels;
    bool _no_syslogd = false;
    bool _daemon = false;
    bool _check = false;
    bool _statistics_leaves = false;
    boost::optional<int32_t> _process_priority;
    boost::optional<CRealtimePriority> _thread_priority;
    unsigned _watchdog_ms = 0;
    tk_string _user;
    tk_string _event_log;
};
