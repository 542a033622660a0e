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
#include "toolkit/leaf_table.h"

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

    // What read() returns when the store is locked and it was told not to wait (SQLITE_BUSY).
    static constexpr int busy = 5;
    // How long a writer told to wait waits for another writer before it fails.
    static constexpr int busy_wait_ms = 2000;

    // Leaves of `table` can from now on be read and written by id. The table must outlive
    // the connection (or the next bind); it may have grown since an earlier bind (call bind
    // again).
    void bind(const CLeafTable& table);
    // Reads ids[0..n) as one consistent snapshot and points out[i] at each leaf's cached
    // entry, valid until the next call on this connection. Returns 0; busy when wait is
    // false and the store is locked (nothing read, returns at once); another non-zero code
    // when the store failed (error() says why). While no writer has committed since the
    // last read, a read makes no system call, allocation or SQLite call; writers that
    // bypass this library are seen within half a second.
    int read(const leaf_id_t* ids, size_t n, const CLeafValue** out, bool wait);
    // Writes values to the leaves in one transaction, with the per-leaf statuses, the type
    // conversion, read-only rule and stamping of set_leaves; returns as set_leaves, or busy
    // when wait is false and another writer holds the store (nothing written, returns at
    // once).
    int write(const leaf_id_t* ids, const CElement* values, size_t n, api_status_t* statuses,
              bool wait = true);

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
