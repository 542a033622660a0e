#pragma once
// Command line of modbus_profiler: which unit to print and how.
#include "util/options_base.h"

#include <boost/optional.hpp>

#include <cstdint>

class CProfilerOptions : public COptionsBase {
public:
    // Parses at once; throws CError, reported, once it has told the user why (see
    // COptionsBase::parse).
    CProfilerOptions(int argc, const char* const* argv);

    // Throws CError, for stderr, when no unit id was given.
    void check_slave() const;

    // 0 to 65535; only the low 8 bits select a unit.
    const boost::optional<unsigned>& unit_id() const { return _unit_id; }
    // Set: the unit is a slave on this serial interface; unset: a TCP unit.
    const boost::optional<unsigned>& serial_interface() const { return _serial_interface; }
    bool master_mapping() const { return _master_mapping; }
    bool one_based() const { return _one_based; }
    bool description() const { return _description; }
    // Kept for callers that localise; the profile itself does not use it.
    const tk_string& locale_list() const { return _locale_list; }
    const boost::optional<int32_t>& verbosity() const { return _verbosity; }
    const boost::optional<int32_t>& main_verbosity() const { return _main_verbosity; }
    const subsystem_levels_t& subsystem_levels() const { return _subsystem_levels; }

private:
    boost::optional<unsigned> _unit_id;
    boost::optional<unsigned> _serial_interface;
    bool _master_mapping = false;
    bool _one_based = false;
    bool _description = false;
    tk_string _locale_list;
    boost::optional<int32_t> _verbosity;
    boost::optional<int32_t> _main_verbosity;
    subsystem_levels_t _subsystem_levels;
};
