#pragma once
// A connection to the data store (a SQLite file shared by every process of the device).
//
// Leaves are absolute paths; repeated slashes count as one. Nodes are implicit, and
// "<node>/Children" is answered by the store with the sorted child names joined by ";".
// Batches run in one transaction each. Every call returns 0 unless the store itself failed
// (then a non-zero code, and error() says why); per-leaf outcomes are in the statuses
// (API_STATUS_OK on success). A writer that finds another writer busy waits a bounded
// time, then fails. A connection is used by one thread at a time.
#include "toolkit/element.h"
#include "toolkit/kvr.h"

#include <vector>

namespace toolkit {

class CCds {
public:
    CCds();
    ~CCds(); // closes the connection it holds
    CCds(const CCds&) = delete;
    CCds& operator=(const CCds&) = delete;

    bool is_initialized() const { return _handle != nullptr; }
    // Takes ownership of a connection from kvr_init.
    void set_handle(kvr_handle_t handle);
    kvr_handle_t handle() const { return _handle; }
    // Why the last failed call failed.
    tk_string error() const;
    // What the connection did about its store file since the last call: reopened it after
    // it was replaced, or found it gone. Empty when nothing happened; worth a warning.
    tk_string take_notice();

    int get_leaf(const tk_string& path, api_status_t& status, CElement& value,
                 element_property_t& source);
    int get_leaves(const std::vector<tk_string>& paths, std::vector<api_status_t>& statuses,
                   std::vector<CElement>& values, std::vector<element_property_t>& sources);
    // Leaves must exist; values are converted to each leaf's declared type (statuses
    // NOT_FOUND, BAD_VALUE). An element stamped with CElement::_invalid_time is stamped now.
    // The flags are accepted for compatibility and not used; source names the writer.
    int set_leaves(const std::vector<tk_string>& paths, const std::vector<CElement>& values,
                   const std::vector<kvr_tribool_t>& flags, std::vector<api_status_t>& statuses,
                   const tk_string& source);

    // From now on every write fails with API_STATUS_READ_ONLY and changes nothing.
    void setReadOnly();
    bool is_read_only() const;

    int watchdog_register(api_status_t& status, const tk_string& ident, unsigned int timeout,
                          bool enable);
    int watchdog_ping(api_status_t& status);

private:
    kvr_handle_t _handle = nullptr;
};

} // namespace toolkit
