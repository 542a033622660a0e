#include "cds/event_queue.h"

#include "util/error.h"
#include "util/log.h"

#include <cassert>
#include <map>
#include <vector>

namespace {

const unsigned int k_first_page = 64;
// One request never asks for more records than this.
const unsigned int k_max_page = 8192;

bool same_time(const timeval& a, const timeval& b) {
    return a.tv_sec == b.tv_sec && a.tv_usec == b.tv_usec;
}

// Closes the log on every way out.
struct CLogCloser {
    toolkit::CLog& log;
    ~CLogCloser() { toolkit::kvr_log_close(log.release()); }
};

} // namespace

CEventQueue::CEventQueue(unsigned int length, const tk_string& log_path) : _queue(length) {
    read_historical_events(log_path);
}

const toolkit::CEvent& CEventQueue::get(size_t index) const {
    static const toolkit::CEvent empty{};
    return index < _queue.size() ? _queue[index] : empty;
}

void CEventQueue::add(const toolkit::CEvent& event) {
    if (_queue.empty() || (event.kind != 4 && event.kind != 8))
        return;
    for (toolkit::CEvent& slot : _queue) {
        if (slot.kind != 0 && slot.id == event.id) {
            slot.time = event.time;
            if (!event.attachments.empty())
                slot.attachments = event.attachments;
            return;
        }
    }
    _queue.pop_back();
    _queue.push_front(event);
}

void CEventQueue::read_historical_events(const tk_string& log_path) {
    LOG_STACK();
    if (log_path.empty()) {
        LOG_INFO(SS_DEFAULT, 2, "Skipping read of historical events from log");
        return;
    }
    toolkit::CLog log;
    if (log.init(log_path, 0, true, false, true, true, 0, 0, 0, false) != 0)
        throw CError("Couldn't open event log at '" + log_path + "'...", SS_DEFAULT, 1,
                     CError::severity_t::warning);
    CLogCloser closer{log};

    const size_t length = _queue.size();
    std::map<uint64_t, toolkit::CEvent> ev_map; // events not complete yet, by id
    size_t accepted = 0;
    unsigned int count = k_first_page;
    timeval end{0, 0};
    bool have_end = false;
    std::vector<toolkit::CEvent> batch;

    for (;;) {
        batch.clear();
        if (log.retrieve(batch, tk_string(), nullptr, have_end ? &end : nullptr, count, true, false,
                         0) != 0)
            throw CError("Failed to retrieve data from event log located at '" + log_path + "'...",
                         SS_DEFAULT, 1, CError::severity_t::warning);
        const bool full = batch.size() == count;
        if (full && same_time(batch.front().time, batch.back().time)) {
            // A whole page at one instant cannot be split by time: ask for more, and past
            // the limit skip that instant.
            if (count * 2 < k_max_page + 1) {
                count *= 2;
                continue;
            }
            end = batch.front().time;
            if (end.tv_usec == 0) {
                --end.tv_sec;
                end.tv_usec = 999999;
            } else {
                --end.tv_usec;
            }
            have_end = true;
            count = k_first_page;
            continue;
        }
        if (batch.empty())
            break;

        const timeval oldest = batch.front().time;
        for (auto rec = batch.rbegin(); rec != batch.rend() && accepted < length; ++rec) {
            // The records of the oldest instant come again at the top of the next page.
            if (full && same_time(rec->time, oldest))
                break;
            ev_map.insert(std::make_pair(rec->id, *rec));
            auto imap = ev_map.find(rec->id);
            assert(imap != ev_map.end());
            toolkit::CEvent& kept = imap->second;
            if (rec->completion < kept.completion) {
                kept.completion = rec->completion;
                if (kept.attachments.empty())
                    kept.attachments = rec->attachments;
            }
            if (kept.completion == 0) {
                _queue.pop_front();
                _queue.push_back(kept);
                ev_map.erase(imap);
                ++accepted;
            }
        }
        if (accepted >= length || !full)
            break;
        end = oldest;
        have_end = true;
        count = k_first_page;
    }

    for (size_t i = accepted; i < length; ++i) {
        _queue.pop_front();
        _queue.push_back(toolkit::CEvent());
    }
}
