#include "store_file.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace toolkit {

namespace {

// Leaf types are stored as the numbers of CElement::type_t (1 bool to 6 time). Values of
// uint leaves keep their 64 bits in a signed INTEGER, times are microseconds since the
// epoch, a NaN float is the text 'nan' (SQLite would store NULL).
//
// Readers cache leaves. "changes" lets them revalidate cheaply after another connection
// committed: a value write takes the next seq and stamps its leaves with it, so a reader
// re-reads only the leaves with a newer seq. Anything else that changes the leaves (a new or
// removed leaf, or a writer that does not keep seq, such as the sqlite3 shell) bumps the
// generation through the triggers, and readers drop their whole cache.
const char* const k_schema = R"(
CREATE TABLE schema_version(version INTEGER NOT NULL);
CREATE TABLE leaves(
    path TEXT PRIMARY KEY NOT NULL,
    type INTEGER NOT NULL,
    value,
    sec INTEGER NOT NULL,
    usec INTEGER NOT NULL,
    property INTEGER NOT NULL DEFAULT 0,
    writer TEXT NOT NULL DEFAULT '',
    seq INTEGER NOT NULL DEFAULT 0
) WITHOUT ROWID;
CREATE INDEX leaves_by_seq ON leaves(seq);
CREATE TABLE changes(seq INTEGER NOT NULL, generation INTEGER NOT NULL);
INSERT INTO changes VALUES(0, 0);
CREATE TRIGGER leaves_inserted AFTER INSERT ON leaves
    BEGIN UPDATE changes SET generation = generation + 1; END;
CREATE TRIGGER leaves_deleted AFTER DELETE ON leaves
    BEGIN UPDATE changes SET generation = generation + 1; END;
CREATE TRIGGER leaves_updated AFTER UPDATE ON leaves WHEN NEW.seq IS OLD.seq
    BEGIN UPDATE changes SET generation = generation + 1; END;
CREATE TABLE watchdog(
    ident TEXT PRIMARY KEY NOT NULL,
    pid INTEGER NOT NULL,
    timeout_ms INTEGER NOT NULL,
    enabled INTEGER NOT NULL,
    ping_sec INTEGER NOT NULL,
    ping_usec INTEGER NOT NULL
);
CREATE TABLE events(
    seq INTEGER PRIMARY KEY,
    id INTEGER NOT NULL,
    kind INTEGER NOT NULL,
    completion INTEGER NOT NULL,
    attachments TEXT NOT NULL DEFAULT '',
    sec INTEGER NOT NULL,
    usec INTEGER NOT NULL,
    source TEXT,
    value INTEGER NOT NULL DEFAULT 0,
    url TEXT
);
CREATE INDEX events_by_time ON events(sec, usec, seq);
)";

// Short, jittered sleeps until the time-out: SQLite's own handler sleeps longer and longer,
// so a writer facing a busy peer rarely hits the gap between the peer's transactions.
int busy_wait(void*, int count) {
    typedef std::chrono::steady_clock clock_t;
    thread_local clock_t::time_point start;
    thread_local uint32_t jitter = static_cast<uint32_t>(::getpid());
    const clock_t::time_point now = clock_t::now();
    if (count == 0)
        start = now;
    else if (now - start >= std::chrono::milliseconds(k_busy_timeout_ms))
        return 0;
    jitter = jitter * 1103515245u + 12345u;
    ::usleep(200 + (jitter >> 16) % 800);
    return 1;
}

void configure(CSqliteDb& db) {
    sqlite3_busy_handler(db.get(), &busy_wait, nullptr);
    // In WAL mode NORMAL keeps every commit atomic across crashes of the process; only a
    // power cut may lose the last commits.
    db.exec("PRAGMA synchronous=NORMAL");
}

} // namespace

void set_busy_wait(CSqliteDb& db, bool wait) {
    sqlite3_busy_handler(db.get(), wait ? &busy_wait : nullptr, nullptr);
}

bool open_store_file(CSqliteDb& db, const tk_string& path, tk_string& error) {
    // SQLite only says "unable to open database file"; the system's reason is clearer.
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        error = "cannot open data store '" + path + "': " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        error = "cannot open data store '" + path + "': not a regular file";
        return false;
    }
    try {
        db.open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX);
    } catch (const CSqliteError& e) {
        error = "cannot open data store '" + path + "': " + e.what();
        return false;
    }
    try {
        configure(db);
        CSqliteStatement stmt;
        stmt.prepare(db.get(), "SELECT version FROM schema_version");
        int64_t version = -1;
        int rows = 0;
        for (; stmt.step(); ++rows)
            version = stmt.column_int(0);
        if (rows != 1)
            error = "data store '" + path + "' has no schema version";
        else if (version != k_schema_version)
            error = "data store '" + path + "' has schema version " +
                    std::to_string(static_cast<long long>(version)) +
                    ", this program reads version " +
                    std::to_string(static_cast<long long>(k_schema_version));
        else
            return true;
    } catch (const CSqliteError& e) {
        const tk_string msg = e.what();
        if (e.code() == SQLITE_NOTADB)
            error = "'" + path + "' is not a data store: " + msg;
        else if (msg.find("no such table") != tk_string::npos)
            error = "'" + path + "' is not a data store (" + msg + ")";
        else
            error = "cannot read data store '" + path + "': " + msg;
    }
    db.close();
    return false;
}

bool create_store_file(CSqliteDb& db, const tk_string& path, tk_string& error) {
    // O_EXCL: never take over a file that someone else has just created.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) {
        error = "cannot create data store '" + path + "': " + std::strerror(errno);
        return false;
    }
    ::close(fd);
    try {
        db.open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX);
        configure(db);
        // A write of a leaf dirties three pages (the leaf's, the seq index's and the changes
        // row's), each a frame in the WAL: at 1 KiB instead of SQLite's 4 KiB a write copies
        // a quarter of the bytes and costs about a quarter less, and a device's flash wears
        // less. Set before the first table; a store keeps its page size for good.
        db.exec("PRAGMA page_size=1024");
        db.exec("PRAGMA journal_mode=WAL");
        CSqliteTransaction txn(db, true);
        db.exec(k_schema);
        db.exec(("INSERT INTO schema_version VALUES(" +
                 std::to_string(static_cast<long long>(k_schema_version)) + ")")
                    .c_str());
        txn.commit();
        return true;
    } catch (const CSqliteError& e) {
        error = "cannot create data store '" + path + "': " + e.what();
    }
    db.close();
    ::unlink(path.c_str());
    return false;
}

} // namespace toolkit
