#include "test/options.h"

#include "util/option_helpers.h"

COptions::COptions(int argc, const char* const* argv) {
    using namespace option_helpers;
    add_standard_opts();
    add_opt({"-D", "--debug"}, "[-D <verbosity>]", "Set the overall CDS debugging verbosity level",
            "This option sets the debugging verbosity level of the entire CDS; it may be "
            "overridden by one of the thread-specific debugging options.  Verbosity levels "
            "vary from 0, at which point only the most critical messages are displayed, to "
            ">=5, beyond which every function call prints its entry & exit point.  Output is "
            "directed to stderr as well as to the Linux system log daemon.",
            init_single(_verbosity, 0), parse_int(_verbosity, 0, INT32_MAX), {},
            show_int(_verbosity));
    tk_string names;
    for (const char* name : subsystem_strings)
        names += (names.empty() ? "" : ", ") + tk_string(name);
    add_opt({"-Ds", "--system-debug"}, "[-Ds <subsystem> <verbosity>]",
            "Set the debugging verbosity level for an individual subsystem",
            "This option overrides the debugging verbosity level for a particular server "
            "subsystem.  Available subsystems: " +
                names,
            init_single(_subsystem_levels, subsystem_levels_t{}),
            parse_subsystem_verb_opt(_subsystem_levels));
    add_opt({"-Ns", "--no-syslogd"}, "[-Ns]", "Don't direct log messages to syslogd",
            "By default the CDS prints each log mess to stderr and passes a second copy to "
            "syslog(3).  This is ideal when running as a daemon, since important output can be "
            "read later from the syslog.  When debugging, though, it can slow down the CDS "
            "considerably, and flood the syslog with messages.  If you are running the CDS in "
            "the foreground for the purpose of debugging, using this flag will suppress "
            "syslogd output and improve performance at high verbosity levels.",
            init_single(_no_syslogd, false), parse_bool(_no_syslogd), {}, show_bool(_no_syslogd));
    add_opt({"-S", "--rng-seed"}, "[-S]", "Use the provided seed for random number generation",
            "By default the unit test code will generate a 'true' random number, output it to "
            "the user, and use it to seed the PRNG.  This seed value can be fed back in on the "
            "command line in a subsequent run in order to reproduce the conditions of the "
            "original test exactly.",
            init_single(_rng_seed, boost::none), parse_int_opt(_rng_seed, 0, UINT32_MAX), {},
            show_int_opt(_rng_seed));
    add_end_opt("Boost.Test takes its own arguments, which are unrelated to the arguments used "
                "by the CDS test code.  If you wish to pass arguments to Boost.Test, you can "
                "specify '--' at the end of your CDS-test argument list, then put Boost.Test "
                "arguments after that.");

    const int idx = parse(argc, argv);
    _boost_args.emplace_back(argv[0]);
    for (int i = idx; i < argc; ++i)
        _boost_args.emplace_back(argv[i]);
    for (tk_string& arg : _boost_args)
        _boost_argv.push_back(&arg[0]);
    _boost_argv.push_back(nullptr);
}
