#include "store_connection.h"

#include "store_file.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <unistd.h>
#include <unordered_set>

namespace toolkit {

namespace {

const char k_children[] = "/Children";
const size_t k_children_len = sizeof k_children - 1;

// A time stored as microseconds must fit in 64 bits.
const int64_t k_max_time_sec = std::numeric_limits<int64_t>::max() / 1000000 - 1;

timeval now() {
    timeval t;
    gettimeofday(&t, nullptr);
    return t;
}

time_t clamp_time(int64_t sec) {
    if (sec > std::numeric_limits<time_t>::max())
        return std::numeric_limits<time_t>::max();
    if (sec < std::numeric_limits<time_t>::min())
        return std::numeric_limits<time_t>::min();
    return static_cast<time_t>(sec);
}

timeval make_timeval(int64_t sec, int64_t usec) {
    timeval t;
    t.tv_sec = clamp_time(sec);
    t.tv_usec = static_cast<suseconds_t>(usec);
    return t;
}

int64_t clamp_sec(int64_t sec) {
    return std::max(-k_max_time_sec, std::min(k_max_time_sec, sec));
}

// A time value as the store keeps it: microseconds since the epoch. The microseconds are
// carried into the seconds before the product, which then cannot overflow.
int64_t to_micros(const timeval& t) {
    const int64_t usec = t.tv_usec;
    const int64_t sec = clamp_sec(clamp_sec(static_cast<int64_t>(t.tv_sec)) + usec / 1000000);
    return sec * 1000000 + usec % 1000000;
}

timeval from_micros(int64_t us) {
    int64_t sec = us / 1000000, usec = us % 1000000;
    if (usec < 0) {
        usec += 1000000;
        --sec;
    }
    return make_timeval(sec, usec);
}

// Makes a converted value what a read of the store gives back for it, stamped.
void as_stored(CElement& v, const timeval& stamp) {
    if (v.type() == CElement::TYPE_TIME)
        v = CElement::from_time(from_micros(to_micros(v.to_timeval())), stamp);
    else if (v.type() == CElement::TYPE_FLOAT && std::isnan(v.to_float()))
        v = CElement::from_float(std::numeric_limits<double>::quiet_NaN(), stamp);
    else
        v.set_time(stamp);
}

bool is_children_path(const tk_string& path) {
    return path.size() >= k_children_len &&
           path.compare(path.size() - k_children_len, k_children_len, k_children) == 0;
}

// Paths below node sort in [node + "/", node + "0"): '0' follows '/'.
tk_string lower_bound_of(const tk_string& node) {
    return node == "/" ? node : node + "/";
}

tk_string upper_bound_of(const tk_string& node) {
    return node == "/" ? tk_string("0") : node + "0";
}

void bind_value(CSqliteStatement& s, int index, const CElement& v) {
    switch (v.type()) {
    case CElement::TYPE_BOOL:
        s.bind(index, static_cast<int64_t>(v.to_bool() ? 1 : 0));
        break;
    case CElement::TYPE_INT:
        s.bind(index, v.to_int());
        break;
    case CElement::TYPE_UINT:
        s.bind(index, static_cast<int64_t>(v.to_uint()));
        break;
    case CElement::TYPE_FLOAT:
        if (std::isnan(v.to_float()))
            s.bind(index, tk_string("nan"));
        else
            s.bind(index, v.to_float());
        break;
    case CElement::TYPE_STRING:
        s.bind(index, v.str());
        break;
    case CElement::TYPE_TIME:
        s.bind(index, to_micros(v.to_timeval()));
        break;
    case CElement::TYPE_NONE:
        s.bind_null(index);
        break;
    }
}

// Builds the element of a row (type, value, sec, usec starting at column `col`). A value
// that does not fit its declared type (a file edited by hand) gives false.
bool element_from_row(const CSqliteStatement& s, int col, CElement& out) {
    const int64_t type = s.column_int(col);
    const int kind = s.column_type(col + 1);
    const timeval stamp = make_timeval(s.column_int(col + 2), s.column_int(col + 3));
    if (kind == SQLITE_NULL)
        return false;
    switch (type) {
    case CElement::TYPE_BOOL:
        if (kind != SQLITE_INTEGER)
            return false;
        out = CElement::from_bool(s.column_int(col + 1) != 0, stamp);
        return true;
    case CElement::TYPE_INT:
        if (kind != SQLITE_INTEGER)
            return false;
        out = CElement::from_int(s.column_int(col + 1), stamp);
        return true;
    case CElement::TYPE_UINT:
        if (kind != SQLITE_INTEGER)
            return false;
        out = CElement::from_uint(static_cast<uint64_t>(s.column_int(col + 1)), stamp);
        return true;
    case CElement::TYPE_FLOAT:
        if (kind == SQLITE_TEXT) {
            if (s.column_text(col + 1) != "nan")
                return false;
            out = CElement::from_float(std::numeric_limits<double>::quiet_NaN(), stamp);
        } else {
            out = CElement::from_float(s.column_double(col + 1), stamp);
        }
        return true;
    case CElement::TYPE_STRING:
        out = CElement::from_string(s.column_text(col + 1), stamp);
        return true;
    case CElement::TYPE_TIME:
        if (kind != SQLITE_INTEGER)
            return false;
        out = CElement::from_time(from_micros(s.column_int(col + 1)), stamp);
        return true;
    default:
        return false;
    }
}

// Why a path cannot name a leaf, or empty when it can.
tk_string bad_leaf_path(const tk_string& path) {
    if (path == "/")
        return "the root cannot be a leaf";
    if (path.find('\0') != tk_string::npos)
        return "path holds a NUL character";
    size_t start = 1;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == tk_string::npos)
            end = path.size();
        if (path.compare(start, end - start, "Children") == 0)
            return "\"Children\" is answered by the store and cannot be a name";
        start = end + 1;
    }
    return tk_string();
}

