#include "threads/cds/commands/thread_cds_request.h"

#include "cds/cds_handle.h"
#include "threads/cds/cds_thread.h"
#include "util/cast.h"

CThreadCdsRequest::CThreadCdsRequest(const std::weak_ptr<CThreadResponseHandler>& requester,
                                     std::vector<toolkit::leaf_id_t> ids)
    : CThreadCommand(requester), _write(false), _ids(std::move(ids)) {}

CThreadCdsRequest::CThreadCdsRequest(const std::weak_ptr<CThreadResponseHandler>& requester,
                                     std::vector<toolkit::leaf_id_t> ids,
                                     std::vector<toolkit::CElement> values)
    : CThreadCommand(requester), _write(true), _ids(std::move(ids)), _values(std::move(values)) {}

void CThreadCdsRequest::execute(CThreadBase* thread) {
    if (!has_handler())
        return;
    CCdsHandle& cds = poly_cast<CCdsThread*>(thread)->handle();
    if (_write) {
        _statuses.assign(_ids.size(), API_STATUS_NONE);
        if (cds.write(_ids.data(), _values.data(), _ids.size(), _statuses.data()) != 0)
            set_failed(true);
        return;
    }
    // The entries point into the connection's cache, which the next command may change:
    // the requester gets copies.
    std::vector<const toolkit::CLeafValue*> found(_ids.size(), nullptr);
    if (cds.read(_ids.data(), _ids.size(), found.data(), true) != 0) {
        set_failed(true);
        return;
    }
    _read.reserve(found.size());
    for (const toolkit::CLeafValue* v : found)
        _read.push_back(*v);
}
