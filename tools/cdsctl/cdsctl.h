#pragma once
// The command-line tool over a store file: what the device's processes do to the store, a
// person does with it. Each command is one transaction; failures name the path and the
// reason on stderr and give a non-zero exit status (1: failed, 2: bad command line).
#include "toolkit/cds_store.h"

#include <map>
#include <vector>

class CCdsctl {
public:
    // args without the program name; returns the exit status.
    int run(const std::vector<tk_string>& args);

private:
    struct CArgs {
        std::vector<tk_string> positional;
        std::map<tk_string, std::vector<tk_string>> options; // by long name
        bool has(const char* name) const { return options.count(name) != 0; }
        const tk_string& value(const char* name) const { return options.at(name).back(); }
    };
    typedef int (CCdsctl::*command_t)(const CArgs&);
    struct CCommand {
        const char* name;
        const char* summary;
        command_t run;
        const char* synopsis;
        const char* help;
        // Long names; "=" at the end means the option takes a value.
        std::vector<const char*> options;
        size_t min_args;
        size_t max_args;
    };
    static const std::vector<CCommand>& commands();

    int usage_error(const tk_string& message);
    int fail(const tk_string& message);
    bool parse(const CCommand& cmd, const std::vector<tk_string>& args, size_t first, CArgs& out);
    bool open_store(toolkit::CCdsStore& store);

    int cmd_init(const CArgs& args);
    int cmd_load(const CArgs& args);
    int cmd_dump(const CArgs& args);
    int cmd_get(const CArgs& args);
    int cmd_set(const CArgs& args);
    int cmd_ls(const CArgs& args);
    int cmd_rm(const CArgs& args);
    int cmd_event_add(const CArgs& args);
    int cmd_events(const CArgs& args);
    int cmd_watchdog(const CArgs& args);

    tk_string _store;
    tk_string _log;
    tk_string _command; // for messages
};
