#include "profiler/profiler.h"

#include "profiler/profile_builder.h"
#include "util/log.h"

#include <cstdio>

CProfiler::CProfiler(int argc, char** argv) {
    LOG_STACK();
    try {
        _options.reset(new CProfilerOptions(argc, argv));
    } catch (const CError& e) {
        throw init_err(e); // told by the option parser, with the usage
    }
    try {
        _cds = std::make_shared<CCdsHandle>();
    } catch (const CError& e) {
        LOG_CAUGHT(e);
        throw LOGGED(init_err("Couldn't connect to CDS"));
    }
    set_verbosity();
    try {
        _settings.reset(new CModbusSettings(*_cds));
        _cfg.reset(new CModbusConfig(*_settings));
    } catch (const CError& e) {
        LOG_CAUGHT(e); // nothing more for broken mapping files: the registry named them
        throw LOGGED(init_err("Couldn't initialize settings / configuration", SS_DEFAULT, 1));
    }
}

void CProfiler::set_verbosity() {
    toolkit::CSysLog& log = thread_log();
    if (_options->main_verbosity())
        log._verbosity = *_options->main_verbosity();
    const int32_t overall = _options->verbosity() ? *_options->verbosity() : log._verbosity;
    setup_verbosity(overall, _options->subsystem_levels(), boost::none, true);
    CLogStack::cache_max_verbosity(overall, {});
}

bool CProfiler::main() {
    LOG_STACK();
    try {
        _options->check_slave();
    } catch (const CError& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return false;
    }
    const unsigned id = *_options->unit_id() & 0xFFu;
    CModbusDeviceConfig* device =
        _options->serial_interface()
            ? _cfg->serial_config(*_options->serial_interface(), static_cast<slave_addr_t>(id))
            : _cfg->tcp_config(static_cast<unit_id_t>(id));
    if (!device) {
        std::fputs("Error: unsupported Unit ID or Serial Interface\n", stderr);
        return false;
    }
    const unsigned short base = _options->one_based() ? 1 : 0;
    CProfileBuilder profile;
    profile.build(device->unit(), device->path(), *_cds, base);
    profile.print(base, _options->master_mapping(), _options->description());
    return true;
}