// Turns the connection's busy wait off for a scope.
class CNoWait {
public:
    CNoWait(CSqliteDb& db, bool wait) : _db(db), _wait(wait) {
        if (!_wait)
            set_busy_wait(_db, false);
    }
    ~CNoWait() {
        if (!_wait)
            set_busy_wait(_db, true);
    }
    CNoWait(const CNoWait&) = delete;
    CNoWait& operator=(const CNoWait&) = delete;

private:
    CSqliteDb& _db;
    bool _wait;
};

} // namespace

const tk_string& CStoreConnection::normal_path(const tk_string& path, tk_string& scratch) {
    if (!path.empty() && path[0] == '/' && (path.size() == 1 || path.back() != '/') &&
        path.find("//") == tk_string::npos)
        return path;
    scratch.assign(1, '/');
    for (char c : path)
        if (c != '/' || scratch.back() != '/')
            scratch.push_back(c);
    if (scratch.size() > 1 && scratch.back() == '/')
        scratch.pop_back();
    return scratch;
}

bool CStoreConnection::open(const tk_string& path, tk_string& error) {
    if (!open_store_file(_db, path, error))
        return false;
    try {
        prepare_statements();
        watch_wal();
        if (_cache_kib)
            _db.exec(("PRAGMA cache_size=-" + std::to_string(_cache_kib)).c_str());
    } catch (const CSqliteError& e) {
        error = "cannot use data store '" + path + "': " + e.what();
        close_file();
        return false;
    }
    _path = path;
    _next_check = std::chrono::steady_clock::now() + k_read_check_interval;
    open_counter();
    return true;
}

void CStoreConnection::set_cache_size(unsigned kib) {
    _cache_kib = kib;
    if (_db.get() && kib)
        _db.exec(("PRAGMA cache_size=-" + std::to_string(kib)).c_str());
}

void CStoreConnection::release_memory() {
    std::unordered_map<tk_string, CLeafValue>().swap(_cache);
    if (_db.get())
        sqlite3_db_release_memory(_db.get());
}

void CStoreConnection::watch_wal() {
    // Read before the hook replaces SQLite's own, whose limit it is.
    CSqliteStatement limit;
    limit.prepare(_db.get(), "PRAGMA wal_autocheckpoint");
    _auto_checkpoint_frames = limit.step() ? static_cast<int>(limit.column_int(0)) : 0;
    limit.finalize();
    _wal_frames.store(0, std::memory_order_relaxed);
    sqlite3_wal_hook(_db.get(), &on_wal_commit, this);
}

int CStoreConnection::on_wal_commit(void* self, sqlite3* db, const char* name, int frames) {
    CStoreConnection& c = *static_cast<CStoreConnection*>(self);
    // What SQLite's own hook does, frames counted.
    if (c._auto_checkpoint && c._auto_checkpoint_frames > 0 &&
        frames >= c._auto_checkpoint_frames) {
        int log = 0, copied = 0;
        if (sqlite3_wal_checkpoint_v2(db, name, SQLITE_CHECKPOINT_PASSIVE, &log, &copied) ==
                SQLITE_OK &&
            log >= 0)
            frames = log - copied;
    }
    c._wal_frames.store(frames, std::memory_order_relaxed);
    return SQLITE_OK;
}

int CStoreConnection::checkpoint(int& wal_frames_left, bool restart) {
    wal_frames_left = 0;
    // A replaced file's checkpoint would read the -wal that the new file now uses.
    if (!check_file(k_check_store))
        return -1;
    int log = 0, copied = 0;
    const int rc = sqlite3_wal_checkpoint_v2(
        _db.get(), nullptr, restart ? SQLITE_CHECKPOINT_TRUNCATE : SQLITE_CHECKPOINT_PASSIVE, &log,
        &copied);
    if (rc != SQLITE_OK) {
        _error = "cannot checkpoint data store '" + _path + "': " + _db.message();
        return (rc & 0xff) == SQLITE_BUSY ? SQLITE_BUSY : rc;
    }
    // No WAL (a store in another journal mode) gives -1 for both.
    wal_frames_left = log > copied ? log - copied : 0;
    _wal_frames.store(wal_frames_left, std::memory_order_relaxed);
    return 0;
}

void CStoreConnection::open_counter() {
    _changes_seen = false;
    tk_string why;
    if (!_changes.open(_path, why))
        _notice += (_notice.empty() ? tk_string() : tk_string("; ")) + why +
                   "; reads ask the store every time";
}

