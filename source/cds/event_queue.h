#pragma once
// The most recent completed events of the device's event log, newest in slot 0.
//
// The number of slots is fixed at construction; slots without an event hold an empty
// event (kind 0). Filled once from the historical log at construction (which throws CError,
// a warning at level 1, when the log cannot be read), then only read, except for add().
#include "toolkit/event_log.h"

#include <cstddef>
#include <deque>

class CEventQueue {
public:
    // An empty log_path leaves every slot empty.
    CEventQueue(unsigned int length, const tk_string& log_path);

    // The event in slot index; an empty event for an index beyond the slots.
    const toolkit::CEvent& get(size_t index) const;
    size_t size() const { return _queue.size(); }

    // A live event (kinds 4 and 8 only): updates the slot of the same id in place, else
    // becomes the newest event and the oldest drops out.
    void add(const toolkit::CEvent& event);

    void read_historical_events(const tk_string& log_path);

private:
    std::deque<toolkit::CEvent> _queue;
};
