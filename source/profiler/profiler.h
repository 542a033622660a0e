#pragma once
// The profiler's core: reads the server's settings and mapping files from the store, as
// the server does, and prints the profile of the unit chosen on the command line.
//
// Construction parses the options, connects to the store, sets the log levels and builds
// the unit registry; any failure is logged (or told by the option parser) and ends in
// init_err, reported. main() then prints.
#include "cds/cds_handle.h"
#include "modbus/config/modbus_config.h"
#include "modbus/config/modbus_settings.h"
#include "profiler/profiler_options.h"
#include "util/error.h"

#include <memory>

class CProfiler {
public:
    struct init_err : CError {
        using CError::CError;
        // Fails for cause: its message, and whether it has been logged.
        explicit init_err(const CError& cause) : CError(cause) {}
    };

    CProfiler(int argc, char** argv);
    CProfiler(const CProfiler&) = delete;
    CProfiler& operator=(const CProfiler&) = delete;

    // Prints the unit's profile to stdout (nothing when none of its parameters is in the
    // store) and returns true. Returns false after a message on stderr when no unit was
    // given or there is no such unit. Throws CError when the store fails.
    bool main();

private:
    void set_verbosity();

    std::unique_ptr<CProfilerOptions> _options;
    std::shared_ptr<CCdsHandle> _cds;
    std::unique_ptr<CModbusSettings> _settings;
    std::unique_ptr<CModbusConfig> _cfg;
};
