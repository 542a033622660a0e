#include "test/global_test_data.h"

#include <cassert>

std::unique_ptr<CGlobalTestData> g_test_data;

CGlobalTestData::CGlobalTestData(int argc, const char* const* argv)
    : COptions(argc, argv), _random(rng_seed()) {}

CGlobalTestData& test_data() {
    assert(g_test_data);
    return *g_test_data;
}
