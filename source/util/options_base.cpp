#include "util/options_base.h"

#include "util/build_info.h"
#include "util/option_helpers.h"

#include <algorithm>
#include <cassert>
#include <cctype>
#include <cstdio>

const char* const COptionsBase::subsystem_strings[SS_COUNT] = {
    "default",   "libcds",          "cds_handle",   "serial_io",      "tcp_io",
    "io_system", "settings",        "config",       "mapping",        "maplist",
    "protocol",  "serial_protocol", "tcp_protocol", "function_codes", "cds_thread"};
const char* const COptionsBase::version_string = MB_VERSION;
const char* const COptionsBase::build_date = "Feb  9 2017";
const char* const COptionsBase::build_time = "17:11:59";
const char* const COptionsBase::revision_line = "$Revision: 54292 $\n";

namespace {
// A synopsis line never gets narrower than this, however long the program's path.
constexpr int min_synopsis_width = 16;

// A flag no option has: answered with the brief usage alone.
struct unknown_flag {};

// The text of an option function's refusal, ahead of the usage.
void print_refusal(const CError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    error.mark_reported();
}
} // namespace

COptionsBase::COptionsBase() {
    assert(subsystem_strings[SS_COUNT - 1] && *subsystem_strings[SS_COUNT - 1]);
}

void COptionsBase::add_opt(std::initializer_list<tk_string> flags, const tk_string& usage,
                           const tk_string& description, const tk_string& details,
                           COption::init_func_t init, COption::parse_func_t parse,
                           COption::postprocess_func_t postprocess,
                           COption::defaultval_func_t defaultval) {
    assert(flags.size() > 0);
    assert(!usage.empty());
    assert(!description.empty());
    assert(parse);
    auto opt = std::make_shared<COption>();
    opt->init = std::move(init);
    opt->parse = std::move(parse);
    opt->postprocess = std::move(postprocess);
    opt->defaultval = std::move(defaultval);
    opt->flags.assign(flags.begin(), flags.end());
    opt->usage = usage;
    opt->description = description;
    opt->details = details;
    for (const tk_string& flag : opt->flags) {
        assert(!flag.empty());
        assert(!_opts.count(flag));
        _opts[flag] = opt;
    }
}

COptionsBase::option_set_t COptionsBase::get_opt_set() const {
    option_set_t set;
    for (const auto& entry : _opts)
        set.insert(entry.second);
    return set;
}

tk_string COptionsBase::synopsis(const tk_string& prog) const {
    assert(!prog.empty());
    tk_string text = prog;
    for (const auto& opt : get_opt_set())
        text += " " + opt->usage;
    return text;
}

std::vector<tk_string> COptionsBase::break_line(const tk_string& text, size_t width,
                                                const tk_string& separators) {
    assert(!separators.empty());
    assert(width > 0);
    std::vector<tk_string> lines;
    size_t start = 0;
    for (;;) {
        if (start + width >= text.size()) {
            lines.push_back(text.substr(start));
            break;
        }
        size_t next = start + width;
        const size_t p = text.find_last_of(separators, start + width - 1);
        if (p != tk_string::npos && p >= start && p - start >= width / 2)
            next = p;
        lines.push_back(text.substr(start, next - start));
        start = next;
        while (start < text.size() && std::isspace(static_cast<unsigned char>(text[start])))
            ++start;
        if (start >= text.size())
            break;
    }
    return lines;
}

