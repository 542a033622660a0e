#include "support/stderr_capture.h"
#include "util/option_helpers.h"

#include <boost/test/unit_test.hpp>

#include <sstream>

namespace {

using namespace option_helpers;

// A small options class in the style of the programs' own.
class CSampleOptions : public COptionsBase {
public:
    explicit CSampleOptions(bool long_flag = false) {
        add_standard_opts();
        add_opt({"-n", "--number"}, "[-n <count>]", "A bounded number", "Between 2 and 40.",
                init_single(number, 7), parse_int(number, 2, 40), {}, show_int(number));
        add_opt({"-m", "--millis"}, "[-m <seconds>]", "Scaled number", "", init_single(millis, 0),
                parse_int(millis, 0, 100, 1000));
        add_opt({"-o"}, "[-o <value>]", "Optional number", "Details.", {}, parse_int_opt(opt), {},
                show_int_opt(opt));
        add_opt({"-s"}, "[-s <text>]",
                "Some text: one two three four five six seven eight nine ten eleven twelve "
                "thirteen fourteen",
                "", {}, parse_str(text));
        add_opt({"-Ds"}, "[-Ds <subsystem> <verbosity>]", "Per subsystem", "", {},
                parse_subsystem_verb_opt(levels));
        add_opt({"-b"}, "[-b]", "A switch", "", init_single(flag, false), parse_bool(flag));
        if (long_flag)
            add_opt({"--a-very-long-flag-name"}, "[--a-very-long-flag-name]",
                    "Described on a line of its own", "", {}, parse_bool(flag));
        add_end_opt("Rest.");
    }
    int run(std::vector<const char*> args) {
        args.insert(args.begin(), "prog");
        return parse(static_cast<int>(args.size()), args.data());
    }

