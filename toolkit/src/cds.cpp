#include "toolkit/cds.h"

#include "store_connection.h"

#include <algorithm>

namespace toolkit {

namespace {

const char k_not_connected[] = "not connected to a data store";

} // namespace

CCds::CCds() = default;

CCds::~CCds() {
    kvr_close(_handle);
}

void CCds::set_handle(kvr_handle_t handle) {
    if (handle != _handle)
        kvr_close(_handle);
    _handle = handle;
}

tk_string CCds::error() const {
    return _handle ? _handle->error() : tk_string(k_not_connected);
}

tk_string CCds::take_notice() {
    return _handle ? _handle->take_notice() : tk_string();
}

int CCds::get_leaf(const tk_string& path, api_status_t& status, CElement& value,
                   element_property_t& source) {
    std::vector<tk_string> paths(1, path);
    std::vector<api_status_t> statuses;
    std::vector<CElement> values;
    std::vector<element_property_t> sources;
    const int rc = get_leaves(paths, statuses, values, sources);
    status = statuses.empty() ? API_STATUS_FAILURE : statuses[0];
    if (rc == 0) {
        value = std::move(values[0]);
        source = sources[0];
    }
    return rc;
}

int CCds::get_leaves(const std::vector<tk_string>& paths, std::vector<api_status_t>& statuses,
                     std::vector<CElement>& values, std::vector<element_property_t>& sources) {
    if (!_handle) {
        statuses.assign(paths.size(), API_STATUS_FAILURE);
        return -1;
    }
    return _handle->get(paths, statuses, values, sources);
}

int CCds::set_leaves(const std::vector<tk_string>& paths, const std::vector<CElement>& values,
                     const std::vector<kvr_tribool_t>& /*flags*/,
                     std::vector<api_status_t>& statuses, const tk_string& source) {
    if (!_handle) {
        statuses.assign(paths.size(), API_STATUS_FAILURE);
        return -1;
    }
    return _handle->set(paths, values, statuses, source);
}

static_assert(CCds::busy == SQLITE_BUSY, "CCds::busy is SQLite's code");
static_assert(CCds::cancelled < 0 && CCds::cancelled != -1,
              "CCds::cancelled is neither SQLite's nor the toolkit's own failure");

void CCds::bind(const CLeafTable& table) {
    if (_handle)
        _handle->bind(table);
}

int CCds::read(const leaf_id_t* ids, size_t n, const CLeafValue** out, bool wait) {
    return _handle ? _handle->read(ids, n, out, wait) : -1;
}

int CCds::write(const leaf_id_t* ids, const CElement* values, size_t n, api_status_t* statuses,
                bool wait) {
    const CWritePart part = {ids, values, n, statuses};
    return write(&part, 1, wait);
}

int CCds::write(const CWritePart* parts, size_t count, bool wait,
                const std::function<bool()>& commit_if) {
    if (!_handle) {
        for (size_t p = 0; p < count; ++p)
            std::fill(parts[p].statuses, parts[p].statuses + parts[p].n, API_STATUS_FAILURE);
        return -1;
    }
    return _handle->write(parts, count, wait, commit_if);
}

void CCds::set_auto_checkpoint(bool on) {
    if (_handle)
        _handle->set_auto_checkpoint(on);
}

int CCds::wal_frames() const {
    return _handle ? _handle->wal_frames() : 0;
}

int CCds::checkpoint(int& wal_frames_left, bool restart) {
    wal_frames_left = 0;
    return _handle ? _handle->checkpoint(wal_frames_left, restart) : -1;
}

void CCds::set_cache_size(unsigned kib) {
    if (_handle)
        _handle->set_cache_size(kib);
}

void CCds::release_memory() {
    if (_handle)
        _handle->release_memory();
}

void CCds::setReadOnly() {
    if (_handle)
        _handle->set_read_only();
}

bool CCds::is_read_only() const {
    return _handle && _handle->read_only();
}

int CCds::watchdog_register(api_status_t& status, const tk_string& ident, unsigned int timeout,
                            bool enable) {
    status = API_STATUS_FAILURE;
    return _handle ? _handle->watchdog_register(status, ident, timeout, enable) : -1;
}

int CCds::watchdog_ping(api_status_t& status) {
    status = API_STATUS_FAILURE;
    return _handle ? _handle->watchdog_ping(status) : -1;
}

} // namespace toolkit
