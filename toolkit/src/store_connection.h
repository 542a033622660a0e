#pragma once
// One connection to a store file: what a kvr_handle_t points to.
//
// Reads keep a per-connection cache of leaves. While SQLite's data_version is unchanged no
// other connection has committed, and the cache is served as it is. When it has changed, the
// store's change sequence tells which leaves were written since (or that the cache must go).
// So a read never returns a value older than the last commit.
//
// Reads by leaf id (bind, read) keep a second cache, an array indexed by id, and skip even
// data_version: every writer using this library bumps the change counter beside the store
// (CChangeCounter) after it commits, so while the counter holds the word seen at the last
// sync, the cached leaves are current and a read is a few memory loads. What the word seen
// promises: every commit whose bump came before that word was loaded is in the caches. The
// word is loaded before the read transaction that syncs, so a commit that transaction missed
// is bumped later and seen at the next read. Fallbacks:
// - no counter (a read-only folder, a failed mmap): every id read asks data_version, as
//   path reads do;
// - writers that do not use this library (the sqlite3 shell), or a writer killed between
//   its commit and its bump: seen at the next periodic check, since id reads ask
//   data_version at least once per k_read_check_interval whatever the counter says;
// - a store replaced or removed: the file check below, which also maps the counter again;
//   a counter file removed or replaced on its own is mapped again at the periodic check.
//
// Writes keep the caches current too, so that a connection reading back what it wrote
// neither begins a read transaction nor re-reads the leaves:
// - The write transaction holds the write lock on the newest snapshot, so it first syncs the
//   caches to it exactly as a read transaction does (the changes row is read anyway, and
//   data_version costs no system call inside a transaction). Commits by anyone, bumped or
//   not, that came before the transaction are then in the caches.
// - After the commit the entries of the leaves written take the values as stored (property
//   word unchanged), and the sync point _cache_seq moves to the last seq the transaction
//   took. No seq that another writer used is passed over: seqs up to the one the
//   transaction found were synced, and the seqs above it up to ours are ours (the write
//   lock), so every other writer's seq is either synced or above ours.
// - The counter word is loaded before the transaction begins, as a read loads it. When our
//   bump replaced exactly that word, nobody bumped between the load and our bump: every
//   bump before ours came before the load, so its commit came before our transaction and is
//   in the caches. The word we stored is then the word seen, and the next read stays on its
//   fast path. When someone else bumped in between, they may have committed after us: the
//   word loaded before the transaction stays the word seen (still true of it), which the
//   counter no longer holds, so the next read syncs.
// - A writer that committed after our commit but bumps after our bump is not in the caches
//   and the fast path serves without it until it bumps, as for every reader: the bump
//   changes the word from the one we stored.
// - A writer that does not bump and commits after our transaction is seen at the periodic
//   check. A write makes that check only when it is due, and its transaction is then the
//   data_version check that goes with it; a write that fails leaves the next read to sync.
//
// The store file may be replaced under a running process (a new file renamed over it) or
// removed. Every write first checks (one stat(2)) that the path still names the open file:
// a replaced file is reopened and written, a removed one refuses the write. Reads check at
// most once per k_read_check_interval, so a read costs a clock read rather than a stat(2);
// values from a replaced file are served for at most that long. The counter file is checked
// at the same pace, by reads and writes alike.
//
// Checkpoints: SQLite's automatic one (inside the commit that takes the WAL past its limit)
// is replaced by a WAL hook of the same effect, which also counts the frames, so that a
// program can turn it off and checkpoint when it suits it.
#include "change_counter.h"
#include "sqlite_db.h"
#include "toolkit/cds_store.h"
#include "toolkit/kvr.h"
#include "toolkit/leaf_table.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <unordered_map>
#include <vector>

namespace toolkit {

class CStoreConnection {
public:
    bool open(const tk_string& path, tk_string& error);
    const tk_string& error() const { return _error; }
    // What the connection did about its file since the last call (reopened it, found it
    // gone, found it back), for the caller's log; empty when nothing happened.
    tk_string take_notice();

