#pragma once
// The device's historical event log, kept in a table of a SQLite file.
#include "toolkit/tk_string.h"

#include <boost/optional.hpp>
#include <sys/time.h>

#include <cstdint>
#include <vector>

namespace toolkit {

// One record of the event log. Several records may share one id (the life of one event).
struct CEvent {
    uint32_t kind = 0; // 0: no event
    uint64_t id = 0;
    uint32_t completion = 0; // reaches 0 when the event is complete
    std::vector<tk_string> attachments;
    timeval time{0, 0};
    boost::optional<tk_string> source; // store path of the parameter that raised it
    int64_t value = 0;
    boost::optional<tk_string> url;
};

struct kvr_log_connection;
typedef kvr_log_connection* kvr_log_handle_t;

// Opens the event log in the store file at path (with create, a missing file is created).
// Returns 0 on failure; kvr_last_error() then names the path and the reason.
kvr_log_handle_t kvr_log_init(const tk_string& path, bool create);
void kvr_log_close(kvr_log_handle_t handle);

class CLog {
public:
    CLog() = default;
    ~CLog(); // closes the log when still open
    CLog(const CLog&) = delete;
    CLog& operator=(const CLog&) = delete;

    // Opens the log at path; 0 on success. The remaining arguments are kept for the
    // library's other users and have no effect on reading.
    int init(const tk_string& path, int mode, bool a, bool b, bool c, bool d, int e, int f, int g,
             bool create);
    kvr_log_handle_t handle() const { return _log; }
    // Gives up the connection without closing it (the caller closes it with kvr_log_close).
    kvr_log_handle_t release();

    // Up to count records whose time lies in [start, end] (null: unbounded), the newest
    // ones, oldest first; filter, when not empty, selects records by source path prefix.
    int retrieve(std::vector<CEvent>& records, const tk_string& filter, const timeval* start,
                 const timeval* end, unsigned int count, bool a, bool b, int c);
    // Appends one record, or several in one transaction; 0 on success. Attachment names
    // cannot hold a newline.
    int add(const CEvent& event);
    int add(const std::vector<CEvent>& events);
    // Why the last failed call failed.
    tk_string error() const;

private:
    kvr_log_handle_t _log = nullptr;
};

} // namespace toolkit
