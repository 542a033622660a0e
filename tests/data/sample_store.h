#pragma once
// The shared sample configuration (README.md beside this file) loaded into a test store.
//
// store.json names its files as @DATA@/... and its serial port as @SERIAL_PORT@; loading
// puts this folder and the given port in their place and runs "cdsctl load".
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

inline tk_string sample_data(const tk_string& name) {
    return tk_string(MB_SOURCE_DIR) + "/tests/data/" + name;
}

inline void replace_all(tk_string& text, const tk_string& from, const tk_string& to) {
    for (size_t pos = text.find(from); pos != tk_string::npos;
         pos = text.find(from, pos + to.size()))
        text.replace(pos, from.size(), to);
}

inline void load_sample_store(CTestStore& store, const tk_string& serial_port = "/dev/null") {
    tk_string json = read_text(sample_data("store.json"));
    BOOST_REQUIRE(!json.empty());
    replace_all(json, "@DATA@", tk_string(MB_SOURCE_DIR) + "/tests/data");
    replace_all(json, "@SERIAL_PORT@", serial_port);
    const tk_string file = store.dir().file("sample_store.json");
    write_text(file, json);
    const CRunResult r = run_cdsctl(store.dir(), {"load", file});
    BOOST_REQUIRE_MESSAGE(r.status == 0, "cdsctl load: " << r.err);
}
