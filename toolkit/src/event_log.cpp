#include "toolkit/event_log.h"

#include "sqlite_db.h"
#include "store_file.h"
#include "toolkit/element.h"
#include "toolkit/kvr.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <sys/stat.h>

namespace toolkit {

struct kvr_log_connection {
    CSqliteDb db;
    CSqliteStatement select;
    CSqliteStatement insert;
    tk_string error;
};

namespace {

const char k_select[] =
    "SELECT id, kind, completion, attachments, sec, usec, source, value, url FROM events "
    "WHERE (sec, usec) BETWEEN (?1, ?2) AND (?3, ?4) "
    "AND (?5 = '' OR substr(source, 1, length(?5)) = ?5) "
    "ORDER BY sec DESC, usec DESC, seq DESC LIMIT ?6";

const char k_insert[] =
    "INSERT INTO events(id, kind, completion, attachments, sec, usec, source, value, url) "
    "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)";

void bind_optional(CSqliteStatement& s, int index, const boost::optional<tk_string>& text) {
    if (text)
        s.bind(index, *text);
    else
        s.bind_null(index);
}

void insert_event(kvr_log_connection& log, const CEvent& ev) {
    tk_string attachments;
    for (const tk_string& a : ev.attachments) {
        if (a.find('\n') != tk_string::npos)
            throw CSqliteError(SQLITE_MISUSE, "attachment name holds a newline: '" + a + "'");
        if (!attachments.empty())
            attachments += '\n';
        attachments += a;
    }
    CStatementScope scope(log.insert);
    log.insert.bind(1, static_cast<int64_t>(ev.id));
    log.insert.bind(2, static_cast<int64_t>(ev.kind));
    log.insert.bind(3, static_cast<int64_t>(ev.completion));
    log.insert.bind(4, attachments);
    log.insert.bind(5, static_cast<int64_t>(ev.time.tv_sec));
    log.insert.bind(6, static_cast<int64_t>(ev.time.tv_usec));
    bind_optional(log.insert, 7, ev.source);
    log.insert.bind(8, ev.value);
    bind_optional(log.insert, 9, ev.url);
    log.insert.step();
}

boost::optional<tk_string> optional_text(const CSqliteStatement& s, int col) {
    if (s.column_type(col) == SQLITE_NULL)
        return boost::none;
    return s.column_text(col);
}

} // namespace

CLog::~CLog() {
    kvr_log_close(_log);
}

int CLog::init(const tk_string& path, int, bool, bool, bool, bool, int, int, int, bool create) {
    kvr_log_close(_log);
    _log = kvr_log_init(path, create);
    if (!_log)
        return -1;
    assert(_log != nullptr);
    return 0;
}

kvr_log_handle_t CLog::release() {
    kvr_log_handle_t log = _log;
    _log = nullptr;
    return log;
}

tk_string CLog::error() const {
    return _log ? _log->error : tk_string(kvr_last_error());
}

int CLog::retrieve(std::vector<CEvent>& records, const tk_string& filter, const timeval* start,
                   const timeval* end, unsigned int count, bool, bool, int) {
    records.clear();
    if (!_log)
        return -1;
    try {
        CSqliteStatement& s = _log->select;
        CStatementScope scope(s);
        s.bind(1,
               start ? static_cast<int64_t>(start->tv_sec) : std::numeric_limits<int64_t>::min());
        s.bind(2, start ? static_cast<int64_t>(start->tv_usec) : int64_t(0));
        s.bind(3, end ? static_cast<int64_t>(end->tv_sec) : std::numeric_limits<int64_t>::max());
        s.bind(4, end ? static_cast<int64_t>(end->tv_usec) : std::numeric_limits<int64_t>::max());
        s.bind(5, filter);
        s.bind(6, static_cast<int64_t>(count));
        while (s.step()) {
            CEvent ev;
            ev.id = static_cast<uint64_t>(s.column_int(0));
            ev.kind = static_cast<uint32_t>(s.column_int(1));
            ev.completion = static_cast<uint32_t>(s.column_int(2));
            CElement::split_string(ev.attachments, s.column_text(3), '\n');
            ev.time.tv_sec = static_cast<time_t>(s.column_int(4));
            ev.time.tv_usec = static_cast<suseconds_t>(s.column_int(5));
            ev.source = optional_text(s, 6);
            ev.value = s.column_int(7);
            ev.url = optional_text(s, 8);
            records.push_back(std::move(ev));
        }
    } catch (const CSqliteError& e) {
        records.clear();
        _log->error = e.what();
        return e.code();
    }
    // Newest first from the query; callers want them oldest first.
    std::reverse(records.begin(), records.end());
    return 0;
}

int CLog::add(const CEvent& event) {
    return add(std::vector<CEvent>(1, event));
}

int CLog::add(const std::vector<CEvent>& events) {
    if (!_log)
        return -1;
    try {
        CSqliteTransaction txn(_log->db, true);
        for (const CEvent& ev : events)
            insert_event(*_log, ev);
        txn.commit();
        return 0;
    } catch (const CSqliteError& e) {
        _log->error = e.what();
        return e.code();
    }
}

kvr_log_handle_t kvr_log_init(const tk_string& path, bool create) {
    kvr_log_handle_t log = new kvr_log_connection;
    tk_string error;
    struct stat st;
    const bool ok = create && ::stat(path.c_str(), &st) != 0
                        ? create_store_file(log->db, path, error)
                        : open_store_file(log->db, path, error);
    if (ok) {
        try {
            log->select.prepare(log->db.get(), k_select);
            log->insert.prepare(log->db.get(), k_insert);
            return log;
        } catch (const CSqliteError& e) {
            error = "cannot use event log '" + path + "': " + e.what();
        }
    }
    delete log;
    set_last_error(error);
    return nullptr;
}

void kvr_log_close(kvr_log_handle_t handle) {
    delete handle;
}

} // namespace toolkit