void COptionsBase::usage(const tk_string& prog, bool detailed) const {
    assert(!prog.empty());
    const int width = std::max(72 - static_cast<int>(prog.size()), min_synopsis_width);
    const auto syn = break_line(synopsis(prog), static_cast<size_t>(width), "[");
    assert(!syn.empty());
    std::fprintf(stderr, "\nUsage: %s\n", syn[0].c_str());
    for (size_t i = 1; i < syn.size(); ++i)
        std::fprintf(stderr, "%*s%s\n", static_cast<int>(prog.size() + 8), "", syn[i].c_str());
    std::fprintf(stderr, "\n");

    for (const auto& opt : get_opt_set()) {
        assert(!opt->flags.empty() && !opt->description.empty());
        int column = 0;
        for (size_t i = 0; i < opt->flags.size() && (i == 0 || detailed); ++i) {
            if (i > 0)
                std::fprintf(stderr, "\n");
            std::fprintf(stderr, "%s : ", opt->flags[i].c_str());
            column = static_cast<int>(opt->flags[i].size()) + 3;
        }
        bool moved = false;
        if (column > 20) {
            std::fprintf(stderr, "\n");
            column = 5;
            moved = true;
        }
        const size_t text_width = static_cast<size_t>(80 - column);
        const auto desc = break_line(opt->description, text_width, " \t\n");
        for (size_t i = 0; i < desc.size(); ++i) {
            if (i == 0 && !moved)
                std::fprintf(stderr, "%s\n", desc[i].c_str());
            else
                std::fprintf(stderr, "%*s%s\n", column, "", desc[i].c_str());
        }
        if (opt->postprocess) {
            // The help shows the values as they stand; refusing one is parse's business.
            try {
                opt->postprocess();
            } catch (const CError&) {
            }
        }
        if (detailed && !opt->details.empty()) {
            std::fprintf(stderr, "\n");
            for (const auto& line : break_line(opt->details, text_width, " \t\n"))
                std::fprintf(stderr, "%*s%s\n", column, "", line.c_str());
            std::fprintf(stderr, "\n");
            if (opt->defaultval) {
                const auto value = opt->defaultval();
                if (value)
                    std::fprintf(stderr, "%*s(default: %s)\n\n", column, "", value->c_str());
                else
                    std::fprintf(stderr, "%*s(no default)\n\n", column, "");
            }
        }
    }
}

void COptionsBase::version(const tk_string& prog) {
    std::printf("%s: version %s\n", prog.c_str(), version_string);
    std::printf("Build date: %s %s\n", build_date, build_time);
    std::puts(revision_line);
    std::fflush(stdout);
}

int COptionsBase::parse(int argc, const char* const* argv) {
    assert(argc >= 1 && argv);
    std::vector<tk_string> args;
    for (int i = 0; i < argc; ++i)
        args.emplace_back(argv[i] ? argv[i] : "");
    const tk_string prog = args[0].empty() ? tk_string("?") : args[0];

    const option_set_t set = get_opt_set();
    for (const auto& opt : set)
        if (opt->init)
            opt->init();

    size_t idx = 1;
    try {
        while (idx < args.size()) {
            const auto it = _opts.find(args[idx]);
            if (it == _opts.end())
                throw unknown_flag();
            ++idx;
            idx += it->second->parse(args, idx);
            assert(idx <= args.size());
        }
    } catch (const dump_version&) {
        version(prog);
        throw help_shown();
    } catch (const show_detailed_usage&) {
        usage(prog, true);
        throw help_shown();
    } catch (const show_usage&) {
        usage(prog, false);
        throw help_shown();
    } catch (const end_args&) {
    } catch (const unknown_flag&) {
        usage(prog, false);
        const CError refused("unknown option '" + args[idx] + "'");
        refused.mark_reported();
        throw refused;
    } catch (const CError& e) {
        print_refusal(e);
        usage(prog, false);
        throw;
    }

    for (const auto& opt : set) {
        if (!opt->postprocess)
            continue;
        try {
            opt->postprocess();
        } catch (const CError& e) {
            print_refusal(e);
            usage(prog, false);
            throw;
        }
    }
    _opts.clear();
    return static_cast<int>(idx);
}

void COptionsBase::add_standard_opts() {
    using namespace option_helpers;
    add_opt({"-v", "--version"}, "[-v]", "Print version information to stderr and exit",
            "This option prints usage information, including the Toolkit version, build date, "
            "and revision number.  However, be aware that version information is only updated "
            "when this particular file is changed, so this information is not necessarily up "
            "to date - if in doubt, you should compare against a known firmware version.",
            {}, parse_version_opt());
    add_opt({"-h", "--help"}, "[-h]", "Print usage information to stderr and exit",
            "This prints general usage information, including a program synopsis and general "
            "description for each option.",
            {}, parse_help_opt());
    add_opt({"-hv", "--usage"}, "[-hv]",
            "Print detailed/verbose usage information to stderr and exit",
            "This prints usage information similar to that shown for \"--help\"; however, extra "
            "details are shown for this flag, including a more in-depth discussion of each "
            "option and displaying default values.",
            {}, parse_detailed_help_opt());
}

void COptionsBase::add_end_opt(const tk_string& details) {
    add_opt({"--"}, "[--]", "Indicates the end of the argument list", details, {},
            option_helpers::parse_end_opt());
}
