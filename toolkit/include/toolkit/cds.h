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

#include <functional>
#include <vector>

namespace toolkit {

// One requester's share of a write transaction: n leaves by id, their values, and where
// their statuses go.
struct CWritePart {
    const leaf_id_t* ids;
    const CElement* values;
    size_t n;
    api_status_t* statuses;
};

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
    // What a write returns when its commit_if said no (SQLite never returns a negative code).
    static constexpr int cancelled = -2;
    // How long a writer told to wait waits for another writer before it fails.
    static constexpr int busy_wait_ms = 2000;

    // Leaves of `table` can from now on be read and written by id. The table must outlive
    // the connection (or the next bind); it may have grown since an earlier bind (call bind
    // again).
    void bind(const CLeafTable& table);
    // Reads ids[0..n) as one consistent snapshot and points out[i] at each leaf's cached
    // entry, valid until the next call on this connection. Returns 0; busy when wait is
    // false and the store is locked (nothing read, returns at once); another non-zero code
    // when the store failed (error() says why). While no other writer has committed since
    // this connection's last read or write, a read makes no system call, allocation or
    // SQLite call (so reading back one's own write is free); writers that bypass this
    // library are seen within half a second.
    int read(const leaf_id_t* ids, size_t n, const CLeafValue** out, bool wait);
    // Writes values to the leaves in one transaction, with the per-leaf statuses, the type
    // conversion, read-only rule and stamping of set_leaves; returns as set_leaves, or busy
    // when wait is false and another writer holds the store (nothing written, returns at
    // once).
    int write(const leaf_id_t* ids, const CElement* values, size_t n, api_status_t* statuses,
              bool wait = true);
    // Writes the parts in one transaction, in order, each leaf as write() does (a leaf in
    // two parts keeps the later part's value), so that several requesters share one commit.
    // commit_if, when given, is called once every part is applied, just before the commit,
    // with the store locked (keep it short, and do not use this connection in it): when it
    // returns false nothing is written, every status is API_STATUS_FAILURE and the call
    // returns cancelled. It is not called when there is nothing to write, the connection is
    // read-only, or the transaction could not begin; an exception from it rolls back and
    // propagates. An id that the bound
    // table does not have fails the whole call (-1, nothing written). Otherwise returns as
    // write(); on busy or a failure every status is API_STATUS_FAILURE.
    int write(const CWritePart* parts, size_t count, bool wait,
              const std::function<bool()>& commit_if = {});

    // Checkpoints, which copy the WAL back into the store file and fsync both, are the slow
    // part of writing. By default SQLite runs one inside the commit that takes the WAL past
    // 1000 frames; a program that turns that off calls checkpoint() when it suits it (from a
    // thread of its own, on a connection of its own), or the WAL grows without bound.
    void set_auto_checkpoint(bool on);
    // Frames in the WAL after this connection's last commit, or left after its last
    // checkpoint(), whichever came later; 0 when unknown. Any thread may call it.
    int wal_frames() const;
    // Copies into the store file what the WAL holds and no reader still needs, without
    // waiting for readers or writers (SQLite's PASSIVE checkpoint), and says how many frames
    // are left. Under a steady stream of writes a passive checkpoint never catches up, and the
    // WAL, which only starts over once it is wholly copied and no reader uses it, grows
    // without bound: with restart, new writers are held off (they see busy, or wait) until
    // every frame is copied and the readers are done with it, and the WAL is emptied then
    // (SQLite's TRUNCATE checkpoint), whoever reads next. Returns 0,
    // busy when another checkpoint is running or the store stayed held, or another non-zero
    // code when the store failed.
    int checkpoint(int& wal_frames_left, bool restart = false);

    // SQLite's page cache of this connection, at most kib KiB (0: SQLite's default, 2 MiB).
    // The id cache serves a server's reads, so the page cache mostly holds the b-tree pages
    // that writes and re-reads walk. Kept when the store file is reopened.
    void set_cache_size(unsigned kib);
    // Gives back what the caches hold that a running server does not need: the leaves read
    // by path and SQLite's cached pages (start-up reads many of both once). The id cache
    // stays.
    void release_memory();

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
