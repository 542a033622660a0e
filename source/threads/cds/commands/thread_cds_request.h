#pragma once
// The part of a Modbus request that leaves the I/O thread: a write of resolved leaves in one
// transaction, or a read that found the store busy and may wait on this thread instead.
// The command owns copies of what it needs, so the requester may go away meanwhile; a
// command whose requester went away makes no store call.
#include "threads/commands/thread_command.h"

#include "toolkit/leaf_table.h"

#include <vector>

class CCdsHandle;

class CThreadCdsRequest : public CThreadCommand {
public:
    // A read of ids.
    CThreadCdsRequest(const std::weak_ptr<CThreadResponseHandler>& requester,
                      std::vector<toolkit::leaf_id_t> ids);
    // A write of values to ids (one each). queued, when given, counts the write from now
    // until the command is destroyed, which happens on the I/O thread once the CDS thread is
    // done with it (answered, timed out or skipped alike).
    CThreadCdsRequest(const std::weak_ptr<CThreadResponseHandler>& requester,
                      std::vector<toolkit::leaf_id_t> ids, std::vector<toolkit::CElement> values,
                      unsigned* queued = nullptr);
    ~CThreadCdsRequest() override;

    void execute(CThreadBase* thread) override;

    bool is_write() const { return _write; }
    // After a read: the leaves read, in the order of the ids.
    const std::vector<toolkit::CLeafValue>& values() const { return _read; }
    // After a write: the per-leaf statuses, in the order of the ids.
    const std::vector<api_status_t>& statuses() const { return _statuses; }

private:
    void write(CCdsHandle& cds);

    bool _write;
    unsigned* _queued = nullptr;
    std::vector<toolkit::leaf_id_t> _ids;
    std::vector<toolkit::CElement> _values;
    std::vector<toolkit::CLeafValue> _read;
    std::vector<api_status_t> _statuses;
};
