#pragma once
// Helpers of the mapping suite: nodes written inline, sample files, captured log lines,
// refusals, translations into exactly sized buffers and checks that a call aborts.
#include "modbus/map/modbus_param_dynamic_config.h"
#include "modbus/modbus_types.h"
#include "support/stderr_capture.h"
#include "util/error.h"
#include "util/log.h"

#include "toolkit/eds.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>

#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>

inline toolkit::node_map_t
make_node(std::initializer_list<std::pair<const char*, const char*>> entries) {
    toolkit::node_map_t node;
    for (const auto& e : entries)
        node.emplace(e.first, e.second);
    return node;
}

inline std::string sample_eds(const std::string& name) {
    return std::string(MB_SOURCE_DIR) + "/tests/mapping/eds/" + name;
}

// What the mapping code logs up to `level` while the object lives.
class CMappingLog {
public:
    explicit CMappingLog(int32_t level = 2) : _saved(_svr_verb_array[SS_MAPPING]) {
        _svr_verb_array[SS_MAPPING] = level;
    }
    ~CMappingLog() { _svr_verb_array[SS_MAPPING] = _saved; }
    std::string text() { return _capture.text(); }

private:
    int32_t _saved;
    CStderrCapture _capture;
};

// The message of the CError that fn refuses with; empty, and a failed check, when it throws
// none. The line is for whoever loads the file to log: fn must not have logged it itself.
inline std::string refusal(const std::function<void()>& fn) {
    CMappingLog log(9);
    std::string message;
    try {
        fn();
        BOOST_ERROR("no CError thrown");
    } catch (const CError& e) {
        message = e.what();
    }
    const std::string logged = log.text();
    BOOST_TEST((message.empty() || logged.find(message) == std::string::npos),
               "logged where it was thrown: " << logged);
    return message;
}

// m.to_registers into reg_count() registers followed by a guard that it must leave alone.
template <class M>
regvec_t to_regs(const M& m, const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg) {
    const mbreg_t guard = 0xA55A;
    regvec_t regs(m.reg_count() + 1, guard);
    BOOST_TEST(m.to_registers(el, cfg, regs.data()), "to_registers refused the value");
    BOOST_TEST(regs.back() == guard, "to_registers wrote past its " << m.reg_count());
    regs.pop_back();
    return regs;
}

// m.from_registers on regs, which must be as many as the mapping has; an empty element when
// the mapping refuses them.
template <class M>
toolkit::CElement from_regs(const M& m, const regvec_t& regs,
                            const CModbusParamDynamicConfig& cfg) {
    BOOST_TEST_REQUIRE(regs.size() == m.reg_count());
    toolkit::CElement out;
    if (!m.from_registers(regs.data(), cfg, out))
        return toolkit::CElement();
    return out;
}

// Runs fn in a child process; true when the child ends by SIGABRT (a failed assertion).
inline bool aborts(const std::function<void()>& fn) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The test framework would catch the signal and carry on in the child.
        ::signal(SIGABRT, SIG_DFL);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDERR_FILENO);
        try {
            fn();
        } catch (...) {
        }
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
}

// Local time is UTC while it lives, so that times written back read as they were sent.
class CUtcZone {
public:
    CUtcZone() {
        const char* tz = std::getenv("TZ");
        _had = tz != nullptr;
        if (_had)
            _saved = tz;
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
    ~CUtcZone() {
        if (_had)
            ::setenv("TZ", _saved.c_str(), 1);
        else
            ::unsetenv("TZ");
        ::tzset();
    }

private:
    bool _had;
    std::string _saved;
};
