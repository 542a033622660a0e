#pragma once
// A data store for fuzz targets: a fresh store file in a temporary folder (on /dev/shm when
// there is one, so that a write costs no disk), CDS_STORE pointed at it, optionally loaded
// with the tests' sample configuration. Set up once per process; removed at exit.
#include "toolkit/cds_store.h"

#include <vector>

class CFuzzStore {
public:
    CFuzzStore();
    ~CFuzzStore();
    CFuzzStore(const CFuzzStore&) = delete;
    CFuzzStore& operator=(const CFuzzStore&) = delete;

    // The leaves of tests/data/store.json with its placeholders filled in (the sample mapping
    // files, /dev/null as serial port).
    static const std::vector<toolkit::CLeafInfo>& sample_leaves();
    // A file in the temporary folder.
    tk_string file(const tk_string& name) const { return _dir + "/" + name; }
    const tk_string& path() const { return _path; }
    toolkit::CCdsStore& store() { return _store; }

private:
    tk_string _dir;
    tk_string _path;
    toolkit::CCdsStore _store;
};

// Writes bytes to path (replacing it); aborts when it cannot, since every later step of a
// target would then test nothing.
void fuzz_write_file(const tk_string& path, const uint8_t* data, size_t size);
// Prints what failed and aborts: set-up failures of a target are not findings.
[[noreturn]] void fuzz_setup_failed(const tk_string& what);