    int number = 0;
    long millis = 0;
    boost::optional<unsigned> opt;
    tk_string text;
    subsystem_levels_t levels;
    bool flag = false;
};

// Runs args and returns what was printed on stderr; `failed` tells whether it threw.
std::string run_capture(CSampleOptions& o, std::vector<const char*> args, bool& failed) {
    CStderrCapture capture;
    failed = false;
    try {
        o.run(std::move(args));
    } catch (const CError& e) {
        failed = true;
        // Printed already: the program's entry must not tell it again.
        BOOST_TEST(e.reported());
    } catch (const COptionsBase::help_shown&) {
        failed = true;
    }
    return capture.text();
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

} // namespace

BOOST_AUTO_TEST_SUITE(util)
BOOST_AUTO_TEST_SUITE(options)

BOOST_AUTO_TEST_CASE(break_line_rules) {
    using V = std::vector<tk_string>;
    BOOST_TEST(COptionsBase::break_line("", 10, " ") == V{""});
    BOOST_TEST(COptionsBase::break_line("short", 10, " ") == V{"short"});
    // A break at a blank; the blanks after it are skipped.
    BOOST_TEST(COptionsBase::break_line("aaaa bbbb  cccc", 10, " ") == (V{"aaaa bbbb", "cccc"}));
    // A word longer than the width is cut hard.
    BOOST_TEST(COptionsBase::break_line("abcdefghijkl", 5, " ") == (V{"abcde", "fghij", "kl"}));
    // A break point in the first half of the width is refused for a hard cut.
    BOOST_TEST(COptionsBase::break_line("ab cdefghijklmn", 10, " ") == (V{"ab cdefghi", "jklmn"}));
    // A separator that is no blank starts the next line.
    BOOST_TEST(COptionsBase::break_line("x [-a] [-bb] [-c]", 10, "[") ==
               (V{"x [-a] ", "[-bb] [-c]"}));
    // Exactly the width fits on one line.
    BOOST_TEST(COptionsBase::break_line("abcde", 5, " ") == V{"abcde"});
}

BOOST_AUTO_TEST_CASE(parse_values_and_end) {
    CSampleOptions o;
    BOOST_TEST(o.run({}) == 1);
    BOOST_TEST(o.number == 7);
    BOOST_TEST(!o.opt);

    CSampleOptions p;
    // The last of a repeated flag wins; base detection; multiplier; "--" ends parsing.
    const int idx = p.run(
        {"-n", "3", "--number", "0x10", "-m", "2", "-o", "010", "-s", "hi", "-b", "--", "-n", "5"});
    BOOST_TEST(idx == 13);
    BOOST_TEST(p.number == 16);
    BOOST_TEST(p.millis == 2000);
    BOOST_TEST(*p.opt == 8u);
    BOOST_TEST(p.text == "hi");
    BOOST_TEST(p.flag);

    CSampleOptions q;
    BOOST_TEST(q.run({"-b", "--"}) == 3);

    CSampleOptions r;
    BOOST_TEST(r.run({"-Ds", "tcp_io", "5", "-Ds", "cds_thread", "0"}) == 7);
    BOOST_TEST(*r.levels[SS_TCP_IO] == 5);
    BOOST_TEST(*r.levels[SS_CDS_THREAD] == 0);
    BOOST_TEST(!r.levels[SS_DEFAULT]);
}

BOOST_AUTO_TEST_CASE(parse_errors) {
    // An unknown subsystem lists them all.
    std::string subsystems = "Unknown subsystem 'nosuch'\n\nAvailable subsystems:\n";
    for (const char* name : COptionsBase::subsystem_strings)
        subsystems += "\t'" + std::string(name) + "'\n";
    subsystems += "\nUsage: prog ";
    struct {
        std::vector<const char*> args;
        const char* message;
    } cases[] = {
        {{"-n", "12x"}, "Error: invalid (non-numeric) argument '12x'\n"},
        {{"-n", ""}, "Error: invalid (non-numeric) argument ''\n"},
        {{"-n", "1"}, "Error: value '1' less than the allowed miniumum (2)\n"},
        {{"-n", "41"}, "Error: value '41' greater than the allowed maximum (40)\n"},
        {{"-n", "-5"}, "Error: value '-5' less than the allowed miniumum (2)\n"},
        {{"-n"}, "Error: missing argument\n"},
        {{"-s", ""}, "Error: Invalid empty string\n"},
        {{"-Ds", "tcp_io"}, "Error: missing argument\n"},
        {{"-Ds", "tcp_io", "-1"}, "Error: value '-1' less than the allowed miniumum (0)\n"},
        {{"--number=3"}, "\nUsage: prog "},
        {{"-x"}, "\nUsage: prog "},
        {{"-Ds", "nosuch", "1"}, subsystems.c_str()},
    };
    for (const auto& c : cases) {
        CSampleOptions o;
        bool failed = false;
        const std::string err = run_capture(o, c.args, failed);
        BOOST_TEST(failed);
        BOOST_TEST(err.rfind(c.message, 0) == 0, "stderr was: " << err);
        // Every error is followed by the brief usage.
        BOOST_TEST(contains(err, "\nUsage: prog "));
    }
}

BOOST_AUTO_TEST_CASE(usage_layout) {
    CSampleOptions o(true);
    bool failed = false;
    const std::string brief = run_capture(o, {"-h"}, failed);
    BOOST_TEST(failed);
    // Synopsis in first-flag order, broken before "[" and indented under the program.
    BOOST_TEST(brief.rfind("\nUsage: prog [--] [--a-very-long-flag-name] [-Ds <subsystem> "
                           "<verbosity>] \n",
                           0) == 0,
               brief);
    BOOST_TEST(contains(brief, "\n            [-b] [-h] [-hv] [-m <seconds>] [-n <count>] "
                               "[-o <value>] \n            [-s <text>] [-v]\n\n"),
               brief);
    // Brief mode: one flag per option, no details; a long flag pushes its description
    // onto the next line, indented 5.
    BOOST_TEST(contains(brief, "\n-- : Indicates the end of the argument list\n"
                               "--a-very-long-flag-name : \n     Described on a line of its own\n"
                               "-Ds : Per subsystem\n"),
               brief);
    // A description wider than the line goes on under its start.
    BOOST_TEST(contains(brief, "\n-s : Some text: one two three four five six seven eight nine "
                               "ten eleven twelve\n     thirteen fourteen\n"),
               brief);
    BOOST_TEST(!contains(brief, "--number"));
    BOOST_TEST(!contains(brief, "default"));

    CSampleOptions d(true);
    const std::string detailed = run_capture(d, {"-n", "9", "-hv"}, failed);
    BOOST_TEST(failed);
    // Every flag on its own line; details and the current value (set before the help flag).
    BOOST_TEST(contains(detailed, "-n : \n--number : A bounded number\n\n"
                                  "           Between 2 and 40.\n\n"
                                  "           (default: 9)\n\n"),
               detailed);
    BOOST_TEST(contains(detailed, "-o : Optional number\n\n     Details.\n\n     (no default)\n\n"),
               detailed);
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
