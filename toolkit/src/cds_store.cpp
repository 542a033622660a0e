#include "toolkit/cds_store.h"

#include "store_connection.h"
#include "store_file.h"

namespace toolkit {

int CCdsStore::create(const tk_string& path, tk_string& error) {
    CSqliteDb db;
    return create_store_file(db, path, error) ? 0 : -1;
}

int CCdsStore::open(const tk_string& path) {
    kvr_handle_t handle = new kvr_connection;
    if (!handle->open(path, _error)) {
        delete handle;
        return -1;
    }
    _cds.set_handle(handle);
    return 0;
}

bool CCdsStore::check_open() {
    if (_cds.is_initialized())
        return true;
    _error = "no data store is open";
    return false;
}

int CCdsStore::define(const std::vector<CLeafInfo>& leaves, bool replace_all) {
    if (!check_open())
        return -1;
    const int rc = _cds.handle()->define(leaves, replace_all);
    if (rc != 0)
        _error = _cds.handle()->error();
    return rc;
}

int CCdsStore::remove(const tk_string& path, bool recursive, size_t& removed) {
    removed = 0;
    if (!check_open())
        return -1;
    const int rc = _cds.handle()->remove(path, recursive, removed);
    if (rc != 0)
        _error = _cds.handle()->error();
    return rc;
}

int CCdsStore::list(const tk_string& path, std::vector<CLeafInfo>& leaves) {
    leaves.clear();
    if (!check_open())
        return -1;
    const int rc = _cds.handle()->list(path, leaves);
    if (rc != 0)
        _error = _cds.handle()->error();
    return rc;
}

int CCdsStore::children(const tk_string& path, std::vector<std::pair<tk_string, bool>>& names) {
    names.clear();
    if (!check_open())
        return -1;
    const int rc = _cds.handle()->children(path, names);
    if (rc != 0)
        _error = _cds.handle()->error();
    return rc;
}

int CCdsStore::watchdogs(std::vector<CWatchdogInfo>& entries) {
    entries.clear();
    if (!check_open())
        return -1;
    const int rc = _cds.handle()->watchdogs(entries);
    if (rc != 0)
        _error = _cds.handle()->error();
    return rc;
}

tk_string CCdsStore::normal_path(const tk_string& path) {
    tk_string scratch;
    return CStoreConnection::normal_path(path, scratch);
}

} // namespace toolkit