    int get(const std::vector<tk_string>& paths, std::vector<api_status_t>& statuses,
            std::vector<CElement>& values, std::vector<element_property_t>& sources);
    int set(const std::vector<tk_string>& paths, const std::vector<CElement>& values,
            std::vector<api_status_t>& statuses, const tk_string& writer);
    // Reading and writing by leaf id: see CCds.
    void bind(const CLeafTable& table);
    int read(const leaf_id_t* ids, size_t n, const CLeafValue** out, bool wait) {
        // The fast path, inline: no system call, no allocation, no SQLite call.
        if (_changes_seen && !_lost && _changes.load() == _seen_changes &&
            std::chrono::steady_clock::now() < _next_check && serve_ids(ids, n, out))
            return 0;
        return read_synced(ids, n, out, wait);
    }
    int write(const CWritePart* parts, size_t count, bool wait,
              const std::function<bool()>& commit_if);
    void set_read_only() { _read_only = true; }
    // Checkpoints: see CCds.
    void set_auto_checkpoint(bool on) { _auto_checkpoint = on; }
    int wal_frames() const { return _wal_frames.load(std::memory_order_relaxed); }
    int checkpoint(int& wal_frames_left, bool restart);
    // kib 0: SQLite's default page cache; kept across reopens.
    void set_cache_size(unsigned kib);
    void release_memory();
    bool read_only() const { return _read_only; }
    int watchdog_register(api_status_t& status, const tk_string& ident, unsigned int timeout,
                          bool enable);
    int watchdog_ping(api_status_t& status);

    int define(const std::vector<CLeafInfo>& leaves, bool replace_all);
    int remove(const tk_string& path, bool recursive, size_t& removed);
    int list(const tk_string& path, std::vector<CLeafInfo>& leaves);
    int children(const tk_string& path, std::vector<std::pair<tk_string, bool>>& names);
    int watchdogs(std::vector<CWatchdogInfo>& entries);

    // Returns path itself when it is already normal, else the normal form in scratch.
    static const tk_string& normal_path(const tk_string& path, tk_string& scratch);

private:
    struct leaf_slot_t {
        CLeafValue leaf;
        bool valid = false;
    };
    // Bounds the memory a long-running reader spends on the cache.
    static const size_t k_cache_limit = 32768;
    // Past this many leaves written by others, dropping the cache is cheaper.
    static const int64_t k_sync_limit = 256;

    static constexpr std::chrono::milliseconds k_read_check_interval{500};
    static const leaf_id_t k_no_id = ~leaf_id_t(0);

    // One leaf of a write transaction, kept until the commit for the caches.
    struct write_item_t {
        const tk_string* path = nullptr; // normal form
        tk_string own_path;              // the path of a leaf written by id
        const CElement* value = nullptr;
        leaf_id_t id = k_no_id; // k_no_id when written by path
        api_status_t status = API_STATUS_NONE;
        CElement stored; // as converted, stamped and stored, when status is OK
        element_property_t property = 0;
    };

    // How much check_file checks.
    enum check_t {
        k_check_when_due, // reads: nothing until k_read_check_interval has passed
        k_check_store,    // writes: the store every time, the counter file when due
        k_check_all,
    };