void CStoreConnection::prepare_statements() {
    sqlite3* db = _db.get();
    _data_version.prepare(db, "PRAGMA data_version");
    _select_leaf.prepare(db, "SELECT type, value, sec, usec, property FROM leaves WHERE path = ?1");
    _select_type.prepare(db, "SELECT type FROM leaves WHERE path = ?1");
    _select_for_write.prepare(db, "SELECT type, property, seq FROM leaves WHERE path = ?1");
    _update_leaf.prepare(db, "UPDATE leaves SET value = ?2, sec = ?3, usec = ?4, "
                             "writer = ?5, seq = ?6 WHERE path = ?1");
    _update_typed.prepare(db, "UPDATE leaves SET value = ?2, sec = ?3, usec = ?4, "
                              "writer = ?5, seq = ?6 WHERE path = ?1 AND type = ?7 AND seq <> ?6");
    _bump_seq.prepare(db, "UPDATE changes SET seq = seq + 1");
    _select_changes.prepare(db, "SELECT seq, generation FROM changes");
    _changed_since.prepare(db, "SELECT path FROM leaves WHERE seq > ?1 LIMIT ?2");
    _next_after.prepare(
        db, "SELECT path FROM leaves WHERE path > ?1 AND path < ?2 ORDER BY path LIMIT 1");
    _next_from.prepare(
        db, "SELECT path FROM leaves WHERE path >= ?1 AND path < ?2 ORDER BY path LIMIT 1");
    _insert_leaf.prepare(db, "INSERT OR REPLACE INTO leaves"
                             "(path, type, value, sec, usec, property, writer) "
                             "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)");
    _watchdog_set.prepare(db, "INSERT OR REPLACE INTO watchdog"
                              "(ident, pid, timeout_ms, enabled, ping_sec, ping_usec) "
                              "VALUES(?1, ?2, ?3, ?4, ?5, ?6)");
    _watchdog_ping.prepare(db,
                           "UPDATE watchdog SET ping_sec = ?2, ping_usec = ?3 WHERE ident = ?1");
}

void CStoreConnection::close_file() {
    for (CSqliteStatement* s :
         {&_data_version, &_select_leaf, &_select_type, &_select_for_write, &_update_leaf,
          &_update_typed, &_bump_seq, &_select_changes, &_changed_since, &_next_after, &_next_from,
          &_insert_leaf, &_watchdog_set, &_watchdog_ping})
        s->finalize();
    _db.close();
    _changes.close();
    drop_caches();
    _cache_version = -1;
    _cache_seq = -1;
    _cache_generation = -1;
}

