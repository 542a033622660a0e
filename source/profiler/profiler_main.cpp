// Entry of modbus_profiler: print one unit's Modbus map as CSV.
#include "profiler/profiler.h"
#include "util/error.h"
#include "util/log.h"

#include <cstdio>

int main(int argc, char** argv) {
    toolkit::CSysLog::set_ident("modbus_profiler");
    install_thread_log(make_thread_log(nullptr));
    try {
        CProfiler profiler(argc, argv);
        return profiler.main() ? 0 : 1;
    } catch (const COptionsBase::help_shown&) {
        return 0;
    } catch (const CProfiler::init_err& e) {
        LOG_CAUGHT(e);
        return 1;
    } catch (const CError& e) {
        LOG_CAUGHT(e);
        std::fputs("Error: the store could not be read\n", stderr);
        return 1;
    }
}
