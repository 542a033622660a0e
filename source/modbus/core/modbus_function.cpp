#include "modbus/core/modbus_function.h"

#include "util/build_info.h"
#include "util/generic_err.h"
#include "util/log.h"

#include <algorithm>
#include <cassert>

namespace {

using toolkit::CElement;
using toolkit::CLeafValue;
typedef CModbusRequest::ranked_t ranked_t;

// The largest quantities: reads of bits and registers, writes of bits and registers.
const unsigned max_read_bits = 2000;
const unsigned max_read_registers = 125;
const unsigned max_write_bits = 1968;
const unsigned max_write_registers = 120;

uint16_t read_u16(const iobuf_t& data, size_t at) {
    return static_cast<uint16_t>(data[at] << 8 | data[at + 1]);
}

// Whether start + count - 1 stays within the address space (no wrap past 0xFFFF).
bool fits(uint16_t start, size_t count) {
    return count >= 1 && count <= 0x10000u - start;
}

// ---- The walk over a unit's mappings of one kind that touch the request's range
// [start, start + quantity - 1]: files in the unit's order, each in first-address order.
// Every step of a request walks the same way, so the i-th mapping of one walk is the i-th
// of the next.

template <class M> struct kind;
template <> struct kind<CParamRegisterMapping> {
    static const std::vector<CUnitMap::register_index_t>& of(const CUnitMap& u) {
        return u.registers();
    }
};
template <> struct kind<CParamDiscreteMapping> {
    static const std::vector<CUnitMap::discrete_index_t>& of(const CUnitMap& u) {
        return u.discretes();
    }
};

template <class M, class F> void walk(const CModbusRequest& req, F f) {
    const CAddressRange r(req.start, static_cast<regaddr_t>(req.start + req.quantity - 1));
    for (const auto& index : kind<M>::of(*req.unit)) {
        const std::pair<size_t, size_t> slice = index.slice(r);
        const CResolvedMapping<M>* items = index.items().data();
        for (size_t i = slice.first; i < slice.second; ++i)
            if (items[i].addr.second >= r.first)
                f(items[i]);
    }
}

// f(mapping, value) for every touching mapping whose value was read (with writable_only,
// that may also be written), in walk order; returns whether two of them share an address.
template <class M, class F> bool walk_readable(const CModbusRequest& req, bool writable_only, F f) {
    size_t seq = 0;
    bool any = false;
    bool overlap = false;
    regaddr_t last = 0;
    walk<M>(req, [&](const CResolvedMapping<M>& e) {
        const CLeafValue& v = *req.values[seq++];
        if (v.status != API_STATUS_OK || (writable_only && !e.cfg.writable()))
            return;
        // First addresses ascend within a file; a mapping starting at or before the end of
        // an earlier one overlaps it, or starts the next file.
        if (any && e.addr.first <= last)
            overlap = true;
        last = any ? std::max(last, e.addr.second) : e.addr.second;
        any = true;
        f(e, v.value);
    });
    return overlap;
}

// Plans the read of every touching mapping's value, then of the attributes not known yet.
// A range that touches no mapping is answered with exception 2.
template <class M> modbus_err_t plan_leaves(CModbusRequest& req) {
    size_t unknown = 0;
    walk<M>(req, [&](const CResolvedMapping<M>& e) {
        req.reads.push_back(e.value);
        unknown += !e.cfg.updated();
    });
    req.mapped = req.reads.size();
    if (req.mapped == 0) {
        LOG_DEBUG(SS_FUNCTION_CODES, 2, "No parameters in requested range");
        return MB_ILLEGAL_DATA_ADDRESS;
    }
    if (unknown == 0)
        return MB_NO_ERROR;
    walk<M>(req, [&](const CResolvedMapping<M>& e) {
        if (!e.cfg.updated()) {
            req.reads.push_back(e.writable);
            req.reads.push_back(e.units);
        }
    });
    return MB_NO_ERROR;
}

// Takes the attributes that plan_leaves asked for into the mappings.
template <class M> void update_attributes(CModbusRequest& req) {
    if (req.values.size() == req.mapped)
        return;
    size_t at = req.mapped;
    walk<M>(req, [&](const CResolvedMapping<M>& e) {
        if (e.cfg.updated())
            return;
        assert(at + 1 < req.values.size());
        e.cfg.update(*req.values[at], *req.values[at + 1]);
        at += 2;
    });
}

// Ranks the touching mappings whose value was read (with writable_only, that may also be
// written) for the overlap rules: the lower mapping id wins, then the earlier in the walk.
template <class M> void rank(CModbusRequest& req, bool writable_only) {
    req.ranked.clear();
    walk_readable<M>(req, writable_only, [&](const CResolvedMapping<M>& e, const CElement& v) {
        req.ranked.push_back({e.id, req.ranked.size(), e.addr.first, e.addr.second, &e, &v});
    });
    std::sort(req.ranked.begin(), req.ranked.end(), [](const ranked_t& a, const ranked_t& b) {
        return a.id != b.id ? a.id < b.id : a.seq < b.seq;
    });
}

const resolved_register_t& reg(const ranked_t& r) {
    return *static_cast<const resolved_register_t*>(r.entry);
}
const resolved_discrete_t& bit(const ranked_t& r) {
    return *static_cast<const resolved_discrete_t*>(r.entry);
}

// Claims the positions [from, to] of marks; true when one was still free.
bool claim(std::vector<uint8_t>& marks, size_t from, size_t to) {
    bool any = false;
    for (size_t i = from; i <= to; ++i) {
        any |= marks[i] == 0;
        marks[i] = 1;
    }
    return any;
}

// Adds a leaf to the write set; a leaf already in it keeps the value it had first.
void add_write(CModbusRequest& req, toolkit::leaf_id_t id, CElement&& value,
               const CParamMapping* param) {
    for (const toolkit::leaf_id_t known : req.write_ids)
        if (known == id)
            return;
    req.write_ids.push_back(id);
    req.write_values.push_back(std::move(value));
    req.write_params.push_back(param);
}

// ---- Reads: 1 and 2 (bits), 3 and 4 (registers).

modbus_err_t plan_read(CModbusRequest& req, unsigned max_quantity) {
    const iobuf_t& data = req.pdu->data;
    if (data.size() != 4)
        return MB_ILLEGAL_FUNCTION;
    req.start = read_u16(data, 0);
    req.quantity = read_u16(data, 2);
    if (req.quantity > 0x10000u - req.start)
        return MB_ILLEGAL_DATA_ADDRESS;
    if (req.quantity == 0 || req.quantity > max_quantity) {
        LOG_DEBUG(SS_FUNCTION_CODES, 2, "Invalid request length (%u)", req.quantity);
        return MB_ILLEGAL_DATA_VALUE;
    }
    return MB_NO_ERROR;
}

modbus_err_t plan_read_bits(CModbusRequest& req) {
    const modbus_err_t e = plan_read(req, max_read_bits);
    return e != MB_NO_ERROR ? e : plan_leaves<CParamDiscreteMapping>(req);
}

// Whether an event mapping of the unit touches the request's range.
bool events_in_range(const CModbusRequest& req) {
    if (req.events == nullptr)
        return false;
    const CAddressRange r(req.start, static_cast<regaddr_t>(req.start + req.quantity - 1));
    for (const CEdsMapping* file : req.unit->files()) {
        const auto range = file->get_event_mappings(r);
        if (range.first != range.second)
            return true;
    }
    return false;
}

modbus_err_t plan_read_registers(CModbusRequest& req) {
    modbus_err_t e = plan_read(req, max_read_registers);
    if (e != MB_NO_ERROR)
        return e;
    e = plan_leaves<CParamRegisterMapping>(req);
    // Registers that only events map need no leaf.
    if (e == MB_ILLEGAL_DATA_ADDRESS && req.mapped == 0 && events_in_range(req))
        return MB_NO_ERROR;
    return e;
}

modbus_err_t unmapped(const CModbusRequest& req, const char* what) {
    LOG_DEBUG(SS_MAPLIST, 4, "Unmapped or unreadable %s in [%u .. %u]", what, req.start,
              static_cast<unsigned>(req.start + req.quantity - 1));
    return MB_ILLEGAL_DATA_ADDRESS;
}

modbus_err_t answer_read_bits(CModbusRequest& req) {
    update_attributes<CParamDiscreteMapping>(req);
    const size_t n = req.quantity;
    const size_t nbytes = (n + 7) / 8;
    iobuf_t& out = req.pdu->data;
    out.assign(1 + nbytes, 0);
    out[0] = static_cast<uint8_t>(nbytes);
    size_t filled = 0;
    const auto set = [&](const resolved_discrete_t& e, const CElement& v) {
        const size_t i = e.addr.first - req.start;
        if (e.mapping->translate(v))
            out[1 + i / 8] |= static_cast<uint8_t>(1u << (i % 8));
    };
    // Without overlaps every readable mapping has its own address: the walk is the answer.
    const bool overlap = walk_readable<CParamDiscreteMapping>(
        req, false, [&](const resolved_discrete_t& e, const CElement& v) {
            set(e, v);
            ++filled;
        });
    if (overlap) {
        // Each address goes to the first mapping in rank.
        std::fill(out.begin() + 1, out.end(), 0);
        rank<CParamDiscreteMapping>(req, false);
        req.marks.assign(n, 0);
        filled = 0;
        for (const ranked_t& r : req.ranked) {
            if (!claim(req.marks, r.first - req.start, r.first - req.start))
                continue;
            ++filled;
            set(bit(r), *r.value);
        }
    }
    if (!req.zero_fill && filled < n)
        return unmapped(req, "discretes");
    return MB_NO_ERROR;
}

// Lays one mapping's registers over the answer (with claims, only where no earlier mapping
// did); returns how many positions it filled.
size_t lay_registers(CModbusRequest& req, const ranked_t& r, bool claims) {
    const resolved_register_t& e = reg(r);
    const size_t first = req.start;
    const size_t last = req.start + req.quantity - 1;
    if (!claims && r.first >= first && r.last <= last) {
        e.mapping->to_registers(*r.value, e.cfg, &req.regs[r.first - first]);
        return static_cast<size_t>(r.last - r.first) + 1;
    }
    req.scratch.resize(static_cast<size_t>(r.last - r.first) + 1);
    e.mapping->to_registers(*r.value, e.cfg, req.scratch.data());
    size_t filled = 0;
    for (size_t a = std::max<size_t>(r.first, first); a <= std::min<size_t>(r.last, last); ++a) {
        const size_t i = a - first;
        if (claims && req.marks[i])
            continue;
        if (claims)
            req.marks[i] = 1;
        req.regs[i] = req.scratch[a - r.first];
        ++filled;
    }
    return filled;
}

// Lays the event mappings' registers where no parameter did (req.marks); returns how many
// positions they filled. Files in the unit's order, each in address order.
size_t lay_events(CModbusRequest& req) {
    const size_t first = req.start;
    const size_t last = req.start + req.quantity - 1;
    const CAddressRange r(req.start, static_cast<regaddr_t>(last));
    size_t filled = 0;
    for (const CEdsMapping* file : req.unit->files()) {
        const auto range = file->get_event_mappings(r);
        for (auto it = range.first; it != range.second; ++it) {
            const CEventMapping& event = *it->second;
            if (event.index() >= req.events->size())
                continue;
            const size_t from = it->first.first;
            req.scratch.resize(event.reg_count());
            event.to_registers(*req.events, req.scratch.data());
            for (size_t a = std::max(from, first);
                 a <= std::min<size_t>(from + req.scratch.size() - 1, last); ++a) {
                const size_t i = a - first;
                if (req.marks[i])
                    continue;
                req.marks[i] = 1;
                req.regs[i] = req.scratch[a - from];
                ++filled;
            }
        }
    }
    return filled;
}

// The registers of the range into req.regs, from the values read; event mappings fill what
// no parameter does.
modbus_err_t fill_registers(CModbusRequest& req) {
    update_attributes<CParamRegisterMapping>(req);
    const size_t n = req.quantity;
    req.regs.assign(n, 0);
    size_t filled = 0;
    const bool events = events_in_range(req);
    try {
        // Without overlaps (or events) each mapping lays its registers where they belong.
        req.ranked.clear();
        bool overlap = walk_readable<CParamRegisterMapping>(
            req, false, [&](const resolved_register_t& e, const CElement& v) {
                const ranked_t r{e.id, 0, e.addr.first, e.addr.second, &e, &v};
                filled += lay_registers(req, r, false);
            });
        if (overlap || events) {
            // Each register goes to the first mapping in rank that covers it.
            rank<CParamRegisterMapping>(req, false);
            req.regs.assign(n, 0);
            req.marks.assign(n, 0);
            filled = 0;
            for (const ranked_t& r : req.ranked)
                filled += lay_registers(req, r, true);
            if (events)
                filled += lay_events(req);
        }
    } catch (const generic_err&) {
        return MB_ILLEGAL_DATA_ADDRESS;
    }
    if (!req.zero_fill && filled < n)
        return unmapped(req, "registers");
    return MB_NO_ERROR;
}

modbus_err_t answer_read_registers(CModbusRequest& req) {
    const modbus_err_t e = fill_registers(req);
    if (e != MB_NO_ERROR)
        return e;
    const size_t n = req.quantity;
    iobuf_t& out = req.pdu->data;
    out.resize(1 + 2 * n);
    out[0] = static_cast<uint8_t>(2 * n);
    for (size_t i = 0; i < n; ++i) {
        out[1 + 2 * i] = static_cast<uint8_t>(req.regs[i] >> 8);
        out[2 + 2 * i] = static_cast<uint8_t>(req.regs[i]);
    }
    return MB_NO_ERROR;
}

// ---- Writes: 5 and 15 (bits), 6 and 16 (registers).

// The header of a multiple write: start, quantity and byte count, checked against the data
// that follows.
bool read_multiple_header(CModbusRequest& req, size_t bytes_per_quantity_x8, unsigned max) {
    const iobuf_t& data = req.pdu->data;
    if (data.size() < 5)
        return false;
    req.start = read_u16(data, 0);
    req.quantity = read_u16(data, 2);
    const size_t count = data[4];
    const size_t expected = (req.quantity * bytes_per_quantity_x8 + 7) / 8;
    return req.quantity >= 1 && req.quantity <= max && count == expected &&
           data.size() - 5 == count;
}

modbus_err_t plan_write_bits(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    req.bits.clear();
    if (req.pdu->function == 0x05) {
        if (data.size() != 4)
            return MB_ILLEGAL_DATA_VALUE;
        req.start = read_u16(data, 0);
        const uint16_t value = read_u16(data, 2);
        if (value != 0x0000 && value != 0xFF00)
            return MB_ILLEGAL_DATA_VALUE;
        req.quantity = 1;
        req.bits.push_back(value != 0);
    } else {
        if (!read_multiple_header(req, 1, max_write_bits))
            return MB_ILLEGAL_DATA_VALUE;
        for (size_t i = 0; i < req.quantity; ++i)
            req.bits.push_back((data[5 + i / 8] >> (i % 8)) & 1);
    }
    // A range running past the last address would wrap; refuse it.
    if (!fits(req.start, req.quantity))
        return MB_ILLEGAL_DATA_ADDRESS;
    return plan_leaves<CParamDiscreteMapping>(req);
}

modbus_err_t write_bits(CModbusRequest& req) {
    update_attributes<CParamDiscreteMapping>(req);
    rank<CParamDiscreteMapping>(req, true);
    req.marks.assign(req.quantity, 0);
    for (const ranked_t& r : req.ranked) {
        const size_t i = r.first - req.start;
        if (!claim(req.marks, i, i))
            continue;
        const CParamDiscreteMapping& m = *bit(r).mapping;
        add_write(req, bit(r).value, m.translate(req.bits[i] != 0), &m);
    }
    if (req.write_ids.empty()) {
        LOG_DEBUG(SS_FUNCTION_CODES, 2, "Address range doesn't map into any leaves");
        return MB_ILLEGAL_DATA_ADDRESS;
    }
    return MB_NO_ERROR;
}

modbus_err_t plan_write_registers(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    req.regs.clear();
    if (req.pdu->function == 0x06) {
        if (data.size() != 4)
            return MB_ILLEGAL_DATA_VALUE;
        req.start = read_u16(data, 0);
        req.quantity = 1;
        req.regs.push_back(read_u16(data, 2));
    } else {
        if (!read_multiple_header(req, 16, max_write_registers))
            return MB_ILLEGAL_DATA_VALUE;
        for (size_t i = 0; i < req.quantity; ++i)
            req.regs.push_back(read_u16(data, 5 + 2 * i));
    }
    if (!fits(req.start, req.quantity))
        return MB_ILLEGAL_DATA_ADDRESS;
    return plan_leaves<CParamRegisterMapping>(req);
}

// The register count a write must cover: the size of the last (in walk order) writable
// mapping whose value was read. The written registers are padded with zeros to it, so that
// a single register can write a parameter of several; 0 when there is none or when that
// many registers would pass address 0xFFFF.
size_t covered_registers(const CModbusRequest& req) {
    size_t last = 0;
    size_t seq = 0;
    walk<CParamRegisterMapping>(req, [&](const resolved_register_t& e) {
        if (req.values[seq++]->status == API_STATUS_OK && e.cfg.writable())
            last = e.addr.size();
    });
    if (last != 0 && req.start + last - 1 > 0xFFFFu) {
        LOG_DEBUG(SS_MAPLIST, 4, "%zu registers from %u pass the last address", last, req.start);
        return 0;
    }
    return last;
}

// Adds the write of a ranked parameter from its registers in req.regs. A leaf the store
// keeps as a float gets the exact quotient of a scaled integer. Throws generic_err when the
// translator refuses the registers.
void add_register_write(CModbusRequest& req, const ranked_t& r) {
    const resolved_register_t& e = reg(r);
    add_write(req, e.value,
              e.mapping->from_registers(&req.regs[r.first - req.start], e.cfg, r.value->is_float()),
              e.mapping);
}

// With block writes: every parameter in the range is written, and every register of the
// range must belong to one that is writable and wholly inside it; otherwise nothing is.
modbus_err_t write_register_block(CModbusRequest& req) {
    rank<CParamRegisterMapping>(req, true);
    req.marks.assign(req.quantity, 0);
    const size_t last = req.start + req.quantity - 1u;
    try {
        for (const ranked_t& r : req.ranked) {
            const size_t from = std::max<size_t>(r.first, req.start);
            const size_t to = std::min<size_t>(r.last, last);
            if (!claim(req.marks, from - req.start, to - req.start))
                continue;
            if (r.first < req.start || r.last > last) {
                LOG_DEBUG(SS_FUNCTION_CODES, 2, "Parameter at %u..%u straddles the block",
                          static_cast<unsigned>(r.first), static_cast<unsigned>(r.last));
                return MB_ILLEGAL_DATA_ADDRESS;
            }
            add_register_write(req, r);
        }
    } catch (const generic_err&) {
        return MB_ILLEGAL_DATA_ADDRESS;
    }
    for (const uint8_t m : req.marks) {
        if (m == 0) {
            LOG_DEBUG(SS_FUNCTION_CODES, 2, "The block holds an unmapped or read-only register");
            return MB_ILLEGAL_DATA_ADDRESS;
        }
    }
    return MB_NO_ERROR;
}

modbus_err_t write_registers(CModbusRequest& req) {
    update_attributes<CParamRegisterMapping>(req);
    if (req.block_writes && req.pdu->function != 0x06 && req.pdu->function != 0x16)
        return write_register_block(req);
    const size_t covered = covered_registers(req);
    if (covered < req.regs.size()) {
        LOG_DEBUG(SS_FUNCTION_CODES, 2, "The writable parameters cover %zu of %zu registers",
                  covered, req.regs.size());
        return MB_ILLEGAL_DATA_ADDRESS;
    }
    req.regs.resize(covered, 0);
    rank<CParamRegisterMapping>(req, true);
    req.marks.assign(covered, 0);
    const size_t last = req.start + covered - 1;
    try {
        for (const ranked_t& r : req.ranked) {
            // A parameter that straddles an edge of the written registers is not written.
            if (r.first < req.start || r.last > last)
                continue;
            if (!claim(req.marks, r.first - req.start, r.last - req.start))
                continue;
            add_register_write(req, r);
        }
    } catch (const generic_err&) {
        return MB_ILLEGAL_DATA_ADDRESS;
    }
    return req.write_ids.empty() ? MB_ILLEGAL_DATA_ADDRESS : MB_NO_ERROR;
}

// The store may refuse single leaves of a batch it accepted (a read-only store, a value its
// leaf's type cannot take): the master must not be told they were written.
modbus_err_t check_written(const CModbusRequest& req) {
    assert(req.write_statuses.size() == req.write_ids.size());
    for (size_t i = 0; i < req.write_statuses.size(); ++i) {
        if (req.write_statuses[i] != API_STATUS_OK) {
            LOG_WARN(SS_FUNCTION_CODES, 1, "The store refused '%s' (status %d)",
                     req.write_params[i]->path().c_str(), static_cast<int>(req.write_statuses[i]));
            return MB_SLAVE_DEVICE_FAILURE;
        }
    }
    return MB_NO_ERROR;
}

// A write has been stored: single writes and mask writes echo the request, multiple writes
// keep start and quantity.
modbus_err_t answer_write(CModbusRequest& req) {
    const modbus_err_t e = check_written(req);
    if (e != MB_NO_ERROR)
        return e;
    if (req.pdu->function == 0x0F || req.pdu->function == 0x10)
        req.pdu->data.resize(4);
    return MB_NO_ERROR;
}

// ---- 22: mask write of one register: its present value, AND and OR masks, then the path
// of function 6 (the same checks, padding and one transaction).

modbus_err_t plan_mask_write(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    if (data.size() != 6)
        return MB_ILLEGAL_DATA_VALUE;
    req.start = read_u16(data, 0);
    req.quantity = 1;
    return plan_leaves<CParamRegisterMapping>(req);
}

modbus_err_t mask_write(CModbusRequest& req) {
    const modbus_err_t e = fill_registers(req);
    if (e != MB_NO_ERROR)
        return e;
    const uint16_t and_mask = read_u16(req.pdu->data, 2);
    const uint16_t or_mask = read_u16(req.pdu->data, 4);
    const mbreg_t present = req.regs[0];
    req.regs.assign(1, static_cast<mbreg_t>((present & and_mask) | (or_mask & ~and_mask)));
    return write_registers(req);
}

// ---- 23: read/write multiple registers. The write goes first, as function 16 would make
// it; the read answers with what the store holds after it.

const unsigned max_read_write_registers = 121;

modbus_err_t plan_read_write(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    if (data.size() < 9)
        return MB_ILLEGAL_DATA_VALUE;
    const uint16_t read_start = read_u16(data, 0);
    const uint16_t read_quantity = read_u16(data, 2);
    req.start = read_u16(data, 4);
    req.quantity = read_u16(data, 6);
    const size_t count = data[8];
    if (read_quantity < 1 || read_quantity > max_read_registers || req.quantity < 1 ||
        req.quantity > max_read_write_registers || count != 2u * req.quantity ||
        data.size() - 9 != count)
        return MB_ILLEGAL_DATA_VALUE;
    if (!fits(read_start, read_quantity) || !fits(req.start, req.quantity))
        return MB_ILLEGAL_DATA_ADDRESS;
    // A read range that touches no parameter fails before anything is written.
    CModbusRequest probe;
    probe.unit = req.unit;
    probe.start = read_start;
    probe.quantity = read_quantity;
    size_t touched = 0;
    walk<CParamRegisterMapping>(probe, [&](const resolved_register_t&) { ++touched; });
    if (touched == 0 && !req.zero_fill)
        return MB_ILLEGAL_DATA_ADDRESS;
    req.regs.clear();
    for (size_t i = 0; i < req.quantity; ++i)
        req.regs.push_back(read_u16(data, 9 + 2 * i));
    return plan_leaves<CParamRegisterMapping>(req);
}

modbus_err_t reread_registers(CModbusRequest& req) {
    const modbus_err_t e = check_written(req);
    if (e != MB_NO_ERROR)
        return e;
    req.start = read_u16(req.pdu->data, 0);
    req.quantity = read_u16(req.pdu->data, 2);
    req.reads.clear();
    req.values.clear();
    req.mapped = 0;
    return plan_leaves<CParamRegisterMapping>(req);
}

// ---- 17 (report server id) and 43/14 (read device identification): the unit's
// identification leaves, each read as text; a leaf the store lacks reads as its default.

modbus_err_t plan_identity(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    if (req.pdu->function == 0x11) {
        if (!data.empty())
            return MB_ILLEGAL_DATA_VALUE;
    } else {
        // Only the device identification interface of MEI, whatever follows another type.
        if (!data.empty() && data[0] != 0x0E)
            return MB_ILLEGAL_FUNCTION;
        if (data.size() != 3)
            return MB_ILLEGAL_DATA_VALUE;
        const uint8_t code = data[1];
        if (code < 1 || code > 4)
            return MB_ILLEGAL_DATA_VALUE;
        if (code == 4 && data[2] > CUnitMap::ID_APPLICATION_NAME)
            return MB_ILLEGAL_DATA_ADDRESS;
    }
    const std::vector<toolkit::leaf_id_t>& ids = req.unit->identity();
    req.reads.assign(ids.begin(), ids.end());
    return MB_NO_ERROR;
}

// The identification leaf as text. When the store lacks it, the three objects every device
// must report (vendor, product code, revision) are the program's own; the others are empty.
tk_string identity_text(const CModbusRequest& req, CUnitMap::identity_t which) {
    const CLeafValue& v = *req.values[which];
    if (v.status == API_STATUS_OK)
        return v.value.str();
    switch (which) {
    case CUnitMap::ID_VENDOR_NAME:
        return MB_VENDOR_NAME;
    case CUnitMap::ID_PRODUCT_CODE:
        return MB_PRODUCT_CODE;
    case CUnitMap::ID_REVISION:
        return MB_VERSION;
    default:
        return tk_string();
    }
}

modbus_err_t answer_report_server_id(CModbusRequest& req) {
    const CLeafValue& id = *req.values[CUnitMap::ID_SERVER_ID];
    const CLeafValue& run = *req.values[CUnitMap::ID_RUN_INDICATOR];
    tk_string text = identity_text(req, CUnitMap::ID_DESCRIPTION);
    if (text.empty())
        text = identity_text(req, CUnitMap::ID_PRODUCT_NAME);
    if (text.empty())
        text = MB_PRODUCT_NAME " " MB_VERSION;
    // The byte count is one byte and the PDU at most 253: the text fits in 249.
    text.resize(std::min<size_t>(text.size(), 249));
    iobuf_t& out = req.pdu->data;
    out.clear();
    out.push_back(static_cast<uint8_t>(2 + text.size()));
    out.push_back(id.status == API_STATUS_OK ? static_cast<uint8_t>(id.value.to_uint())
                                             : req.unit_id);
    out.push_back(run.status != API_STATUS_OK || run.value.to_bool() ? 0xFF : 0x00);
    out.insert(out.end(), text.begin(), text.end());
    return MB_NO_ERROR;
}

modbus_err_t answer_device_id(CModbusRequest& req) {
    const uint8_t code = req.pdu->data[1];
    uint8_t first = req.pdu->data[2];
    uint8_t last = code == 1 ? CUnitMap::ID_REVISION : CUnitMap::ID_APPLICATION_NAME;
    if (code == 4)
        last = first;
    else if (first > last)
        first = 0; // an object the stream does not have: from the start
    iobuf_t& out = req.pdu->data;
    // MEI type, code, conformity (regular objects, streams and single ones), more follows,
    // next object, count.
    out.assign({0x0E, code, 0x82, 0x00, 0x00, 0x00});
    // A PDU carries at most 253 bytes, the function code one of them.
    const size_t room = 252;
    for (unsigned object = first; object <= last; ++object) {
        tk_string text = identity_text(req, static_cast<CUnitMap::identity_t>(object));
        const size_t free = room - out.size() - 2;
        if (text.size() > free) {
            if (code == 4 || object == first) {
                text.resize(free); // one object alone is cut to fit
            } else {
                out[3] = 0xFF; // more follows, from this object
                out[4] = static_cast<uint8_t>(object);
                break;
            }
        }
        out.push_back(static_cast<uint8_t>(object));
        out.push_back(static_cast<uint8_t>(text.size()));
        out.insert(out.end(), text.begin(), text.end());
        ++out[5];
    }
    return MB_NO_ERROR;
}

// ---- 8 (diagnostics) and 11 (communication event counter): the unit's counters, read and
// cleared; nothing of the store. The counters answer 16 bits of their 32.

enum diagnostic_t : uint16_t {
    DIAG_RETURN_QUERY = 0x00,
    DIAG_RESTART = 0x01,
    DIAG_LISTEN_ONLY = 0x04,
    DIAG_CLEAR = 0x0A,
    DIAG_BUS_MESSAGES = 0x0B,
    DIAG_BUS_ERRORS = 0x0C,
    DIAG_BUS_EXCEPTIONS = 0x0D,
    DIAG_SERVER_MESSAGES = 0x0E,
    DIAG_NO_RESPONSE = 0x0F,
    DIAG_NAK = 0x10,
    DIAG_BUSY = 0x11,
    DIAG_OVERRUNS = 0x12,
};

modbus_err_t plan_diagnostics(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    if (data.size() < 4)
        return MB_ILLEGAL_DATA_VALUE;
    const uint16_t sub = read_u16(data, 0);
    if (sub == DIAG_RETURN_QUERY)
        return MB_NO_ERROR; // any data, echoed
    const bool known = sub == DIAG_RESTART || sub == DIAG_CLEAR ||
                       (sub == DIAG_LISTEN_ONLY && req.serial) ||
                       (sub >= DIAG_BUS_MESSAGES && sub <= DIAG_OVERRUNS);
    if (!known)
        return MB_ILLEGAL_FUNCTION;
    if (data.size() != 4)
        return MB_ILLEGAL_DATA_VALUE;
    const uint16_t value = read_u16(data, 2);
    // A restart may ask to clear the event log too (0xFF00); everything else carries 0.
    if (value != 0 && !(sub == DIAG_RESTART && value == 0xFF00))
        return MB_ILLEGAL_DATA_VALUE;
    return MB_NO_ERROR;
}

uint32_t diagnostic_count(const CModbusRequest& req, uint16_t sub) {
    const CUnitCounters& c = *req.counters;
    const CTransportCounters* t = req.transport;
    switch (sub) {
    case DIAG_BUS_MESSAGES:
        return t != nullptr ? t->messages - c.base.messages : 0;
    case DIAG_BUS_ERRORS:
        return t != nullptr ? t->checksum_errors - c.base.checksum_errors : 0;
    case DIAG_BUS_EXCEPTIONS:
        return c.exceptions;
    case DIAG_SERVER_MESSAGES:
        return c.requests;
    case DIAG_NO_RESPONSE:
        return c.unanswered;
    case DIAG_NAK:
        return c.by_code[7];
    case DIAG_BUSY:
        return c.by_code[MB_SLAVE_DEVICE_BUSY];
    default:
        return 0; // character overruns: the line driver does not tell them
    }
}

modbus_err_t answer_diagnostics(CModbusRequest& req) {
    iobuf_t& data = req.pdu->data;
    const uint16_t sub = read_u16(data, 0);
    if (sub == DIAG_RETURN_QUERY)
        return MB_NO_ERROR;
    if (req.counters == nullptr) {
        data[2] = data[3] = 0;
        return MB_NO_ERROR;
    }
    CUnitCounters& c = *req.counters;
    switch (sub) {
    case DIAG_RESTART:
        // Out of listen-only mode, without an answer; otherwise answered, then restarted.
        req.silent = c.listen_only;
        c.listen_only = false;
        c.clear(req.transport);
        break;
    case DIAG_LISTEN_ONLY:
        c.listen_only = true;
        req.silent = true;
        break;
    case DIAG_CLEAR:
        c.clear(req.transport);
        break;
    default: {
        const uint32_t n = diagnostic_count(req, sub);
        data[2] = static_cast<uint8_t>(n >> 8);
        data[3] = static_cast<uint8_t>(n);
    }
    }
    return MB_NO_ERROR;
}

modbus_err_t plan_event_counter(CModbusRequest& req) {
    return req.pdu->data.empty() ? MB_NO_ERROR : MB_ILLEGAL_DATA_VALUE;
}

modbus_err_t answer_event_counter(CModbusRequest& req) {
    const uint32_t n = req.counters != nullptr ? req.counters->events : 0;
    // Status 0: no earlier request is still being carried out when this one is answered.
    req.pdu->data.assign({0x00, 0x00, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)});
    return MB_NO_ERROR;
}

