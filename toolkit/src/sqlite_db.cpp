#include "sqlite_db.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace toolkit {

void CSqliteStatement::prepare(sqlite3* db, const char* sql) {
    finalize();
    if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &_stmt, nullptr) != SQLITE_OK)
        throw CSqliteError(sqlite3_errcode(db), sqlite3_errmsg(db));
}

void CSqliteStatement::check(int rc) {
    if (rc != SQLITE_OK)
        throw CSqliteError(rc, sqlite3_errmsg(sqlite3_db_handle(_stmt)));
}

void CSqliteStatement::bind(int index, int64_t value) {
    check(sqlite3_bind_int64(_stmt, index, value));
}

void CSqliteStatement::bind(int index, double value) {
    check(sqlite3_bind_double(_stmt, index, value));
}

void CSqliteStatement::bind(int index, const tk_string& value) {
    check(sqlite3_bind_text(_stmt, index, value.data(), static_cast<int>(value.size()),
                            SQLITE_TRANSIENT));
}

void CSqliteStatement::bind_null(int index) {
    check(sqlite3_bind_null(_stmt, index));
}

bool CSqliteStatement::step() {
    const int rc = sqlite3_step(_stmt);
    if (rc == SQLITE_ROW)
        return true;
    if (rc == SQLITE_DONE)
        return false;
    // sqlite3_reset returns the same code and makes the message specific.
    sqlite3_reset(_stmt);
    throw CSqliteError(rc, sqlite3_errmsg(sqlite3_db_handle(_stmt)));
}

tk_string CSqliteStatement::column_text(int col) const {
    const unsigned char* text = sqlite3_column_text(_stmt, col);
    const int size = sqlite3_column_bytes(_stmt, col);
    return text ? tk_string(reinterpret_cast<const char*>(text), static_cast<size_t>(size))
                : tk_string();
}

void CSqliteDb::open(const tk_string& path, int flags) {
    close();
    // SQLite keeps no name for the file it opened; the same device and inode before and
    // after the open tell which file that was.
    struct stat before;
    const bool known = ::stat(path.c_str(), &before) == 0;
    const int rc = sqlite3_open_v2(path.c_str(), &_db, flags, nullptr);
    if (rc != SQLITE_OK) {
        const tk_string msg = _db ? sqlite3_errmsg(_db) : sqlite3_errstr(rc);
        close();
        throw CSqliteError(rc, msg);
    }
    struct stat after;
    if (!known || ::stat(path.c_str(), &after) != 0 || after.st_dev != before.st_dev ||
        after.st_ino != before.st_ino) {
        detach();
        close();
        throw CSqliteError(SQLITE_CANTOPEN, "the file was replaced while it was being opened");
    }
    _path = path;
    _dev = after.st_dev;
    _ino = after.st_ino;
    _begin_read.prepare(_db, "BEGIN");
    _begin_write.prepare(_db, "BEGIN IMMEDIATE");
    _commit.prepare(_db, "COMMIT");
}

void CSqliteDb::close() {
    _begin_read.finalize();
    _begin_write.finalize();
    _commit.finalize();
    if (_db)
        sqlite3_close_v2(_db);
    _db = nullptr;
}

bool CSqliteDb::same_file(tk_string& why) const {
    struct stat st;
    if (::stat(_path.c_str(), &st) != 0) {
        why = "'" + _path + "' is gone (" + std::strerror(errno) + ")";
        return false;
    }
    if (st.st_dev != _dev || st.st_ino != _ino) {
        why = "'" + _path + "' was replaced by another file (inode " +
              std::to_string(static_cast<unsigned long long>(_ino)) + " is now " +
              std::to_string(static_cast<unsigned long long>(st.st_ino)) + ")";
        return false;
    }
    return true;
}

void CSqliteDb::detach() {
    if (_db)
        sqlite3_db_config(_db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

void CSqliteDb::exec(const char* sql) {
    char* err = nullptr;
    const int rc = sqlite3_exec(_db, sql, nullptr, nullptr, &err);
    if (rc != SQLITE_OK) {
        const tk_string msg = err ? err : sqlite3_errmsg(_db);
        sqlite3_free(err);
        throw CSqliteError(rc, msg);
    }
}

void CSqliteDb::begin(bool write, bool file_checked) {
    tk_string why;
    if (write && !file_checked && !same_file(why)) {
        detach();
        throw CSqliteError(SQLITE_CANTOPEN, "data store " + why + ": write refused");
    }
    CSqliteStatement& stmt = write ? _begin_write : _begin_read;
    CStatementScope scope(stmt);
    stmt.step();
}

void CSqliteDb::commit() {
    CStatementScope scope(_commit);
    _commit.step();
}

void CSqliteDb::rollback() noexcept {
    if (_db && !sqlite3_get_autocommit(_db))
        sqlite3_exec(_db, "ROLLBACK", nullptr, nullptr, nullptr);
}

} // namespace toolkit
