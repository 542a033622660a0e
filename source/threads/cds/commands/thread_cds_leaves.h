#pragma once
// Batched reads and writes of store leaves, executed on the CDS thread. The leaf set is
// owned by the command and filled in place; a command whose requester went away makes no
// store call.
#include "cds/cds_leaf.h"
#include "threads/commands/thread_command.h"

#include <unordered_set>

class CThreadCdsLeaves : public CThreadCommand {
public:
    CThreadCdsLeaves(const std::weak_ptr<CThreadResponseHandler>& requester,
                     std::unordered_set<CCdsLeaf>&& leaves, const tk_string& prefix)
        : CThreadCommand(requester), _leaves(std::move(leaves)), _prefix(prefix) {}

    std::unordered_set<CCdsLeaf>& leaves() { return _leaves; }
    const tk_string& prefix() const { return _prefix; }

protected:
    std::unordered_set<CCdsLeaf> _leaves;
    tk_string _prefix;
};

class CThreadCdsGetLeaves : public CThreadCdsLeaves {
public:
    using CThreadCdsLeaves::CThreadCdsLeaves;
    void execute(CThreadBase* thread) override;
    void post(CThreadResponseHandler& handler, bool timed_out) override;
};

class CThreadCdsSetLeaves : public CThreadCdsLeaves {
public:
    using CThreadCdsLeaves::CThreadCdsLeaves;
    void execute(CThreadBase* thread) override;
    void post(CThreadResponseHandler& handler, bool timed_out) override;
};
