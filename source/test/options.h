#pragma once
// Command line of the test driver. Everything after "--" is left for Boost.Test.
#include "util/options_base.h"

#include <boost/optional.hpp>

#include <cstdint>
#include <vector>

class COptions : public COptionsBase {
public:
    // Parses at once; throws CError, reported, once it has told the user why (see
    // COptionsBase::parse).
    COptions(int argc, const char* const* argv);

    int32_t verbosity() const { return _verbosity; }
    const subsystem_levels_t& subsystem_levels() const { return _subsystem_levels; }
    bool no_syslogd() const { return _no_syslogd; }
    const boost::optional<uint32_t>& rng_seed() const { return _rng_seed; }

    // The arguments for Boost.Test: the program name, then everything after "--".
    int boost_argc() const { return static_cast<int>(_boost_argv.size()) - 1; }
    char** boost_argv() { return _boost_argv.data(); }

private:
    int32_t _verbosity = 0;
    subsystem_levels_t _subsystem_levels;
    bool _no_syslogd = false;
    boost::optional<uint32_t> _rng_seed;
    std::vector<tk_string> _boost_args;
    std::vector<char*> _boost_argv;
};
