#pragma once
// Puts the request counters into the store's statistics leaves, at most once a second and
// only when they changed: the I/O thread takes the numbers, the store worker writes them, so
// a request never waits for it. One write at a time.
//
// The leaves are the integrator's to define: the server creates none. After the first
// write only the leaves the store had are kept; with none at all the writer stops.
#include "cds/cds_leaf.h"
#include "io/periodic_actor.h"
#include "toolkit/tk_string.h"
#include "util/transport_counters.h"

#include <memory>
#include <unordered_set>
#include <utility>
#include <vector>

class CModbusConfig;
class CStoreWorker;
class CModbusSerialInterfaceSettings;
struct CUnitCounters;

class CStatisticsWriter : public CPeriodicActor {
public:
    // The node under which the leaves are.
    static const char* const root;
    // Leaves besides the configuration's (the gateway lines' slaves): paths under root, and
    // the counters they show.
    using leaves_t = std::vector<std::pair<tk_string, const uint32_t*>>;

    // Everything given must outlive the actor; serial_counters is indexed by interface
    // number, as interfaces are. rtu_over_tcp, udp: those transports' counters, null when
    // they are not served.
    static std::shared_ptr<CStatisticsWriter>
    create(CIoManager& manager, const CModbusConfig& config, const CTransportCounters& tcp,
           const std::vector<CTransportCounters>& serial_counters,
           const std::vector<CModbusSerialInterfaceSettings>& interfaces, CStoreWorker& worker,
           const CTransportCounters* rtu_over_tcp = nullptr,
           const CTransportCounters* udp = nullptr, const leaves_t& more = {});

    // The leaves for a configuration, as JSON that "cdsctl load" defines (unsigned, 0), with
    // those of RTU over TCP and UDP when they are served.
    static tk_string leaves_json(const CModbusConfig& config,
                                 const std::vector<CModbusSerialInterfaceSettings>& interfaces,
                                 bool rtu_over_tcp = false, bool udp = false,
                                 const leaves_t& more = {});

private:
    struct entry_t {
        tk_string path;
        const uint32_t* counter;
        uint32_t written;
    };

    typedef std::vector<entry_t> entries_t;

    CStatisticsWriter(CIoManager& manager, CStoreWorker& worker);
    void tick() override;
    // The worker has written leaves (ok false: the store failed).
    void written(bool ok, const std::unordered_set<CCdsLeaf>& leaves);
    // The leaves of a configuration, each with the counter it shows.
    static entries_t entries(const CModbusConfig& config, const CTransportCounters& tcp,
                             const std::vector<CTransportCounters>& serial_counters,
                             const std::vector<CModbusSerialInterfaceSettings>& interfaces,
                             const CTransportCounters* rtu_over_tcp, const CTransportCounters* udp,
                             const leaves_t& more);

    entries_t _entries;
    CStoreWorker& _worker;
    bool _pending = false;
    bool _first = true;
};