bool CStoreConnection::check_file(check_t how) {
    const std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
    const bool due = _lost || how == k_check_all || now >= _next_check;
    if (!due && how == k_check_when_due)
        return true;
    if (due)
        _next_check = now + k_read_check_interval;
    tk_string why;
    if (!_lost && _db.same_file(why)) {
        if (due && !_changes.current()) {
            const bool was_open = _changes.is_open();
            _changes.close();
            // Said once: a folder that stays read-only would say it every check.
            const tk_string notice = _notice;
            open_counter();
            if (!was_open)
                _notice = notice;
        }
        return true;
    }
    if (!_lost) {
        // The -wal file beside the path still holds this file's latest commits, and whoever
        // opens the new file would read them as its own pages: move them into the old file
        // and empty the -wal first. (Frames that another process wrote there for the new file
        // in the meantime would go too: a store is replaced with its writers stopped.) Then
        // close without touching -wal or -shm again.
        sqlite3_wal_checkpoint_v2(_db.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
        _db.detach();
        close_file();
        _lost = true;
        _notice = "data store " + why;
        if (!open(_path, _error)) {
            _notice += "; reads and writes fail until a store is back at its path";
            return false;
        }
    } else if (!open(_path, _error)) {
        return false;
    }
    _lost = false;
    _notice += (_notice.empty() ? "data store '" + _path + "' " : tk_string(": ")) + "reopened";
    return true;
}

tk_string CStoreConnection::take_notice() {
    tk_string notice;
    notice.swap(_notice);
    return notice;
}

int CStoreConnection::fail(const CSqliteError& e) {
    _error = e.what();
    return e.code() != 0 ? e.code() : -1;
}

int64_t CStoreConnection::data_version() {
    CStatementScope scope(_data_version);
    _data_version.step();
    return _data_version.column_int(0);
}

void CStoreConnection::read_entry(const tk_string& path, CLeafValue& entry) {
    if (is_children_path(path))
        read_children(path.size() == k_children_len ? tk_string("/")
                                                    : path.substr(0, path.size() - k_children_len),
                      entry);
    else
        read_leaf(path, entry);
}

void CStoreConnection::read_leaf(const tk_string& path, CLeafValue& entry) {
    CStatementScope scope(_select_leaf);
    _select_leaf.bind(1, path);
    entry.value = CElement();
    entry.source = 0;
    if (!_select_leaf.step()) {
        entry.status = API_STATUS_NOT_FOUND;
        return;
    }
    entry.source = static_cast<element_property_t>(_select_leaf.column_int(4));
    entry.status =
        element_from_row(_select_leaf, 0, entry.value) ? API_STATUS_OK : API_STATUS_FAILURE;
}

void CStoreConnection::child_names(const tk_string& node,
                                   std::vector<std::pair<tk_string, bool>>& names) {
    // Skips over each child's subtree, so the cost grows with the number of children
    // rather than with the size of the subtree.
    names.clear();
    const tk_string prefix = lower_bound_of(node);
    const tk_string upper = upper_bound_of(node);
    tk_string bound = prefix;
    bool inclusive = false;
    for (;;) {
        CSqliteStatement& stmt = inclusive ? _next_from : _next_after;
        CStatementScope scope(stmt);
        stmt.bind(1, bound);
        stmt.bind(2, upper);
        if (!stmt.step())
            break;
        const tk_string path = stmt.column_text(0);
        const size_t slash = path.find('/', prefix.size());
        if (slash == tk_string::npos) {
            names.emplace_back(path.substr(prefix.size()), false);
            bound = path;
            inclusive = false;
        } else {
            names.emplace_back(path.substr(prefix.size(), slash - prefix.size()), true);
            bound = path.substr(0, slash) + "0";
            inclusive = true;
        }
    }
    std::sort(names.begin(), names.end());
    // A hand-edited file may hold a leaf that also has children: list the name once.
    auto same = [](const std::pair<tk_string, bool>& a, const std::pair<tk_string, bool>& b) {
        return a.first == b.first;
    };
    names.erase(std::unique(names.begin(), names.end(), same), names.end());
}

void CStoreConnection::read_children(const tk_string& node, CLeafValue& entry) {
    std::vector<std::pair<tk_string, bool>> names;
    child_names(node, names);
    entry.source = 0;
    if (names.empty()) {
        entry.status = API_STATUS_NOT_FOUND;
        entry.value = CElement();
        return;
    }
    tk_string joined;
    for (const auto& n : names) {
        if (!joined.empty())
            joined += ';';
        joined += n.first;
    }
    entry.status = API_STATUS_OK;
    entry.value = CElement::from_string(joined);
}

bool CStoreConnection::serve_from_cache(const std::vector<tk_string>& paths,
                                        std::vector<api_status_t>& statuses,
                                        std::vector<CElement>& values,
                                        std::vector<element_property_t>& sources) {
    for (size_t i = 0; i < paths.size(); ++i) {
        auto it = _cache.find(normal_path(paths[i], _scratch));
        if (it == _cache.end())
            return false;
        statuses[i] = it->second.status;
        values[i] = it->second.value;
        sources[i] = it->second.source;
    }
    return true;
}

// Inside a read transaction: drops what others changed since the caches were last in step.
void CStoreConnection::catch_up() {
    const int64_t version = data_version();
    if (version != _cache_version) {
        sync_cache();
        _cache_version = version;
    }
}

void CStoreConnection::select_changes(int64_t& seq, int64_t& generation) {
    CStatementScope scope(_select_changes);
    if (!_select_changes.step())
        throw CSqliteError(SQLITE_CORRUPT, "the changes table is empty");
    seq = _select_changes.column_int(0);
    generation = _select_changes.column_int(1);
}

void CStoreConnection::sync_cache() {
    int64_t seq, generation;
    select_changes(seq, generation);
    sync_to(seq, generation);
}

void CStoreConnection::sync_to(int64_t seq, int64_t generation) {
    if (generation != _cache_generation || seq < _cache_seq) {
        drop_caches();
    } else if (seq != _cache_seq) {
        std::vector<tk_string> changed;
        CStatementScope scope(_changed_since);
        _changed_since.bind(1, _cache_seq);
        _changed_since.bind(2, k_sync_limit + 1);
        while (_changed_since.step())
            changed.push_back(_changed_since.column_text(0));
        if (static_cast<int64_t>(changed.size()) > k_sync_limit)
            drop_caches();
        else
            for (const tk_string& path : changed)
                forget(path);
    }
    _cache_seq = seq;
    _cache_generation = generation;
}

void CStoreConnection::sync_for_write() {
    int64_t seq, generation;
    select_changes(seq, generation);
    sync_to(seq, generation);
    _cache_version = data_version();
    _write_seq = seq;
    _write_seq_taken = false;
}

int CStoreConnection::get(const std::vector<tk_string>& paths, std::vector<api_status_t>& statuses,
                          std::vector<CElement>& values, std::vector<element_property_t>& sources) {
    const size_t n = paths.size();
    statuses.assign(n, API_STATUS_NONE);
    values.resize(n);
    sources.assign(n, 0);
    if (!check_file(k_check_when_due)) {
        statuses.assign(n, API_STATUS_FAILURE);
        return -1;
    }
    try {
        // One autocommit statement: when no one else has committed since the cached entries
        // were read, they are the committed state right now.
        if (data_version() == _cache_version && serve_from_cache(paths, statuses, values, sources))
            return 0;

        CSqliteTransaction txn(_db, false);
        catch_up();
        if (_cache.size() + n > k_cache_limit)
            _cache.clear();
        for (size_t i = 0; i < n; ++i) {
            const tk_string& path = normal_path(paths[i], _scratch);
            auto it = _cache.find(path);
            if (it == _cache.end()) {
                it = _cache.emplace(path, CLeafValue()).first;
                read_entry(path, it->second);
            }
            statuses[i] = it->second.status;
            values[i] = it->second.value;
            sources[i] = it->second.source;
        }
        txn.commit();
        return 0;
    } catch (const CSqliteError& e) {
        _cache.clear();
        _cache_version = -1;
        statuses.assign(n, API_STATUS_FAILURE);
        return fail(e);
    }
}

void CStoreConnection::forget(const tk_string& path) {
    _cache.erase(path);
    leaf_id_t id;
    if (_table && _table->find(path, id) && id < _slot_of.size() && _slot_of[id])
        _slot_of[id]->valid = false;
}

void CStoreConnection::remember(const write_item_t& item) {
    const auto take = [&item](CLeafValue& entry) {
        entry.status = API_STATUS_OK;
        entry.value = item.stored;
        entry.source = item.property;
    };
    if (!_cache.empty()) {
        const auto it = _cache.find(*item.path);
        if (it != _cache.end())
            take(it->second);
    }
    leaf_id_t id = item.id;
    if (id == k_no_id && !(_table && _table->find(*item.path, id)))
        return;
    // A table that grew since the bind has no entry for its new ids yet.
    if (id < _slot_of.size()) {
        leaf_slot_t& entry = slot(id);
        take(entry.leaf);
        entry.valid = true;
    }
}

void CStoreConnection::drop_caches() {
    _cache.clear();
    for (leaf_slot_t& entry : _slots)
        entry.valid = false;
}

void CStoreConnection::bind(const CLeafTable& table) {
    if (&table != _table) {
        _slot_of.clear();
        _slots.clear();
        _table = &table;
    }
    _slot_of.resize(table.size(), nullptr);
}

CStoreConnection::leaf_slot_t& CStoreConnection::slot(leaf_id_t id) {
    leaf_slot_t*& entry = _slot_of[id];
    if (!entry) {
        _slots.emplace_back();
        entry = &_slots.back();
    }
    return *entry;
}

bool CStoreConnection::check_ids(const char* what, const leaf_id_t* ids, size_t n) {
    if (!_table) {
        _error = tk_string(what) + ": no leaf table is bound";
        return false;
    }
    for (size_t i = 0; i < n; ++i)
        if (ids[i] >= _table->size()) {
            _error = tk_string(what) + ": leaf id " + std::to_string(ids[i]) +
                     " is not in the bound table of " + std::to_string(_table->size()) + " leaves";
            return false;
        }
    // The table may have grown since it was bound.
    if (_slot_of.size() < _table->size())
        _slot_of.resize(_table->size(), nullptr);
    return true;
}

int CStoreConnection::read_synced(const leaf_id_t* ids, size_t n, const CLeafValue** out,
                                  bool wait) {
    if (!check_ids("read", ids, n) || !check_file(k_check_when_due))
        return -1;
    if (!wait)
        set_busy_wait(_db, false);
    const int rc = read_ids(ids, n, out);
    if (!wait)
        set_busy_wait(_db, true);
    return rc;
}

int CStoreConnection::read_ids(const leaf_id_t* ids, size_t n, const CLeafValue** out) {
    // Loaded before the transaction: a writer that commits after the snapshot bumps the
    // counter later still, so the next read sees a word other than this one.
    const bool counted = _changes.is_open();
    const uint32_t word = _changes.load();
    _changes_seen = false;
    try {
        // Without a counter, as path reads do: one autocommit statement first.
        if (!counted && data_version() == _cache_version && serve_ids(ids, n, out))
            return 0;
        CSqliteTransaction txn(_db, false);
        catch_up();
        for (size_t i = 0; i < n; ++i) {
            leaf_slot_t& entry = slot(ids[i]);
            if (!entry.valid) {
                read_entry(tk_string(_table->path(ids[i])), entry.leaf);
                entry.valid = true;
            }
            out[i] = &entry.leaf;
        }
        txn.commit();
        _seen_changes = word;
        _changes_seen = counted;
        return 0;
    } catch (const CSqliteError& e) {
        // Busy means the snapshot was never taken, so the caches still hold.
        if ((e.code() & 0xff) == SQLITE_BUSY) {
            _error = "data store '" + _path + "' is locked: " + e.what();
            return SQLITE_BUSY;
        }
        drop_caches();
        _cache_version = -1;
        return fail(e);
    }
}

int CStoreConnection::write(const CWritePart* parts, size_t count, bool wait,
                            const std::function<bool()>& commit_if) {
    size_t total = 0;
    bool known = true;
    for (size_t p = 0; p < count; ++p) {
        total += parts[p].n;
        known = known && check_ids("write", parts[p].ids, parts[p].n);
    }
    int rc = -1;
    if (known) {
        _items.resize(total);
        size_t k = 0;
        for (size_t p = 0; p < count; ++p)
            for (size_t i = 0; i < parts[p].n; ++i, ++k) {
                // Into the item's own string, which keeps its capacity from write to write.
                _items[k].own_path.assign(_table->path(parts[p].ids[i]));
                _items[k].path = &_items[k].own_path;
                _items[k].value = &parts[p].values[i];
                _items[k].id = parts[p].ids[i];
            }
        try {
            rc = write_items(total, tk_string(), wait, commit_if ? &commit_if : nullptr);
        } catch (...) {
            // From commit_if, after the rollback.
            for (size_t p = 0; p < count; ++p)
                std::fill(parts[p].statuses, parts[p].statuses + parts[p].n, API_STATUS_FAILURE);
            throw;
        }
    }
    size_t k = 0;
    for (size_t p = 0; p < count; ++p)
        for (size_t i = 0; i < parts[p].n; ++i, ++k)
            parts[p].statuses[i] = known ? _items[k].status : API_STATUS_FAILURE;
    return rc;
}

int CStoreConnection::set(const std::vector<tk_string>& paths, const std::vector<CElement>& values,
                          std::vector<api_status_t>& statuses, const tk_string& writer) {
    const size_t n = paths.size();
    statuses.assign(n, API_STATUS_FAILURE);
    if (values.size() != n && !_read_only) {
        _error = "set_leaves: " + std::to_string(n) + " paths but " +
                 std::to_string(values.size()) + " values";
        return -1;
    }
    std::vector<tk_string> normal(n);
    _items.resize(n);
    for (size_t i = 0; i < n; ++i) {
        normal[i] = normal_path(paths[i], _scratch);
        _items[i].path = &normal[i];
        _items[i].value = i < values.size() ? &values[i] : nullptr;
        _items[i].id = k_no_id;
    }
    const int rc = write_items(n, writer, true, nullptr);
    for (size_t i = 0; i < n; ++i)
        statuses[i] = _items[i].status;
    return rc;
}

int CStoreConnection::write_items(size_t n, const tk_string& writer, bool wait,
                                  const std::function<bool()>* commit_if) {
    const auto settle = [this, n](api_status_t status) {
        for (size_t i = 0; i < n; ++i)
            _items[i].status = status;
    };
    if (n == 0)
        return 0;
    if (_read_only) {
        settle(API_STATUS_READ_ONLY);
        return 0;
    }
    settle(API_STATUS_FAILURE);
    // The check may reopen the file: the connection's wait is set on the one written.
    if (!check_file(k_check_store))
        return -1;
    CNoWait no_wait(_db, wait);
    // As a read does, before the transaction: see the header.
    const bool counted = _changes.is_open();
    uint32_t word = _changes.load();
    _changes_seen = false;
    try {
        CSqliteTransaction txn(_db, true, true);
        sync_for_write();
        const timeval stamp_now = now();
        for (size_t i = 0; i < n; ++i)
            write_item(_items[i], writer, stamp_now);
        if (commit_if && !(*commit_if)()) {
            settle(API_STATUS_FAILURE);
            // The transaction synced the caches, and rolls back.
            _seen_changes = word;
            _changes_seen = counted;
            return CCds::cancelled;
        }
        txn.commit();
        if (_write_seq_taken) {
            uint32_t replaced = 0;
            const uint32_t stored = _changes.bump(&replaced);
            if (replaced == word)
                word = stored;
            _cache_seq = _write_seq;
            for (size_t i = 0; i < n; ++i)
                if (_items[i].status == API_STATUS_OK)
                    remember(_items[i]);
        }
        _seen_changes = word;
        _changes_seen = counted;
        return 0;
    } catch (const CSqliteError& e) {
        settle(API_STATUS_FAILURE);
        const int rc = fail(e);
        // Busy means the write transaction never began: nothing was written.
        return (rc & 0xff) == SQLITE_BUSY ? SQLITE_BUSY : rc;
    }
}

void CStoreConnection::write_item(write_item_t& item, const tk_string& writer,
                                  const timeval& stamp_now) {
    const tk_string& path = *item.path;
    if (is_children_path(path)) {
        item.status = API_STATUS_NOT_FOUND;
        return;
    }
    const timeval& stamp =
        CElement::is_invalid_time(item.value->time()) ? stamp_now : item.value->time();
    // A cached leaf's type saves the SELECT; the update checks it, and anything it does not
    // find (the type changed, the leaf was removed or already written here) goes the long way.
    if (item.id != k_no_id) {
        const leaf_slot_t* entry = _slot_of[item.id];
        if (entry && entry->valid && entry->leaf.status == API_STATUS_OK &&
            CElement::convert(*item.value, entry->leaf.value.type(), item.stored)) {
            as_stored(item.stored, stamp);
            _update_typed.bind(7, static_cast<int64_t>(entry->leaf.value.type()));
            if (update_leaf(_update_typed, item, writer, write_seq())) {
                item.property = entry->leaf.source;
                item.status = API_STATUS_OK;
                return;
            }
        }
    }
    int64_t type, seq;
    {
        CStatementScope scope(_select_for_write);
        _select_for_write.bind(1, path);
        if (!_select_for_write.step()) {
            item.status = API_STATUS_NOT_FOUND;
            return;
        }
        type = _select_for_write.column_int(0);
        item.property = static_cast<element_property_t>(_select_for_write.column_int(1));
        seq = _select_for_write.column_int(2);
    }
    if (type < CElement::TYPE_BOOL || type > CElement::TYPE_TIME ||
        !CElement::convert(*item.value, static_cast<CElement::type_t>(type), item.stored)) {
        item.status = API_STATUS_BAD_VALUE;
        return;
    }
    as_stored(item.stored, stamp);
    // An update that leaves a leaf's seq as it was looks like a writer that keeps no seq: the
    // trigger bumps the generation, and every reader drops its whole cache.
    update_leaf(_update_leaf, item, writer, seq == write_seq() ? next_write_seq() : write_seq());
    item.status = API_STATUS_OK;
}

bool CStoreConnection::update_leaf(CSqliteStatement& update, const write_item_t& item,
                                   const tk_string& writer, int64_t seq) {
    CStatementScope scope(update);
    update.bind(1, *item.path);
    bind_value(update, 2, item.stored);
    update.bind(3, static_cast<int64_t>(item.stored.time().tv_sec));
    update.bind(4, static_cast<int64_t>(item.stored.time().tv_usec));
    update.bind(5, writer);
    update.bind(6, seq);
    update.step();
    return sqlite3_changes(_db.get()) > 0;
}

int64_t CStoreConnection::write_seq() {
    return _write_seq_taken ? _write_seq : next_write_seq();
}

int64_t CStoreConnection::next_write_seq() {
    CStatementScope bump(_bump_seq);
    _bump_seq.step();
    _write_seq_taken = true;
    return ++_write_seq;
}

int CStoreConnection::watchdog_register(api_status_t& status, const tk_string& ident,
                                        unsigned int timeout, bool enable) {
    status = API_STATUS_FAILURE;
    if (!check_file(k_check_all))
        return -1;
    try {
        const timeval t = now();
        CStatementScope scope(_watchdog_set);
        _watchdog_set.bind(1, ident);
        _watchdog_set.bind(2, static_cast<int64_t>(getpid()));
        _watchdog_set.bind(3, static_cast<int64_t>(timeout));
        _watchdog_set.bind(4, static_cast<int64_t>(enable ? 1 : 0));
        _watchdog_set.bind(5, static_cast<int64_t>(t.tv_sec));
        _watchdog_set.bind(6, static_cast<int64_t>(t.tv_usec));
        _watchdog_set.step();
        _watchdog_ident = ident;
        status = API_STATUS_OK;
        return 0;
    } catch (const CSqliteError& e) {
        return fail(e);
    }
}

int CStoreConnection::watchdog_ping(api_status_t& status) {
    if (_watchdog_ident.empty()) {
        status = API_STATUS_NOT_FOUND;
        _error = "watchdog_ping: not registered";
        return 0;
    }
    status = API_STATUS_FAILURE;
    if (!check_file(k_check_all))
        return -1;
    try {
        const timeval t = now();
        CStatementScope scope(_watchdog_ping);
        _watchdog_ping.bind(1, _watchdog_ident);
        _watchdog_ping.bind(2, static_cast<int64_t>(t.tv_sec));
        _watchdog_ping.bind(3, static_cast<int64_t>(t.tv_usec));
        _watchdog_ping.step();
        // Someone removed the registration (cdsctl, a new store file): say so.
        status = sqlite3_changes(_db.get()) > 0 ? API_STATUS_OK : API_STATUS_NOT_FOUND;
        return 0;
    } catch (const CSqliteError& e) {
        return fail(e);
    }
}

bool CStoreConnection::leaf_exists(const tk_string& path) {
    CStatementScope scope(_select_type);
    _select_type.bind(1, path);
    return _select_type.step();
}

bool CStoreConnection::first_below(const tk_string& node, tk_string& found) {
    CStatementScope scope(_next_after);
    _next_after.bind(1, lower_bound_of(node));
    _next_after.bind(2, upper_bound_of(node));
    if (!_next_after.step())
        return false;
    found = _next_after.column_text(0);
    return true;
}

int CStoreConnection::define(const std::vector<CLeafInfo>& leaves, bool replace_all) {
    std::vector<CLeafInfo> checked(leaves.size());
    for (size_t i = 0; i < leaves.size(); ++i) {
        CLeafInfo& leaf = checked[i];
        leaf.path = CCdsStore::normal_path(leaves[i].path);
        leaf.type = leaves[i].type;
        leaf.property = leaves[i].property;
        const tk_string why = bad_leaf_path(leaf.path);
        if (!why.empty()) {
            _error = leaf.path + ": " + why;
            return -1;
        }
        if (leaf.type < CElement::TYPE_BOOL || leaf.type > CElement::TYPE_TIME) {
            _error = leaf.path + ": no type";
            return -1;
        }
        if (!CElement::convert(leaves[i].value, leaf.type, leaf.value)) {
            _error = leaf.path + ": '" + leaves[i].value.str() + "' is not a valid " +
                     CElement::type_name(leaf.type);
            return -1;
        }
    }
    if (!check_file(k_check_all))
        return -1;
    try {
        CSqliteTransaction txn(_db, true);
        if (replace_all)
            _db.exec("DELETE FROM leaves");
        const timeval stamp_now = now();
        // Prefixes known not to be leaves; a leaf added later at such a prefix is caught
        // by its own check for children.
        std::unordered_set<tk_string> nodes;
        tk_string below;
        for (const CLeafInfo& leaf : checked) {
            for (size_t slash = leaf.path.find('/', 1); slash != tk_string::npos;
                 slash = leaf.path.find('/', slash + 1)) {
                const tk_string parent = leaf.path.substr(0, slash);
                if (nodes.count(parent))
                    continue;
                if (leaf_exists(parent)) {
                    _error = leaf.path + ": " + parent + " is a leaf and cannot have children";
                    return -1;
                }
                nodes.insert(parent);
            }
            if (first_below(leaf.path, below)) {
                _error = leaf.path + ": is a node (it holds " + below + "), not a leaf";
                return -1;
            }
            const timeval& stamp =
                CElement::is_invalid_time(leaf.value.time()) ? stamp_now : leaf.value.time();
            CStatementScope scope(_insert_leaf);
            _insert_leaf.bind(1, leaf.path);
            _insert_leaf.bind(2, static_cast<int64_t>(leaf.type));
            bind_value(_insert_leaf, 3, leaf.value);
            _insert_leaf.bind(4, static_cast<int64_t>(stamp.tv_sec));
            _insert_leaf.bind(5, static_cast<int64_t>(stamp.tv_usec));
            _insert_leaf.bind(6, static_cast<int64_t>(leaf.property));
            _insert_leaf.bind(7, tk_string());
            _insert_leaf.step();
        }
        txn.commit();
        _changes.bump();
        drop_caches();
        return 0;
    } catch (const CSqliteError& e) {
        return fail(e);
    }
}

int CStoreConnection::remove(const tk_string& path, bool recursive, size_t& removed) {
    removed = 0;
    const tk_string node = CCdsStore::normal_path(path);
    if (!check_file(k_check_all))
        return -1;
    try {
        CSqliteTransaction txn(_db, true);
        tk_string below;
        if (node != "/" && leaf_exists(node)) {
            CSqliteStatement del;
            del.prepare(_db.get(), "DELETE FROM leaves WHERE path = ?1");
            del.bind(1, node);
            del.step();
            removed = 1;
        } else if (first_below(node, below)) {
            if (!recursive) {
                _error = node + ": is a node; remove it recursively to delete everything below";
                return -1;
            }
            CSqliteStatement del;
            del.prepare(_db.get(), "DELETE FROM leaves WHERE path > ?1 AND path < ?2");
            del.bind(1, lower_bound_of(node));
            del.bind(2, upper_bound_of(node));
            del.step();
            removed = static_cast<size_t>(sqlite3_changes(_db.get()));
        } else {
            _error = node + ": no such leaf or node";
            return -1;
        }
        txn.commit();
        _changes.bump();
        drop_caches();
        return 0;
    } catch (const CSqliteError& e) {
        return fail(e);
    }
}

int CStoreConnection::list(const tk_string& path, std::vector<CLeafInfo>& leaves) {
    leaves.clear();
    const tk_string node = CCdsStore::normal_path(path);
    if (!check_file(k_check_when_due))
        return -1;
    try {
        CSqliteTransaction txn(_db, false);
        CSqliteStatement stmt;
        stmt.prepare(_db.get(), "SELECT path, type, value, sec, usec, property FROM leaves "
                                "WHERE path = ?1 OR (path > ?2 AND path < ?3) ORDER BY path");
        stmt.bind(1, node);
        stmt.bind(2, lower_bound_of(node));
        stmt.bind(3, upper_bound_of(node));
        while (stmt.step()) {
            CLeafInfo leaf;
            leaf.path = stmt.column_text(0);
            if (!element_from_row(stmt, 1, leaf.value)) {
                _error = leaf.path + ": the stored value does not match the leaf's type";
                return -1;
            }
            leaf.type = leaf.value.type();
            leaf.property = static_cast<element_property_t>(stmt.column_int(5));
            leaves.push_back(std::move(leaf));
        }
        stmt.reset();
        txn.commit();
        return 0;
    } catch (const CSqliteError& e) {
        return fail(e);
    }
}

int CStoreConnection::children(const tk_string& path,
                               std::vector<std::pair<tk_string, bool>>& names) {
    if (!check_file(k_check_when_due))
        return -1;
    try {
        CSqliteTransaction txn(_db, false);
        child_names(CCdsStore::normal_path(path), names);
        txn.commit();
        return 0;
    } catch (const CSqliteError& e) {
        return fail(e);
    }
}

int CStoreConnection::watchdogs(std::vector<CWatchdogInfo>& entries) {
    entries.clear();
    if (!check_file(k_check_when_due))
        return -1;
    try {
        CSqliteStatement stmt;
        stmt.prepare(_db.get(), "SELECT ident, pid, timeout_ms, enabled, ping_sec, ping_usec "
                                "FROM watchdog ORDER BY ident");
        while (stmt.step()) {
            CWatchdogInfo w;
            w.ident = stmt.column_text(0);
            w.pid = stmt.column_int(1);
            w.timeout_ms = static_cast<unsigned int>(stmt.column_int(2));
            w.enabled = stmt.column_int(3) != 0;
            w.last_ping = make_timeval(stmt.column_int(4), stmt.column_int(5));
            entries.push_back(std::move(w));
        }
        return 0;
    } catch (const CSqliteError& e) {
        return fail(e);
    }
}

} // namespace toolkit