const CModbusFunction functions[] = {
    {0x01, 4, 0, max_read_bits, plan_read_bits, nullptr, nullptr, answer_read_bits, true},
    {0x02, 4, 0, max_read_bits, plan_read_bits, nullptr, nullptr, answer_read_bits, true},
    {0x03, 4, 0, max_read_registers, plan_read_registers, nullptr, nullptr, answer_read_registers,
     true},
    {0x04, 4, 0, max_read_registers, plan_read_registers, nullptr, nullptr, answer_read_registers,
     true},
    {0x05, 4, 0, 1, plan_write_bits, write_bits, nullptr, answer_write, true},
    {0x06, 4, 0, 1, plan_write_registers, write_registers, nullptr, answer_write, true},
    {0x0F, 5, 5, max_write_bits, plan_write_bits, write_bits, nullptr, answer_write, true},
    {0x10, 5, 5, max_write_registers, plan_write_registers, write_registers, nullptr, answer_write,
     true},
    {0x16, 6, 0, 1, plan_mask_write, mask_write, nullptr, answer_write, true},
    {0x17, 9, 9, max_read_write_registers, plan_read_write, write_registers, reread_registers,
     answer_read_registers, true},
    {0x11, 0, 0, 0, plan_identity, nullptr, nullptr, answer_report_server_id, true},
    {0x2B, 3, 0, 0, plan_identity, nullptr, nullptr, answer_device_id, true},
    {0x08, 4, 0, 0, plan_diagnostics, nullptr, nullptr, answer_diagnostics, true},
    {0x0B, 0, 0, 0, plan_event_counter, nullptr, nullptr, answer_event_counter, false},
};

} // namespace

size_t CModbusFunction::request_length(const uint8_t* pdu, size_t n) const {
    if (count_at == 0)
        return 1u + min_data;
    return n <= count_at ? 0 : count_at + 1u + pdu[count_at];
}

bool CModbusFunction::complete(const CModbusPdu& pdu) const {
    const iobuf_t& data = pdu.data;
    if (data.size() < min_data)
        return false;
    // data starts after the function code.
    return count_at == 0 || data.size() >= count_at + data[count_at - 1u];
}

size_t CModbusFunction::rtu_length(const uint8_t* frame, size_t n) {
    assert(n >= 2);
    const CModbusFunction* f = find(frame[1]);
    if (f == nullptr)
        return no_frame;
    const size_t pdu = f->request_length(frame + 1, n - 1);
    return pdu == 0 ? 0 : 1 + pdu + 2;
}

bool CModbusFunction::is_restart(const CModbusPdu& pdu) {
    return pdu.function == 0x08 && pdu.data.size() >= 2 && read_u16(pdu.data, 0) == DIAG_RESTART;
}

const CModbusFunction* CModbusFunction::find(uint8_t code) {
    for (const CModbusFunction& f : functions)
        if (f.code == code)
            return &f;
    return nullptr;
}
