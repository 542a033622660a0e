#include "profiler/profiler.h"

#include "profiler/profile_builder.h"
#include "util/log.h"

#include <cstdio>

CProfiler::CProfiler(int argc, char** argv) {
    LOG_STACK();
    try {
        _options.reset(new CProfilerOptions(argc, argv));
    } catch (const COptionsBase::help_shown&) {
        throw;
    } catch (const generic_err&) {
        throw init_err();
    }
    try {
        _cds = std::make_shared<CCdsHandle>();
    } catch (const generic_err&) {
        LOG_THREAD(err, 0, "Couldn't connect to CDS");
        throw init_err();
    }
    set_verbosity();
    try {
        _settings.reset(new CModbusSettings(*_cds));
        _cfg.reset(new CModbusConfig(*_settings));
    } catch (const generic_err&) {
        LOG_ERR(SS_DEFAULT, 1, "Couldn't initialize settings / configuration");
        throw init_err();
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
    } catch (const generic_err&) {
        std::fputs("Error: No Unit ID was selected\n", stderr);
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
