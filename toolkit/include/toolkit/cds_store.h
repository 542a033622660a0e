#pragma once
// Administration of a store file, for tools and tests: creating a store, defining and
// removing leaves, listing them and the watchdog registrations. The device's processes
// read and write values through CCds and never create leaves.
#include "toolkit/cds.h"

#include <sys/time.h>

#include <cstddef>
#include <vector>

namespace toolkit {

// A leaf as defined in the store.
struct CLeafInfo {
    tk_string path;
    CElement::type_t type = CElement::TYPE_NONE;
    CElement value; // its stamp is the leaf's time stamp (invalid: now, when defining)
    element_property_t property = 0;
};

struct CWatchdogInfo {
    tk_string ident;
    int64_t pid = 0;
    unsigned int timeout_ms = 0;
    bool enabled = false;
    timeval last_ping{0, 0};
};

class CCdsStore {
public:
    // Creates a new store file holding no leaves; fails if the file exists. 0 on success.
    static int create(const tk_string& path, tk_string& error);

    // Opens an existing store; 0 on success, otherwise error() names the path and why.
    int open(const tk_string& path);
    const tk_string& error() const { return _error; }
    // The open connection, for reading and writing values as a device process does.
    CCds& cds() { return _cds; }

    // Creates or redefines leaves, all in one transaction: on any failure nothing is
    // written and error() names the first offending path. The value is converted to the
    // leaf's type. A leaf cannot have children, a component cannot be empty or named
    // "Children". With replace_all the store's old leaves are removed first.
    int define(const std::vector<CLeafInfo>& leaves, bool replace_all = false);
    // Removes a leaf, or with recursive a node and everything below it ("/" is the whole
    // tree). Fails when nothing is there.
    int remove(const tk_string& path, bool recursive, size_t& removed);
    // The leaf at path, or every leaf below the node at path, sorted by path.
    int list(const tk_string& path, std::vector<CLeafInfo>& leaves);
    // The immediate children of a node, sorted, each flagged when it is a node itself.
    int children(const tk_string& path, std::vector<std::pair<tk_string, bool>>& names);
    int watchdogs(std::vector<CWatchdogInfo>& entries);

    // The form every path takes in the store: one leading slash, no repeated or trailing
    // slashes.
    static tk_string normal_path(const tk_string& path);

private:
    bool check_open();
    CCds _cds;
    tk_string _error;
};

} // namespace toolkit
