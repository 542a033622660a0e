#pragma once
// The worker that does every blocking data-store access, so that the I/O thread never
// waits for the store. Its commands reach the store through the shared CCdsHandle.
#include "threads/thread_base.h"

#include <memory>

class CCdsHandle;

class CCdsThread : public CThreadBase {
public:
    CCdsThread(const boost::optional<CRealtimePriority>& priority,
               const std::shared_ptr<CCdsHandle>& cds);
    ~CCdsThread() override;

    CCdsHandle& handle();

private:
    std::shared_ptr<CCdsHandle> _cds;
};
