#pragma once
// Thin RAII layer over the SQLite C API, used inside the toolkit only.
//
// Failures throw CSqliteError carrying SQLite's result code and message; the public entry
// points catch it and turn it into a return code, so no exception leaves the toolkit.
#include "toolkit/tk_string.h"

#include <sqlite3.h>

#include <sys/types.h>

#include <cstdint>
#include <stdexcept>

namespace toolkit {

class CSqliteError : public std::runtime_error {
public:
    CSqliteError(int code, const tk_string& message) : std::runtime_error(message), _code(code) {}
    int code() const { return _code; }

private:
    int _code;
};

class CSqliteStatement {
public:
    CSqliteStatement() = default;
    ~CSqliteStatement() { sqlite3_finalize(_stmt); }
    CSqliteStatement(const CSqliteStatement&) = delete;
    CSqliteStatement& operator=(const CSqliteStatement&) = delete;

    // Compiled once and kept for the life of the connection.
    void prepare(sqlite3* db, const char* sql);

    void bind(int index, int64_t value);
    void bind(int index, double value);
    void bind(int index, const tk_string& value);
    void bind_null(int index);

    // True while a row is available; throws on error.
    bool step();
    // Ends the statement's read, so that it holds no transaction open.
    void reset() { sqlite3_reset(_stmt); }
    void finalize() {
        sqlite3_finalize(_stmt);
        _stmt = nullptr;
    }

    int column_type(int col) const { return sqlite3_column_type(_stmt, col); }
    int64_t column_int(int col) const { return sqlite3_column_int64(_stmt, col); }
    double column_double(int col) const { return sqlite3_column_double(_stmt, col); }
    tk_string column_text(int col) const;

private:
    void check(int rc);
    sqlite3_stmt* _stmt = nullptr;
};

// Resets a statement when the scope ends, however it ends.
class CStatementScope {
public:
    explicit CStatementScope(CSqliteStatement& stmt) : _stmt(stmt) {}
    ~CStatementScope() { _stmt.reset(); }
    CStatementScope(const CStatementScope&) = delete;
    CStatementScope& operator=(const CStatementScope&) = delete;
    CSqliteStatement* operator->() { return &_stmt; }

private:
    CSqliteStatement& _stmt;
};

class CSqliteDb {
public:
    CSqliteDb() = default;
    ~CSqliteDb() { close(); }
    CSqliteDb(const CSqliteDb&) = delete;
    CSqliteDb& operator=(const CSqliteDb&) = delete;

    // flags as for sqlite3_open_v2; the connection is used by one thread at a time. The file
    // that path names is remembered by device and inode.
    void open(const tk_string& path, int flags);
    void close();
    const tk_string& path() const { return _path; }

    // Whether path still names the file that was opened. A store replaced by renaming
    // another file over it, or removed, gives false and says so in why. A stat(2) per call.
    bool same_file(tk_string& why) const;
    // For a connection whose file is no longer at its path: closing it will neither
    // checkpoint nor delete the -wal and -shm files, which now belong to whatever file took
    // its name.
    void detach();
    void exec(const char* sql);
    sqlite3* get() const { return _db; }
    tk_string message() const { return _db ? sqlite3_errmsg(_db) : "no connection"; }

    // Transaction control through statements compiled once. A write transaction on a file
    // that is no longer at its path throws: its pages would go to the -wal file beside the
    // new one. A caller that has just checked same_file() itself passes file_checked and
    // saves the second stat(2).
    void begin(bool write, bool file_checked = false);
    void commit();
    // Never throws: used on error paths.
    void rollback() noexcept;

private:
    sqlite3* _db = nullptr;
    tk_string _path;
    dev_t _dev = 0;
    ino_t _ino = 0;
    CSqliteStatement _begin_read;
    CSqliteStatement _begin_write;
    CSqliteStatement _commit;
};

// Rolls back unless committed.
class CSqliteTransaction {
public:
    CSqliteTransaction(CSqliteDb& db, bool write, bool file_checked = false) : _db(db) {
        _db.begin(write, file_checked);
    }
    ~CSqliteTransaction() {
        if (!_done)
            _db.rollback();
    }
    CSqliteTransaction(const CSqliteTransaction&) = delete;
    CSqliteTransaction& operator=(const CSqliteTransaction&) = delete;
    void commit() {
        _db.commit();
        _done = true;
    }

private:
    CSqliteDb& _db;
    bool _done = false;
};

} // namespace toolkit
