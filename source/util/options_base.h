#pragma once
// Base of every command-line option class.
//
// A concrete class registers its options in its constructor with add_opt, each bound to a
// field through small function objects (see include/util/option_helpers.h), then calls
// parse. An option function refuses its arguments by throwing CError with the text for the
// user; parse prints it on stderr with the brief usage and passes the error on, reported. The
// help, detailed help and version requests end in help_shown after their text: not an
// error, so that a program exits successfully.
#include "toolkit/tk_string.h"
#include "util/error.h"
#include "util/log.h"

#include <boost/optional.hpp>

#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <vector>

class COption {
public:
    using init_func_t = std::function<void()>;
    // Given every argument and the index behind the flag; returns how many it consumed.
    using parse_func_t = std::function<size_t(const std::vector<tk_string>&, size_t)>;
    using postprocess_func_t = std::function<void()>;
    using defaultval_func_t = std::function<boost::optional<tk_string>()>;

    init_func_t init;
    parse_func_t parse;
    postprocess_func_t postprocess;
    defaultval_func_t defaultval;
    std::vector<tk_string> flags;
    tk_string usage;
    tk_string description;
    tk_string details;
};

struct COptionComparator {
    bool operator()(const std::shared_ptr<COption>& a, const std::shared_ptr<COption>& b) const {
        return a->flags.front() < b->flags.front();
    }
};

class COptionsBase {
public:
    using option_set_t = std::set<std::shared_ptr<COption>, COptionComparator>;

    // Signals thrown by the standard options' parse functions.
    struct dump_version {};
    struct show_usage {};
    struct show_detailed_usage {};
    struct end_args {};
    // What parse throws once it has printed the help or the version: the program is done
    // and ends successfully.
    struct help_shown {};

    static const char* const subsystem_strings[SS_COUNT];
    static const char* const version_string;
    static const char* const build_date;
    static const char* const build_time;
    static const char* const revision_line;

    COptionsBase();
    virtual ~COptionsBase() = default;

    void add_opt(std::initializer_list<tk_string> flags, const tk_string& usage,
                 const tk_string& description, const tk_string& details, COption::init_func_t init,
                 COption::parse_func_t parse, COption::postprocess_func_t postprocess = {},
                 COption::defaultval_func_t defaultval = {});

    option_set_t get_opt_set() const;
    tk_string synopsis(const tk_string& prog) const;
    void usage(const tk_string& prog, bool detailed) const;
    static void version(const tk_string& prog);
    static std::vector<tk_string> break_line(const tk_string& text, size_t width,
                                             const tk_string& separators);

    // Returns the index of the first argument not consumed (behind "--" when given). Throws
    // CError, reported, once it has printed why the arguments are refused and the brief
    // usage (an unknown flag gets the usage alone); help_shown after -h, -hv or -v.
    int parse(int argc, const char* const* argv);

protected:
    // The help, detailed help and version options every program offers.
    void add_standard_opts();
    // The "--" end marker, for programs that pass later arguments on.
    void add_end_opt(const tk_string& details);

private:
    std::map<tk_string, std::shared_ptr<COption>> _opts;
};
