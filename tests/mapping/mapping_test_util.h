#pragma once
// Helpers of the mapping suite: nodes written inline, sample files, refusals and
// translations into exactly sized buffers.
#include "modbus/map/modbus_param_dynamic_config.h"
#include "modbus/map/register_mapping.h"
#include "modbus/modbus_types.h"
#include "support/subsystem_log.h"
#include "util/error.h"
#include "util/log.h"

#include "toolkit/eds.h"

#include <time.h>

#include <boost/test/unit_test.hpp>

#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>

// A node written as "UINT Size=4 BitOffset=8": a word without '=' is the type after
// "DATATYPE_", the others are keys (a value may be empty).
inline toolkit::node_map_t node_of(const std::string& text) {
    toolkit::node_map_t node;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        const size_t eq = word.find('=');
        if (eq == std::string::npos)
            node.emplace("ExternalValueType", "DATATYPE_" + word);
        else
            node.emplace(word.substr(0, eq), word.substr(eq + 1));
    }
    return node;
}

inline std::unique_ptr<CRegisterMapping> translator(const std::string& text) {
    return CRegisterMapping::create(node_of(text));
}

// A parameter the store holds in `units` (none for nullptr or "").
inline CModbusParamDynamicConfig held_in(const char* units) {
    return units && *units ? CModbusParamDynamicConfig(false, kvr_units_str_to_enum(units))
                           : CModbusParamDynamicConfig();
}

inline std::string sample_eds(const std::string& name) {
    return std::string(MB_SOURCE_DIR) + "/tests/mapping/eds/" + name;
}

// The message of the CError that fn refuses with; empty, and a failed check, when it throws
// none. The line is for whoever loads the file to log: fn must not have logged it itself.
inline std::string refusal(const std::function<void()>& fn) {
    CSubsystemLog log(SS_MAPPING, 9);
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
regvec_t to_regs(const M& m, const toolkit::CElement& el,
                 const CModbusParamDynamicConfig& cfg = CModbusParamDynamicConfig()) {
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
                            const CModbusParamDynamicConfig& cfg = CModbusParamDynamicConfig()) {
    BOOST_TEST_REQUIRE(regs.size() == m.reg_count());
    toolkit::CElement out;
    if (!m.from_registers(regs.data(), cfg, out))
        return toolkit::CElement();
    return out;
}

// One translation by the mapping written as for node_of, for a parameter held in `units`:
// value to regs unless value is empty, regs back to `back` unless that is empty. What reads
// back has the kind and text of `back` and no time stamp, so that the store stamps it.
struct CTranslation {
    const char* mapping;
    const char* units;
    toolkit::CElement value;
    regvec_t regs;
    toolkit::CElement back;
};

inline void check(const CTranslation& t) {
    const auto m = translator(t.mapping);
    const CModbusParamDynamicConfig cfg = held_in(t.units);
    if (t.value.has_value())
        BOOST_TEST(to_regs(*m, t.value, cfg) == t.regs, t.mapping << " <- " << t.value.str());
    if (!t.back.has_value())
        return;
    const toolkit::CElement back = from_regs(*m, t.regs, cfg);
    BOOST_TEST((back.type() == t.back.type() && back.str() == t.back.str()),
               t.mapping << " -> " << back.str() << ", not " << t.back.str());
    BOOST_TEST(toolkit::CElement::is_invalid_time(back.time()), t.mapping);
}

// Local time is UTC while it lives, so that times written back read as they were sent.
struct CUtcZone {
    CUtcZone() : had(std::getenv("TZ") != nullptr), old(had ? std::getenv("TZ") : "") {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
    ~CUtcZone() {
        had ? ::setenv("TZ", old.c_str(), 1) : ::unsetenv("TZ");
        ::tzset();
    }
    bool had;
    std::string old;
};
