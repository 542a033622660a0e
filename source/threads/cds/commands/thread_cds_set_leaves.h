#pragma once
// Writes a batch of leaves by path on the CDS thread, for the server's own reports (the
// statistics), which must never hold up a request. Leaves the store lacks are not created:
// their statuses say so.
#include "cds/cds_leaf.h"
#include "threads/commands/thread_command.h"

#include <unordered_set>

class CThreadCdsSetLeaves : public CThreadCommand {
public:
    CThreadCdsSetLeaves(const std::weak_ptr<CThreadResponseHandler>& requester,
                        std::unordered_set<CCdsLeaf> leaves);
    void execute(CThreadBase* thread) override;

    // After execute: the leaves with their statuses (failed() when the store failed).
    const std::unordered_set<CCdsLeaf>& leaves() const { return _leaves; }

private:
    std::unordered_set<CCdsLeaf> _leaves;
};
