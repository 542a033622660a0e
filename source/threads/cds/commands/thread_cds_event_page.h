#pragma once
// Reads the newest events of the event log on the CDS thread, so that the I/O thread, which
// serves the event registers, never waits for the log.
#include "threads/commands/thread_command.h"

#include "cds/event_queue.h"
#include "toolkit/tk_string.h"

#include <memory>

class CThreadCdsEventPage : public CThreadCommand {
public:
    // length: the slots of the queue; log_path: the event log.
    CThreadCdsEventPage(const std::weak_ptr<CThreadResponseHandler>& requester, unsigned length,
                        const tk_string& log_path);
    void execute(CThreadBase* thread) override;

    // After execute: the events read; null when the log could not be read (logged).
    std::unique_ptr<CEventQueue>& queue() { return _queue; }

private:
    unsigned _length;
    tk_string _log_path;
    std::unique_ptr<CEventQueue> _queue;
};
