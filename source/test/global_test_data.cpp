#include "test/global_test_data.h"

#include "toolkit/kvr.h"

#include <cassert>
#include <cstdio>

std::unique_ptr<CGlobalTestData> g_test_data;

CGlobalTestData::CGlobalTestData(int argc, const char* const* argv)
    : COptions(argc, argv), _random(rng_seed()) {}

CGlobalTestData& test_data() {
    assert(g_test_data);
    return *g_test_data;
}

void CGlobalTestData::wait_for_cds() {
    if (_cds_waited)
        return;
    _cds_waited = true;
    if (kvr_handle_t handle = kvr_init(0)) {
        kvr_close(handle);
        return;
    }
    std::printf("Start CDS now.  [press enter to continue]");
    std::fflush(stdout);
    for (int c = std::getchar(); c != '\n' && c != EOF; c = std::getchar()) {
    }
    std::printf("Continuing...");
}
