#include "profiler/profiler_options.h"

#include "util/option_helpers.h"

CProfilerOptions::CProfilerOptions(int argc, const char* const* argv) {
    using namespace option_helpers;
    add_opt({"-u", "--unit-id"}, "[-u <Unit ID>]", "Modbus Unit ID",
            "Select the Modbus-TCP or RTU Unit ID (slave address) whose profile information is "
            "to be output.",
            {}, parse_int_opt(_unit_id, 0, 65535), {}, show_int_opt(_unit_id));
    add_opt({"-s", "--serial-interface"}, "[-s <Serial Interface Number>]",
            "Modbus serial interface number",
            "Select the serial interface number the Modbus Server is running on. Values start "
            "at 0.",
            {}, parse_int_opt(_serial_interface, 0, 1000), {}, show_int_opt(_serial_interface));
    add_opt({"-m", "--master-mapping"}, "[-m]", "Assume the Master Mapping",
            "Show simpler profile output, assuming that the Master Mapping is being used (and "
            "therefore the more esoteric configuration items are unnecessary / do not apply).",
            init_single(_master_mapping, false), parse_bool(_master_mapping), {},
            show_bool(_master_mapping));
    add_opt({"-o", "--one-based"}, "[-o]", "Use 1-based addressing",
            "Use 1-based (vs. 0-based) addressing for the output map. Normally an address which "
            "is \"4000\" on the wire is displayed as \"4000\" in the output map. However, many "
            "Modbus clients use a +1 addressing scheme; in that case, this option will add 1 to "
            "each address before outputting it.",
            init_single(_one_based, false), parse_bool(_one_based), {}, show_bool(_one_based));
    add_opt({"-d", "--description"}, "[-d]", "Show current value and description",
            "If this option is enabled, the profiler queries the CDS in order to find and "
            "display the current value and description string for each parameter in the map.",
            init_single(_description, false), parse_bool(_description), {},
            show_bool(_description));
    add_opt({"-l", "--locale-list"}, "[-l <locale list>]",
            "Semicolon-separated list of supported locales",
            "Semicolon-separated list of supported locales, e.g. from HTTP_ACCEPT_LANGUAGES "
            "'en-US,en;q=0.8,fr-FR;q=0.6,fr;q=0.4,zh-CN;q=0.2,zh;q=0.2'.",
            {}, parse_str(_locale_list));

    add_standard_opts();
    add_opt({"-D", "--debug"}, "[-D <verbosity>]",
            "Set the overall server debugging verbosity level",
            "This option sets the debugging verbosity level of the entire profiler; it may be "
            "overridden for a subsystem.  Verbosity levels vary from 0, at which point only the "
            "most critical messages are displayed, to 10, at which every function call prints "
            "its entry & exit point.",
            {}, parse_int_opt(_verbosity, 0, INT32_MAX), {}, show_int_opt(_verbosity));
    add_opt({"-Dm", "--main-debug"}, "[-Dm <verbosity>]",
            "Set the debugging verbosity level for the main thread",
            "The level of the main thread, used for every subsystem when \"--debug\" is not "
            "given.",
            {}, parse_int_opt(_main_verbosity, 0, INT32_MAX), {}, show_int_opt(_main_verbosity));
    tk_string names;
    for (const char* name : subsystem_strings)
        names += (names.empty() ? "" : ", ") + tk_string(name);
    add_opt({"-Ds", "--system-debug"}, "[-Ds <subsystem> <verbosity>]",
            "Set the debugging verbosity level for an individual subsystem",
            "This option overrides the debugging verbosity level for a particular subsystem.  "
            "Available subsystems: " +
                names,
            {}, parse_subsystem_verb_opt(_subsystem_levels));
    parse(argc, argv);
}

void CProfilerOptions::check_slave() const {
    if (!_unit_id)
        throw CError("Error: No Unit ID was selected");
}
