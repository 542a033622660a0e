#pragma once
// Helpers for tests against real store files: a temporary folder that is removed with
// everything in it, a store inside it, CDS_STORE pointed at it, and running cdsctl.
#include "toolkit/cds_store.h"

#include <boost/test/unit_test.hpp>

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <ftw.h>
#include <sqlite3.h>

class CTempDir {
public:
    CTempDir() {
        char name[] = "/tmp/mb_test_XXXXXX";
        BOOST_REQUIRE(::mkdtemp(name));
        _path = name;
    }
    ~CTempDir() {
        auto remove = [](const char* p, const struct stat*, int, struct FTW*) {
            return ::remove(p);
        };
        ::nftw(_path.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
    }
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;

    const tk_string& path() const { return _path; }
    tk_string file(const tk_string& name) const { return _path + "/" + name; }

private:
    tk_string _path;
};

// Sets an environment variable for a scope.
class CScopedEnv {
public:
    CScopedEnv(const char* name, const tk_string& value) : _name(name) {
        if (const char* old = std::getenv(name))
            _old.reset(new tk_string(old));
        ::setenv(name, value.c_str(), 1);
    }
    ~CScopedEnv() {
        if (_old)
            ::setenv(_name, _old->c_str(), 1);
        else
            ::unsetenv(_name);
    }
    CScopedEnv(const CScopedEnv&) = delete;
    CScopedEnv& operator=(const CScopedEnv&) = delete;

private:
    const char* _name;
    std::unique_ptr<tk_string> _old;
};

// A new store "store.db" in a temporary folder, with CDS_STORE pointing at it.
class CTestStore {
public:
    CTestStore() : _path(_dir.file("store.db")), _env("CDS_STORE", _path) {
        tk_string error;
        BOOST_REQUIRE_MESSAGE(toolkit::CCdsStore::create(_path, error) == 0, error);
        BOOST_REQUIRE_MESSAGE(_store.open(_path) == 0, _store.error());
    }

    const tk_string& path() const { return _path; }
    const CTempDir& dir() const { return _dir; }
    toolkit::CCdsStore& store() { return _store; }

    void define(const std::vector<toolkit::CLeafInfo>& leaves) {
        BOOST_REQUIRE_MESSAGE(_store.define(leaves) == 0, _store.error());
    }
    void define(const tk_string& path, toolkit::CElement::type_t type,
                const toolkit::CElement& value) {
        define({{path, type, value, 0}});
    }
    // The stored value, read through a fresh connection.
    toolkit::CElement value(const tk_string& path) {
        std::vector<toolkit::CLeafInfo> leaves;
        BOOST_REQUIRE_EQUAL(_store.list(path, leaves), 0);
        BOOST_REQUIRE_EQUAL(leaves.size(), 1u);
        return leaves[0].value;
    }

private:
    CTempDir _dir;
    tk_string _path;
    CScopedEnv _env;
    toolkit::CCdsStore _store;
};

struct CRunResult {
    int status = -1; // exit status, or -1 when killed by a signal
    tk_string out;
    tk_string err;
};

inline tk_string read_text(const tk_string& path) {
    std::ifstream in(path, std::ios::binary);
    return tk_string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void write_text(const tk_string& path, const tk_string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    BOOST_REQUIRE(out.good());
}

// Runs the built program `name` with args, its output caught in files of dir.
inline CRunResult run_program(const CTempDir& dir, const tk_string& name,
                              const std::vector<tk_string>& args) {
    const tk_string exe = MB_BINARY_DIR "/" + name;
    const tk_string out = dir.file(name + ".out"), err = dir.file(name + ".err");
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(exe.c_str()));
    for (const tk_string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    BOOST_REQUIRE(pid >= 0);
    if (pid == 0) {
        const int fo = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int fe = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(fo, 1);
        ::dup2(fe, 2);
        ::execv(exe.c_str(), argv.data());
        ::_exit(127);
    }
    int status = 0;
    BOOST_REQUIRE_EQUAL(::waitpid(pid, &status, 0), pid);
    CRunResult r;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = read_text(out);
    r.err = read_text(err);
    return r;
}

inline CRunResult run_cdsctl(const CTempDir& dir, const std::vector<tk_string>& args) {
    return run_program(dir, "cdsctl", args);
}

// A leaf's value and SQLite's integrity check of the file, as "VALUE CHECK", the way a new
// process sees them (the store's error when it does not open).
inline tk_string fresh_look(const tk_string& path, const tk_string& leaf) {
    toolkit::CCdsStore store;
    if (store.open(path) != 0)
        return store.error();
    api_status_t status = 0;
    toolkit::CElement value;
    element_property_t source = 0;
    store.cds().get_leaf(leaf, status, value, source);
    sqlite3* db = nullptr;
    tk_string check;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK)
        sqlite3_exec(
            db, "PRAGMA integrity_check",
            [](void* out, int, char** row, char**) {
                *static_cast<tk_string*>(out) += row[0] ? row[0] : "NULL";
                return 0;
            },
            &check, nullptr);
    sqlite3_close(db);
    return value.str() + " " + check;
}

inline bool has_text(const tk_string& text, const tk_string& part) {
    return text.find(part) != tk_string::npos;
}

// Runs SQL on the store file the way a program outside the library would.
inline void raw_sql(const tk_string& path, const tk_string& sql) {
    sqlite3* db = nullptr;
    BOOST_REQUIRE_EQUAL(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr),
                        SQLITE_OK);
    char* err = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
    const tk_string msg = err ? err : "";
    sqlite3_free(err);
    sqlite3_close(db);
    BOOST_REQUIRE_MESSAGE(rc == SQLITE_OK, msg);
}

// The counter file's word, decoded as big-endian.
inline uint32_t counter_value(const tk_string& store) {
    const tk_string bytes = read_text(store + "-changes");
    BOOST_REQUIRE_EQUAL(bytes.size(), 4u);
    uint32_t v = 0;
    for (char c : bytes)
        v = v << 8 | static_cast<unsigned char>(c);
    return v;
}

// Bumps the counter as another writer would (its mappings see the file's page).
inline void bump_counter(const tk_string& store) {
    const uint32_t v = counter_value(store) + 1;
    const char bytes[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                           static_cast<char>(v >> 8), static_cast<char>(v)};
    const int fd = ::open((store + "-changes").c_str(), O_WRONLY);
    BOOST_REQUIRE(fd >= 0);
    const ssize_t written = ::pwrite(fd, bytes, sizeof bytes, 0);
    ::close(fd);
    BOOST_REQUIRE_EQUAL(written, 4);
}
