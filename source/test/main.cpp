// Entry of the test driver: options, logging, seed, then Boost.Test.
#include "test/global_test_data.h"
#include "util/error.h"
#include "util/log.h"
#include "util/options_base.h"

#ifdef MB_BOOST_TEST_INCLUDED
#include <boost/test/included/unit_test.hpp>
#else
#include <boost/test/unit_test.hpp>
#endif

namespace {
bool init_unit_test() {
    return true;
}
} // namespace

int main(int argc, char** argv) {
    toolkit::CSysLog::set_ident("modbus_test");
    toolkit::CSysLog* log = new toolkit::CSysLog(nullptr, 0, false, true, true);
    install_thread_log(log);

    std::unique_ptr<CGlobalTestData> data;
    try {
        data.reset(new CGlobalTestData(argc, argv));
    } catch (const COptionsBase::help_shown&) {
        return 0;
    } catch (const CError& e) {
        LOG_CAUGHT(e); // a seed that could not be drawn; the option parser tells its own
        return 1;
    }
    g_test_data = std::move(data);

    // The "default" subsystem's level, when given, is the level of every other one.
    const subsystem_levels_t& levels = g_test_data->subsystem_levels();
    setup_verbosity(g_test_data->verbosity(), levels, levels[SS_DEFAULT],
                    !g_test_data->no_syslogd());
    CLogStack::cache_max_verbosity(g_test_data->verbosity(), {levels[SS_DEFAULT]});

    LOG_THREAD(info, 0, "Starting test with RNG seed = %u", g_test_data->random().seed());

    const int result = boost::unit_test::unit_test_main(&init_unit_test, g_test_data->boost_argc(),
                                                        g_test_data->boost_argv());
    g_test_data.reset();
    return result;
}
