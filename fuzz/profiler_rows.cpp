// Fuzz target: the profiler's rows. The input is a mapping file given to the first TCP unit
// of the sample store (/Devices/UPS); its profile is built from the parameters' attributes in
// the store and printed in all four modes (to /dev/null). A mapping file that does not parse
// is the parser's business; one that does must never make the rows crash.
#include "support/fuzz_log.h"
#include "support/fuzz_store.h"

#include "cds/cds_handle.h"
#include "modbus/core/unit_map.h"
#include "modbus/map/eds_mapping.h"
#include "profiler/profile_builder.h"
#include "util/error.h"

#include "toolkit/leaf_table.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CFuzzStore* env = [] {
        fuzz_quiet_logs();
        auto* store = new CFuzzStore;
        if (store->store().define(CFuzzStore::sample_leaves()) != 0)
            fuzz_setup_failed(store->store().error());
        // The profile is printed on stdout.
        if (!std::freopen("/dev/null", "w", stdout))
            fuzz_setup_failed("cannot send stdout to /dev/null");
        return store;
    }();
    static CCdsHandle* cds = new CCdsHandle;

    const tk_string path = env->file("input.eds");
    fuzz_write_file(path, data, size);
    std::shared_ptr<const CEdsMapping> eds;
    try {
        eds = std::make_shared<const CEdsMapping>(path);
    } catch (const CError&) {
        return 0;
    }
    toolkit::CLeafTable leaves;
    const CUnitMap unit("/Devices/UPS", {eds.get()}, leaves);
    // The size picks the base, so that it varies without a format of its own.
    const regaddr_t base = size % 3 == 0 ? 0 : size % 3 == 1 ? 1 : 40001;
    CProfileBuilder profile;
    try {
        profile.build(unit, "/Devices/UPS", *cds, base);
    } catch (const CError&) {
        return 0;
    }
    for (const bool master : {false, true})
        for (const bool description : {false, true})
            profile.print(base, master, description);
    return 0;
}
