// Entry of modbus_server: start up, serve until a terminating signal, shut down; or, with
// --check, check the configuration and exit with its verdict.
#include "server_core/server_core.h"
#include "util/error.h"
#include "util/log.h"
#include "util/options_base.h"

#include <csignal>

int main(int argc, char** argv) {
    // Nothing the server writes may end it by SIGPIPE, before the event loop or after.
    std::signal(SIGPIPE, SIG_IGN);
    toolkit::CSysLog::set_ident("modbus_server");
    install_thread_log(make_thread_log(nullptr));
    try {
        CServerCore core;
        core.start_up(argc, argv);
        if (core.check_status()) {
            core.shutdown();
            return *core.check_status();
        }
        const bool served = core.main();
        core.shutdown();
        return served ? 0 : 1;
    } catch (const COptionsBase::help_shown&) {
        return 0;
    } catch (const CError& e) {
        LOG_CAUGHT(e); // start-up's own errors have been logged where it gave up
        return 1;
    }
}
