#include "support/stderr_capture.h"
#include "util/log.h"

#include <boost/test/unit_test.hpp>

#include <algorithm>
#include <sstream>

namespace {

// Saves and restores the process-wide logging state a test changes.
struct CLogStateGuard {
    CLogStateGuard()
        : _verb(std::begin(_svr_verb_array), std::end(_svr_verb_array)),
          _max(CLogStack::_max_verbosity), _level(thread_log()._verbosity) {}
    ~CLogStateGuard() {
        std::copy(_verb.begin(), _verb.end(), _svr_verb_array);
        CLogStack::_max_verbosity = _max;
        thread_log()._verbosity = _level;
        thread_log().update_options(false, true, false, nullptr);
    }
    std::vector<int32_t> _verb;
    uint32_t _max;
    int32_t _level;
};

// The message texts of the captured lines (what follows the logger's level tag).
std::vector<std::string> messages(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        const size_t pos = line.find("] ", line.find(" DEBUG [") + 1);
        out.push_back(pos == std::string::npos ? line : line.substr(pos + 2));
    }
    return out;
}

void inner() {
    LOG_STACK();
}
void outer() {
    LOG_STACK();
    inner();
}

int evaluated = 0;
int count_evaluation() {
    return ++evaluated;
}

} // namespace

BOOST_AUTO_TEST_SUITE(util)
BOOST_AUTO_TEST_SUITE(logging)

BOOST_AUTO_TEST_CASE(verbosity_setup) {
    CLogStateGuard guard;
    subsystem_levels_t levels;
    levels[SS_TCP_IO] = 5;
    BOOST_TEST(setup_verbosity(1, levels, boost::none, false) == 1);
    for (unsigned i = 0; i < SS_COUNT; ++i)
        BOOST_TEST(_svr_verb_array[i] == (i == SS_TCP_IO ? 5 : 1));
    BOOST_TEST(thread_log()._verbosity == 1);

    // A main-thread level moves every subsystem not given, and the thread's own level.
    BOOST_TEST(setup_verbosity(1, levels, 3, false) == 3);
    for (unsigned i = 0; i < SS_COUNT; ++i)
        BOOST_TEST(_svr_verb_array[i] == (i == SS_TCP_IO ? 5 : 3));
    BOOST_TEST(thread_log()._verbosity == 3);

    CLogStack::cache_max_verbosity(1, {boost::none, 12, 4});
    BOOST_TEST(CLogStack::_max_verbosity == 12u);
    CLogStack::cache_max_verbosity(-3, {});
    BOOST_TEST(CLogStack::_max_verbosity == 0u);
}

BOOST_AUTO_TEST_CASE(gate) {
    CLogStateGuard guard;
    thread_log().update_options(false, true, false, nullptr);
    subsystem_levels_t levels;
    levels[SS_CONFIG] = -1;
    setup_verbosity(0, levels, boost::none, false);
    evaluated = 0;
    CStderrCapture capture;
    LOG_ERR(SS_SETTINGS, 0, "level zero %d", count_evaluation());
    LOG_WARN(SS_SETTINGS, 1, "level one %d", count_evaluation());
    LOG_ERR(SS_CONFIG, 0, "negative %d", count_evaluation());
    LOG_DEBUG(SS_SETTINGS, 0, "debug zero");
    toolkit::CSysLog& log = thread_log();
    log.err(0, "static std::map<int, std::pair<int, int> > N::C<T (*)(int)>::f(const int&) const",
            "one");
    log.err(0, "CThreadBase::start()::<lambda()>", "two");
    log.err(0, "CModbusSettings", "three");
    const std::string text = capture.text();
    const auto has = [&](const char* part) { return text.find(part) != std::string::npos; };
    BOOST_TEST(evaluated == 1); // arguments of suppressed messages are not evaluated
    BOOST_TEST((!has("level one") && !has("negative") && has("debug zero")), text);
    // Errors carry the caller's function name, qualified, without return type or parameters.
    for (const char* line : {"gate::test_method: level zero 1", "N::C<T (*)(int)>::f: one",
                             "CThreadBase::start: two", "CModbusSettings: three"})
        BOOST_TEST(has(line), line << " in " << text);
}

BOOST_AUTO_TEST_CASE(trace_threshold) {
    CLogStateGuard guard;
    thread_log().update_options(false, true, false, nullptr);
    CLogStack::_max_verbosity = 9;
    thread_log()._verbosity = 9;
    {
        CStderrCapture capture;
        outer();
        BOOST_TEST(capture.text().empty());
    }
    CLogStack::_max_verbosity = 10;
    thread_log()._verbosity = 10;
    const uint32_t depth = thread_log()._depth;
    CStderrCapture capture;
    outer();
    // An exception unwinds the depth as well.
    try {
        LOG_STACK();
        throw 1;
    } catch (int) {
    }
    const auto lines = messages(capture.text());
    BOOST_TEST(thread_log()._depth == depth);
    const std::string pad(2 * depth, ' ');
    BOOST_REQUIRE(lines.size() == 6u);
    BOOST_TEST(lines[0] == pad + "[ENTER]: void {anonymous}::outer()");
    BOOST_TEST(lines[1] == pad + "  [ENTER]: void {anonymous}::inner()");
    BOOST_TEST(lines[2] == pad + "  [EXIT] : void {anonymous}::inner()");
    BOOST_TEST(lines[3] == pad + "[EXIT] : void {anonymous}::outer()");
}

BOOST_AUTO_TEST_CASE(dump_and_long_lines) {
    CLogStateGuard guard;
    thread_log().update_options(false, true, false, nullptr);
    CStderrCapture capture;
    const uint8_t data[18] = {0x00, 0x01, 0xfe, 0xff, 4,  5,  6,  7,  8,
                              9,    10,   11,   12,   13, 14, 15, 16, 17};
    thread_log().dbg_dump(6, data, sizeof data, "Received");
    // A message longer than the logger's buffer is cut, still as one line.
    thread_log().info(1, nullptr, "%s", std::string(10000, 'x').c_str());
    const std::string text = capture.text();
    BOOST_TEST(text.find("Received (18 bytes)") != std::string::npos);
    BOOST_TEST(text.find("0000: 00 01 fe ff 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n") !=
               std::string::npos);
    BOOST_TEST(text.find("0010: 10 11\n") != std::string::npos);
    BOOST_TEST(std::count(text.begin(), text.end(), '\n') == 4);
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
