#include "fuzz_log.h"

#include "util/log.h"

#include <cstdlib>

void fuzz_quiet_logs() {
    const char* env = std::getenv("FUZZ_LOG");
    const bool print = env && *env && *env != '0';
    subsystem_levels_t levels;
    // The CDS thread logs on its own logger, which always prints: keep the store layer at
    // its errors only, so that a fuzzing run is not drowned in its narration.
    if (!print)
        levels[SS_LIBCDS] = levels[SS_CDS_HANDLE] = levels[SS_CDS_THREAD] = -1;
    setup_verbosity(9, levels, boost::none, false);
    install_thread_log(new toolkit::CSysLog(nullptr, 9, false, print, false));
}
