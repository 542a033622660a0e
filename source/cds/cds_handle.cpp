#include "cds/cds_handle.h"

#include "toolkit/sys_log.h"
#include "util/error.h"
#include "util/log.h"

#include <cassert>
#include <string>

namespace {

void build_paths(const std::unordered_set<CCdsLeaf>& leaves, const tk_string& prefix,
                 std::vector<tk_string>& paths) {
    paths.reserve(leaves.size());
    for (const CCdsLeaf& leaf : leaves)
        paths.push_back(prefix + "/" + leaf._path);
}

} // namespace

CCdsHandle::CCdsHandle() : _cds(new toolkit::CCds) {
    LOG_STACK();
    if (!_cds->is_initialized()) {
        kvr_handle_t handle = kvr_init(0);
        if (!handle)
            throw CError(tk_string("Can't connect to CDS: ") + kvr_last_error(), SS_CDS_HANDLE);
        _cds->set_handle(handle);
    }
    api_status_t status = 0;
    toolkit::CElement value;
    element_property_t source = 0;
    _cds->get_leaf("/ReadOnlyCDS", status, value, source);
    if (status == API_STATUS_OK && value.to_bool())
        _cds->setReadOnly();
}

void CCdsHandle::check() const {
    assert(_cds);
    assert(_cds->is_initialized());
}

void CCdsHandle::report_file() const {
    const tk_string notice = _cds->take_notice();
    if (!notice.empty())
        LOG_WARN(SS_CDS_HANDLE, 0, "%s", notice.c_str());
}

void CCdsHandle::get(std::unordered_set<CCdsLeaf>& leaves, const tk_string& prefix) {
    check();
    if (leaves.empty())
        return;
    std::vector<tk_string> paths;
    build_paths(leaves, prefix, paths);
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> sources;
    const int rc = _cds->get_leaves(paths, statuses, values, sources);
    report_file();
    if (rc != 0)
        throw CError("Can't get CDS leaves: " + _cds->error(), SS_CDS_HANDLE, 1);
    assert(values.size() == leaves.size());
    assert(statuses.size() == leaves.size());
    assert(sources.size() == leaves.size());
    size_t i = 0;
    for (const CCdsLeaf& leaf : leaves) {
        leaf._element = std::move(values[i]);
        leaf._status = statuses[i];
        leaf._source = sources[i];
        ++i;
    }
}

void CCdsHandle::set(std::unordered_set<CCdsLeaf>& leaves, const tk_string& prefix) {
    LOG_STACK();
    check();
    if (leaves.empty())
        return;
    std::vector<tk_string> paths;
    build_paths(leaves, prefix, paths);
    std::vector<toolkit::CElement> values;
    values.reserve(leaves.size());
    for (const CCdsLeaf& leaf : leaves)
        values.emplace_back(leaf._element, toolkit::CElement::_invalid_time);
    const std::vector<kvr_tribool_t> flags(leaves.size(), 2);
    std::vector<api_status_t> statuses;
    const int rc = _cds->set_leaves(paths, values, flags, statuses, tk_string());
    report_file();
    if (rc != 0)
        throw CError("Can't set CDS leaves: " + _cds->error(), SS_CDS_HANDLE, 1);
    assert(statuses.size() == leaves.size());
    size_t i = 0;
    for (const CCdsLeaf& leaf : leaves) {
        leaf._status = statuses[i++];
        leaf._source = 0;
    }
}

boost::optional<toolkit::CElement> CCdsHandle::get(const tk_string& path) {
    check();
    std::unordered_set<CCdsLeaf> leaves;
    leaves.emplace(path);
    get(leaves, tk_string());
    assert(!leaves.empty());
    const CCdsLeaf& leaf = *leaves.begin();
    if (leaf._status != API_STATUS_OK)
        return boost::none;
    return toolkit::CElement(leaf._element, toolkit::CElement::_invalid_time);
}

std::unordered_set<tk_string> CCdsHandle::list_nodes(const tk_string& path) {
    check();
    std::unordered_set<tk_string> names;
    const boost::optional<toolkit::CElement> children = get(path + "/Children");
    if (!children)
        return names;
    tk_string text;
    children->to_string(text);
    std::vector<tk_string> strvec;
    toolkit::CElement::split_string(strvec, text, ';');
    for (size_t i = 0; i < strvec.size(); ++i) {
        assert(!strvec[i].empty());
        names.insert(strvec[i]);
    }
    return names;
}

int CCdsHandle::get_val(const tk_string& path, toolkit::CElement& element) {
    check();
    api_status_t status = 0;
    element_property_t source = 0;
    const int rc = _cds->get_leaf(path, status, element, source);
    report_file();
    return rc;
}

std::vector<toolkit::CElement> CCdsHandle::get_vals(const std::vector<tk_string>& paths) {
    check();
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> sources;
    const int rc = _cds->get_leaves(paths, statuses, values, sources);
    report_file();
    if (rc != 0 || values.size() != paths.size() || values.size() != statuses.size())
        return std::vector<toolkit::CElement>();
    return values;
}

void CCdsHandle::bind(const toolkit::CLeafTable& table) {
    check();
    _cds->bind(table);
}

int CCdsHandle::read(const toolkit::leaf_id_t* ids, size_t n, const toolkit::CLeafValue** out,
                     bool wait) {
    check();
    const int rc = _cds->read(ids, n, out, wait);
    report_file();
    return rc;
}

int CCdsHandle::write(const toolkit::leaf_id_t* ids, const toolkit::CElement* values, size_t n,
                      api_status_t* statuses, bool wait) {
    check();
    const int rc = _cds->write(ids, values, n, statuses, wait);
    report_file();
    return rc;
}

int CCdsHandle::write(const toolkit::CWritePart* parts, size_t count, bool wait,
                      const std::function<bool()>& commit_if) {
    check();
    const int rc = _cds->write(parts, count, wait, commit_if);
    report_file();
    return rc;
}

void CCdsHandle::set_auto_checkpoint(bool on) {
    check();
    _cds->set_auto_checkpoint(on);
}

void CCdsHandle::set_cache_size(unsigned kib) {
    check();
    _cds->set_cache_size(kib);
}

void CCdsHandle::release_memory() {
    check();
    _cds->release_memory();
}

int CCdsHandle::wal_frames() const {
    check();
    return _cds->wal_frames();
}

int CCdsHandle::checkpoint(int& wal_frames_left, bool restart) {
    check();
    const int rc = _cds->checkpoint(wal_frames_left, restart);
    report_file();
    return rc;
}

tk_string CCdsHandle::error() const {
    return _cds->error();
}

void CCdsHandle::watchdog_register(unsigned int timeout) {
    LOG_STACK();
    check();
    assert(timeout > 0);
    api_status_t status = 0;
    const int rc = _cds->watchdog_register(status, toolkit::CSysLog::_ident, timeout, true);
    report_file();
    if (rc != 0 || status != API_STATUS_OK)
        throw CError("Can't register for watchdog (" + std::to_string(rc) + " / " +
                         std::to_string(status) + ")",
                     SS_CDS_HANDLE, 1);
}

void CCdsHandle::watchdog_ping() {
    LOG_STACK();
    check();
    api_status_t status = 0;
    const int rc = _cds->watchdog_ping(status);
    report_file();
    if (rc != 0 || status != API_STATUS_OK)
        throw CError("Can't ping watchdog (" + std::to_string(rc) + " / " + std::to_string(status) +
                         ")",
                     SS_CDS_HANDLE, 1);
}
