#pragma once
// One Modbus request on its way through the function table (CModbusFunction): what plan
// asks the store for, what the store answered, what a write stores, and the scratch the
// steps share. A connection keeps one and reuses it, so that after the first requests the
// vectors have the capacity they need and a request allocates nothing.
//
// The caller's part: set pdu, unit and zero_fill; after plan, point values[i] at the store's
// answer for reads[i]; after write, fill write_statuses (one per write_ids entry).
#include "modbus/core/unit_counters.h"
#include "modbus/core/unit_map.h"
#include "modbus/modbus_types.h"
#include "modbus/protocol/modbus_pdu.h"

#include "toolkit/kvr.h"
#include "toolkit/leaf_table.h"

#include "cds/event_queue.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

class CParamMapping;

class CModbusRequest {
public:
    // A mapping in the order the overlap rules take them: by mapping id, then walk order.
    struct ranked_t {
        size_t id;
        size_t seq;
        regaddr_t first; // the mapping's addresses
        regaddr_t last;
        const void* entry;              // resolved_register_t or resolved_discrete_t
        const toolkit::CElement* value; // the value read
    };

    // Input.
    CModbusPdu* pdu = nullptr;
    const CUnitMap* unit = nullptr;
    // Unmapped or unreadable addresses read as 0 rather than failing the request.
    bool zero_fill = false;
    // The unit id or slave address the request came for.
    uint8_t unit_id = 0;
    // Multiple register writes may span several parameters (all written, or none).
    bool block_writes = false;
    // The newest events, for event mappings; none when null.
    const CEventQueue* events = nullptr;
    // The unit's counters (diagnostics may clear them and set its mode) and its
    // transport's; either may be null, when the functions that need them answer 0.
    CUnitCounters* counters = nullptr;
    const CTransportCounters* transport = nullptr;
    // The request came on a serial line (listen-only mode is for serial slaves only).
    bool serial = false;

    // Output of answer: send nothing back (the request is carried out all the same).
    bool silent = false;

    // plan -> store: the leaves to read; store -> write/answer: their values, in order.
    std::vector<toolkit::leaf_id_t> reads;
    std::vector<const toolkit::CLeafValue*> values;
    // write -> store: the leaves to write, their values and mappings (for messages);
    // store -> answer: the per-leaf statuses.
    std::vector<toolkit::leaf_id_t> write_ids;
    std::vector<toolkit::CElement> write_values;
    std::vector<const CParamMapping*> write_params;
    std::vector<api_status_t> write_statuses;

    // Between the steps of one function.
    uint16_t start = 0;
    uint16_t quantity = 0;
    size_t mapped = 0;          // mappings that touch the range
    regvec_t regs;              // registers written (write requests) or read (answers)
    std::vector<uint8_t> bits;  // one per address: a bit read or to write
    std::vector<uint8_t> marks; // one per address: filled or claimed
    regvec_t scratch;
    std::vector<ranked_t> ranked;

    void clear() {
        reads.clear();
        values.clear();
        write_ids.clear();
        write_values.clear();
        write_params.clear();
        write_statuses.clear();
        mapped = 0;
        silent = false;
    }
};
