#pragma once
// Puts the request counters into the store's statistics leaves, at most once a second and
// only when they changed: the I/O thread takes the numbers, the CDS thread writes them, so
// a request never waits for it. One write at a time.
//
// The leaves are the integrator's to define: the server creates none. After the first
// write only the leaves the store had are kept; with none at all the writer stops.
#include "io/io_actor.h"
#include "io/timed_object.h"
#include "threads/commands/thread_command.h"
#include "threads/commands/thread_response_handler.h"
#include "toolkit/tk_string.h"
#include "util/transport_counters.h"

#include <functional>
#include <memory>
#include <vector>

class CIoTimer;
class CModbusConfig;
class CModbusSerialInterfaceSettings;
struct CUnitCounters;

class CStatisticsWriter : public CIoActor, public CTimedObject, public CThreadResponseHandler {
public:
    typedef std::function<void(cmd_ptr_t)> submit_t;
    // The node under which the leaves are.
    static const char* const root;

    // Everything given must outlive the actor; serial_counters is indexed by interface
    // number, as interfaces are; submit hands a command to the CDS thread.
    static std::shared_ptr<CStatisticsWriter>
    create(CIoManager& manager, const CModbusConfig& config, const CTransportCounters& tcp,
           const std::vector<CTransportCounters>& serial_counters,
           const std::vector<CModbusSerialInterfaceSettings>& interfaces, submit_t submit);

    // The leaves for a configuration, as JSON that "cdsctl load" defines (unsigned, 0).
    static tk_string leaves_json(const CModbusConfig& config,
                                 const std::vector<CModbusSerialInterfaceSettings>& interfaces);

    void timeout(const CIoTimer& timer) override;
    void post(CThreadCommand& cmd, bool timed_out) override;
    void close() override;

private:
    struct entry_t {
        tk_string path;
        const uint32_t* counter;
        uint32_t written;
    };

    typedef std::vector<entry_t> entries_t;

    CStatisticsWriter(CIoManager& manager, submit_t submit);
    // The leaves of a configuration, each with the counter it shows.
    static entries_t entries(const CModbusConfig& config, const CTransportCounters& tcp,
                             const std::vector<CTransportCounters>& serial_counters,
                             const std::vector<CModbusSerialInterfaceSettings>& interfaces);

    entries_t _entries;
    submit_t _submit;
    std::shared_ptr<CIoTimer> _timer;
    bool _pending = false;
    bool _first = true;
};
