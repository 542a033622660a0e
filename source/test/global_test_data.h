#pragma once
// What every test may reach while the suites run: the parsed options and the seeded
// random generator. One instance exists, owned by the driver's entry.
#include "test/options.h"
#include "util/random.h"

#include <memory>

class CGlobalTestData : public COptions {
public:
    CGlobalTestData(int argc, const char* const* argv);

    CRandom& random() { return _random; }
    // Blocks until the data store can be opened, asking on the terminal; later calls
    // return at once.
    void wait_for_cds();

private:
    CRandom _random;
    bool _cds_waited = false;
};

extern std::unique_ptr<CGlobalTestData> g_test_data;

// The global test data; only valid while the suites run.
CGlobalTestData& test_data();
