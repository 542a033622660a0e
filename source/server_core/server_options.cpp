#include "server_core/server_options.h"

#include "util/option_helpers.h"

#include <cstdlib>

namespace {

// A nice value, -20 to 19 (the framework's number parser takes no negative values).
COption::parse_func_t parse_nice(boost::optional<int32_t>& field) {
    return [&field](const std::vector<tk_string>& args, size_t idx) {
        if (idx >= args.size())
            throw CError("Error: missing argument");
        char* end = nullptr;
        const long long value = std::strtoll(args[idx].c_str(), &end, 0);
        if (args[idx].empty() || *end != '\0' || value < -20 || value > 19)
            throw CError("Error: invalid process priority '" + args[idx] + "' (-20 to 19)");
        field = static_cast<int32_t>(value);
        return size_t(1);
    };
}

// A scheduling policy and a priority.
COption::parse_func_t parse_rt(boost::optional<CRealtimePriority>& field) {
    return [&field](const std::vector<tk_string>& args, size_t idx) {
        if (idx + 2 > args.size())
            throw CError("Error: missing argument");
        try {
            field = CRealtimePriority(args[idx], args[idx + 1]);
        } catch (const CError&) {
            // The user is shown the rule rather than which half of it failed.
            throw CError("Error: invalid real-time priority '" + args[idx] + " " + args[idx + 1] +
                         "' (policy normal, batch, fifo or rr, and a priority within the "
                         "policy's range)");
        }
        return size_t(2);
    };
}

} // namespace

CServerOptions::CServerOptions(int argc, const char* const* argv) {
    using namespace option_helpers;
    add_standard_opts();
    add_opt(
        {"-D", "--debug"}, "[-D <verbosity>]", "Set the overall server debugging verbosity level",
        "This option sets the debugging verbosity level of the entire server; it may be "
        "overridden by one of the thread-specific or subsystem options.  Verbosity levels "
        "vary from 0, at which point only the most critical messages are displayed, to 10, "
        "at which every function call prints its entry & exit point.",
        init_single(_verbosity, 0), parse_int(_verbosity, 0, INT32_MAX), {}, show_int(_verbosity));
    add_opt({"-Dm", "--main-debug"}, "[-Dm <verbosity>]",
            "Set the debugging verbosity level for the main thread",
            "The level of the main thread and of every subsystem not set on its own.", {},
            parse_int_opt(_main_verbosity, 0, INT32_MAX), {}, show_int_opt(_main_verbosity));
    add_opt({"-Dc", "--cds-debug"}, "[-Dc <verbosity>]",
            "Set the debugging verbosity level for the CDS thread",
            "The level of the thread that does every data-store access; by default the main "
            "thread's level.",
            {}, parse_int_opt(_cds_verbosity, 0, INT32_MAX), {}, show_int_opt(_cds_verbosity));
    tk_string names;
    for (const char* name : subsystem_strings)
        names += (names.empty() ? "" : ", ") + tk_string(name);
    add_opt({"-Ds", "--system-debug"}, "[-Ds <subsystem> <verbosity>]",
            "Set the debugging verbosity level for an individual subsystem",
            "This option overrides the debugging verbosity level for a particular server "
            "subsystem.  Available subsystems: " +
                names,
            {}, parse_subsystem_verb_opt(_subsystem_levels));
    add_opt({"-Ns", "--no-syslogd"}, "[-Ns]", "Don't direct log messages to syslogd",
            "Log messages go to stderr only, not also to syslog(3).",
            init_single(_no_syslogd, false), parse_bool(_no_syslogd), {}, show_bool(_no_syslogd));
    add_opt({"-d", "--daemon"}, "[-d]", "Run as a daemon",
            "Detach from the terminal and run in the background; by default the server runs in "
            "the foreground. The starting process shows the start-up messages and exits 0 once "
            "the server serves, or once it waits for the UPS handler (it then reads its "
            "configuration later and reports to syslog only); 1 when the start-up failed.",
            init_single(_daemon, false), parse_bool(_daemon), {}, show_bool(_daemon));
    add_opt({"-c", "--check"}, "[-c]", "Check the configuration and exit",
            "Read the settings and every mapping file as a start would, print each unit with "
            "its mapping count, every warning and error, and exit: 0 when all is clean, 1 on "
            "errors, 2 on warnings only. Nothing is bound, the server does not wait for the UPS "
            "handler, and -d is ignored.",
            init_single(_check, false), parse_bool(_check), {}, show_bool(_check));
    add_opt({"--statistics-leaves"}, "[--statistics-leaves]",
            "Print the statistics leaves as JSON and exit",
            "Read the settings and mapping files, print the statistics leaves of the units and "
            "interfaces configured as JSON for \"cdsctl load\" (the server writes only leaves "
            "that exist), and exit: 0 on success, 1 when the configuration is unusable.",
            init_single(_statistics_leaves, false), parse_bool(_statistics_leaves), {},
            show_bool(_statistics_leaves));
    add_opt({"-p", "--priority"}, "[-p <nice value>]", "Set the process scheduling priority",
            "A nice value from -20 (most favoured) to 19.", {}, parse_nice(_process_priority), {},
            show_int_opt(_process_priority));
    add_opt({"-rt", "--rt-priority"}, "[-rt <policy> <priority>]",
            "Set the main thread's scheduling policy and priority",
            "The policy is one of normal, batch, fifo and rr; the priority must lie within the "
            "policy's range (0 for normal and batch, 1 to 99 for fifo and rr).",
            {}, parse_rt(_thread_priority));
    add_opt({"-w", "--watchdog"}, "[-w <msecs>]", "Set the CDS watchdog time-out",
            "Register with the data store's watchdog with this time-out in milliseconds and "
            "ping it at half that interval; 0 disables the watchdog.",
            init_single(_watchdog_ms, 0u), parse_int(_watchdog_ms, 0, 86400000), {},
            show_int(_watchdog_ms));
    add_opt({"-u", "--user"}, "[-u <user>]", "Switch to this user after start-up",
            "A user name or number; the server gives up its rights once its ports are open.", {},
            parse_str(_user));
    add_opt({"-e", "--event-log"}, "[-e <path>]", "Read historical events from this log",
            "The event log file whose newest events the event registers present; without it "
            "the store's own (CDS_STORE), where cdsctl adds events.",
            {}, parse_str(_event_log));
    parse(argc, argv);
}
