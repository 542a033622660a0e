#include "live_writer.h"

namespace {

const char* status_text(api_status_t status) {
    switch (status) {
    case API_STATUS_NOT_FOUND:
        return "no such leaf";
    case API_STATUS_BAD_VALUE:
        return "the leaf does not take a number";
    case API_STATUS_READ_ONLY:
        return "the connection is read-only";
    default:
        return "the store failed";
    }
}

} // namespace

CLiveWriter::CLiveWriter(const tk_string& device, unsigned count)
    : _values(count), _flags(count, KVR_INDETERMINATE) {
    _paths.reserve(count);
    for (unsigned i = 0; i < count; ++i)
        _paths.push_back(device + "/R" + std::to_string(i) + "/Value");
}

bool CLiveWriter::open() {
    kvr_handle_t handle = kvr_init(0);
    if (handle == nullptr) {
        _error = kvr_last_error();
        return false;
    }
    _cds.set_handle(handle);
    return true;
}

bool CLiveWriter::write(uint16_t value) {
    _refused = false;
    for (toolkit::CElement& e : _values)
        e = toolkit::CElement::from_uint(value);
    if (_cds.set_leaves(_paths, _values, _flags, _statuses, "bench_live_writer") != 0) {
        _error = kvr_store_path() + ": " + _cds.error();
        return false;
    }
    for (size_t i = 0; i < _statuses.size(); ++i)
        if (_statuses[i] != API_STATUS_OK) {
            _error = _paths[i] + ": " + status_text(_statuses[i]);
            _refused = true;
            return false;
        }
    return true;
}
