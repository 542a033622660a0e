#pragma once
// The server's one connection to the data store.
//
// Created once (it connects in its constructor and throws CError when it cannot) and
// shared by std::shared_ptr between the settings readers and the CDS thread, which use it
// one after the other, never at once: it has no lock. Every batch is a single call into the
// store, so it is read or written in one transaction. Per-leaf failures are left in the
// leaves' statuses; only a failing store throws, a CError of the "cds_handle" subsystem: at
// the default level when it cannot connect, else at level 1, since the caller that gives up
// says in its own line what could not be done. If the leaf "/ReadOnlyCDS" is true when
// connecting, every write fails for the handle's whole life. When the store file is
// replaced or removed under the server the store reopens it or fails the batch (see
// toolkit); either is logged once as a warning at the default verbosity.
#include "cds/cds_leaf.h"
#include "toolkit/cds.h"

#include <boost/optional.hpp>

#include <functional>
#include <memory>
#include <unordered_set>
#include <vector>

class CCdsHandle {
public:
    CCdsHandle();
    CCdsHandle(const CCdsHandle&) = delete;
    CCdsHandle& operator=(const CCdsHandle&) = delete;

    // Reads every leaf at prefix + "/" + leaf path. Nothing is normalised: with an empty
    // prefix a leaf path "/x" is read as "//x" (the store folds it).
    void get(std::unordered_set<CCdsLeaf>& leaves, const tk_string& prefix);
    // Writes every leaf (paths as for get); the store stamps the values.
    void set(std::unordered_set<CCdsLeaf>& leaves, const tk_string& prefix);
    // One leaf by its full path; empty unless it was read successfully.
    boost::optional<toolkit::CElement> get(const tk_string& path);
    // The names of a node's children; empty when the node cannot be read.
    std::unordered_set<tk_string> list_nodes(const tk_string& path);

    // Direct store calls: get_val returns the store's return code; get_vals the values of
    // full paths in order, or nothing when the batch failed.
    int get_val(const tk_string& path, toolkit::CElement& element);
    std::vector<toolkit::CElement> get_vals(const std::vector<tk_string>& paths);

    // Reading and writing by leaf id, as toolkit::CCds promises (both return
    // toolkit::CCds::busy when told not to wait on a locked store); error() says why a call
    // failed.
    void bind(const toolkit::CLeafTable& table);
    int read(const toolkit::leaf_id_t* ids, size_t n, const toolkit::CLeafValue** out, bool wait);
    int write(const toolkit::leaf_id_t* ids, const toolkit::CElement* values, size_t n,
              api_status_t* statuses, bool wait = true);
    // Several writers' parts in one transaction, as toolkit::CCds promises: each part with
    // its statuses; commit_if, called just before the commit, may roll everything back
    // (toolkit::CCds::cancelled).
    int write(const toolkit::CWritePart* parts, size_t count, bool wait,
              const std::function<bool()>& commit_if = {});
    tk_string error() const;

    // WAL checkpoints (see toolkit::CCds): off for a connection whose owner makes them.
    void set_auto_checkpoint(bool on);
    int wal_frames() const;
    int checkpoint(int& wal_frames_left, bool restart = false);
    // SQLite's page cache and the memory start-up used (see toolkit::CCds).
    void set_cache_size(unsigned kib);
    void release_memory();

    // timeout in milliseconds, greater than 0.
    void watchdog_register(unsigned int timeout);
    void watchdog_ping();

private:
    void check() const;
    // Logs what the store did about its file during the last call.
    void report_file() const;
    std::unique_ptr<toolkit::CCds> _cds;
};