    int fail(const CSqliteError& e);
    void prepare_statements();
    void watch_wal();
    static int on_wal_commit(void* self, sqlite3* db, const char* name, int frames);
    void close_file();
    // True when the connection's file is (again) the one at its path, reopening it when
    // another file has taken its place; otherwise false with _error set.
    bool check_file(check_t how);
    bool reopen(const tk_string& why);
    int64_t data_version();
    bool serve_from_cache(const std::vector<tk_string>& paths, std::vector<api_status_t>& statuses,
                          std::vector<CElement>& values, std::vector<element_property_t>& sources);
    bool serve_ids(const leaf_id_t* ids, size_t n, const CLeafValue** out) {
        for (size_t i = 0; i < n; ++i) {
            const leaf_slot_t* slot = ids[i] < _slot_of.size() ? _slot_of[ids[i]] : nullptr;
            if (!slot || !slot->valid)
                return false;
            out[i] = &slot->leaf;
        }
        return true;
    }
    // The id cache's entry of a leaf, made on its first use.
    leaf_slot_t& slot(leaf_id_t id);
    int read_synced(const leaf_id_t* ids, size_t n, const CLeafValue** out, bool wait);
    int read_ids(const leaf_id_t* ids, size_t n, const CLeafValue** out);
    bool check_ids(const char* what, const leaf_id_t* ids, size_t n);
    // Writes _items[0..n) in one transaction, as set() and write() promise, leaving each
    // item's final status. wait false: a store that another writer holds fails at once
    // (SQLITE_BUSY). commit_if may be null.
    int write_items(size_t n, const tk_string& writer, bool wait,
                    const std::function<bool()>* commit_if);
    void write_item(write_item_t& item, const tk_string& writer, const timeval& stamp_now);
    bool update_leaf(CSqliteStatement& update, const write_item_t& item, const tk_string& writer,
                     int64_t seq);
    // The seq this transaction stamps its leaves with, taken at the first update; another
    // one for a leaf that already carries it.
    int64_t write_seq();
    int64_t next_write_seq();
    // Drops the entries of a leaf that has changed, in both caches.
    void forget(const tk_string& path);
    // Gives the entries of a leaf just written its value as stored, in both caches.
    void remember(const write_item_t& item);
    void drop_caches();
    void open_counter();
    void select_changes(int64_t& seq, int64_t& generation);
    void sync_cache();
    void sync_to(int64_t seq, int64_t generation);
    // In a write transaction: brings the caches to the newest commit.
    void sync_for_write();
    // In a read transaction: sync_cache when another connection has committed since.
    void catch_up();
    void read_entry(const tk_string& path, CLeafValue& entry);
    void read_leaf(const tk_string& path, CLeafValue& entry);
    void read_children(const tk_string& node, CLeafValue& entry);
    void child_names(const tk_string& node, std::vector<std::pair<tk_string, bool>>& names);
    bool leaf_exists(const tk_string& path);
    bool first_below(const tk_string& node, tk_string& found);

    CSqliteDb _db;
    tk_string _path;
    tk_string _error;
    tk_string _notice;
    // Set while the path names no usable store; every access checks again.
    bool _lost = false;
    std::chrono::steady_clock::time_point _next_check;
    bool _read_only = false;
    tk_string _watchdog_ident;

    CSqliteStatement _data_version;
    CSqliteStatement _select_leaf;
    CSqliteStatement _select_type;
    CSqliteStatement _select_for_write;
    CSqliteStatement _update_leaf;
    CSqliteStatement _update_typed; // only a leaf of the type given, not yet written by us
    CSqliteStatement _bump_seq;
    CSqliteStatement _select_changes;
    CSqliteStatement _changed_since;
    CSqliteStatement _next_after; // first path > ?1 and < ?2
    CSqliteStatement _next_from;  // first path >= ?1 and < ?2
    CSqliteStatement _insert_leaf;
    CSqliteStatement _watchdog_set;
    CSqliteStatement _watchdog_ping;

    std::unordered_map<tk_string, CLeafValue> _cache;
    // The id cache: the entry of each id of the bound table that this connection has read or
    // written (null for the others), so that a connection holds only the leaves it serves. A
    // deque, because adding entries must not move those a read has handed out.
    const CLeafTable* _table = nullptr;
    std::vector<leaf_slot_t*> _slot_of;
    std::deque<leaf_slot_t> _slots;
    CChangeCounter _changes;
    // The counter word loaded before the last sync; valid while _changes_seen.
    uint32_t _seen_changes = 0;
    bool _changes_seen = false;
    int64_t _cache_version = -1;
    int64_t _cache_seq = -1;
    int64_t _cache_generation = -1;
    tk_string _scratch;
    // Reused by every write, so that a warm connection allocates little for them.
    std::vector<write_item_t> _items;
    // The seq of the write transaction: the one found in it until the first update.
    int64_t _write_seq = 0;
    bool _write_seq_taken = false;

    bool _auto_checkpoint = true;
    unsigned _cache_kib = 0;
    // SQLite's own limit, which the WAL hook keeps.
    int _auto_checkpoint_frames = 0;
    std::atomic<int> _wal_frames{0};
};

} // namespace toolkit

// The opaque connection type of the C entry points.
struct kvr_connection : toolkit::CStoreConnection {};
