// Reads and writes of registers and bits (1 to 6, 15, 16, 22, 23): the walk over a unit's
// mappings that touch a request's range, and the rules that pick between overlapping ones.
#include "modbus/core/function_steps.h"

#include "modbus/core/function_code.h"
#include "util/log.h"

#include <algorithm>
#include <cassert>

using steps::max_read_bits;
using steps::max_read_registers;
using steps::max_read_write_registers;
using steps::max_write_bits;
using steps::max_write_registers;
using steps::read_u16;
using toolkit::CElement;
using toolkit::CLeafValue;
typedef CModbusRequest::ranked_t ranked_t;

namespace {
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
// that may also be written), in walk order; returns whether two of them share an address,
// and how many there were in readable (when given). A loop of its own rather than a walk with a lambda: the overlap state stays in registers,
// where captured by reference every byte f stores into an answer could alias it and forced
// a reload per mapping (most of the cost of a 2000-coil read).
template <class M, class F>
bool walk_readable(const CModbusRequest& req, bool writable_only, F f, size_t* readable = nullptr) {
    const CAddressRange r(req.start, static_cast<regaddr_t>(req.start + req.quantity - 1));
    const CLeafValue* const* values = req.values.data();
    size_t seq = 0;
    size_t count = 0;
    bool any = false;
    bool overlap = false;
    regaddr_t last = 0;
    for (const auto& index : kind<M>::of(*req.unit)) {
        const std::pair<size_t, size_t> slice = index.slice(r);
        const CResolvedMapping<M>* items = index.items().data();
        for (size_t i = slice.first; i < slice.second; ++i) {
            const CResolvedMapping<M>& e = items[i];
            if (e.addr.second < r.first)
                continue;
            const CLeafValue& v = *values[seq++];
            if (v.status != API_STATUS_OK || (writable_only && !e.cfg.writable()))
                continue;
            // First addresses ascend within a file; a mapping starting at or before the end
            // of an earlier one overlaps it, or starts the next file.
            overlap |= any && e.addr.first <= last;
            last = any && last > e.addr.second ? last : e.addr.second;
            any = true;
            ++count;
            f(e, v.value);
        }
    }
    if (readable != nullptr)
        *readable = count;
    return overlap;
}

template <class M> modbus_err_t plan_leaves(CModbusRequest& req) {
    // Each file's slice is sized first and filled through a pointer: a push_back per
    // mapping stores the vector's end back into the request every time.
    const CAddressRange r(req.start, static_cast<regaddr_t>(req.start + req.quantity - 1));
    size_t unknown = 0;
    for (const auto& index : kind<M>::of(*req.unit)) {
        const std::pair<size_t, size_t> slice = index.slice(r);
        const CResolvedMapping<M>* items = index.items().data();
        const size_t at = req.reads.size();
        req.reads.resize(at + (slice.second - slice.first));
        toolkit::leaf_id_t* const first = req.reads.data() + at;
        toolkit::leaf_id_t* out = first;
        for (size_t i = slice.first; i < slice.second; ++i) {
            const CResolvedMapping<M>& e = items[i];
            if (e.addr.second < r.first)
                continue;
            *out++ = e.value;
            unknown += !e.cfg.updated();
        }
        req.reads.resize(at + static_cast<size_t>(out - first));
    }
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

} // namespace

modbus_err_t steps::plan_read_bits(CModbusRequest& req) {
    const modbus_err_t e = plan_read(req, max_read_bits);
    return e != MB_NO_ERROR ? e : plan_leaves<CParamDiscreteMapping>(req);
}

namespace {

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

} // namespace

modbus_err_t steps::plan_read_registers(CModbusRequest& req) {
    modbus_err_t e = plan_read(req, max_read_registers);
    if (e != MB_NO_ERROR)
        return e;
    e = plan_leaves<CParamRegisterMapping>(req);
    // Registers that only events map need no leaf.
    if (e == MB_ILLEGAL_DATA_ADDRESS && req.mapped == 0 && events_in_range(req))
        return MB_NO_ERROR;
    return e;
}

namespace {

modbus_err_t unmapped(const CModbusRequest& req, const char* what) {
    LOG_DEBUG(SS_MAPLIST, 4, "Unmapped or unreadable %s in [%u .. %u]", what, req.start,
              static_cast<unsigned>(req.start + req.quantity - 1));
    return MB_ILLEGAL_DATA_ADDRESS;
}

} // namespace

modbus_err_t steps::answer_read_bits(CModbusRequest& req) {
    update_attributes<CParamDiscreteMapping>(req);
    const size_t n = req.quantity;
    const size_t nbytes = (n + 7) / 8;
    iobuf_t& out = req.pdu->data;
    out.assign(1 + nbytes, 0);
    out[0] = static_cast<uint8_t>(nbytes);
    uint8_t* const bytes = out.data() + 1;
    const uint16_t start = req.start;
    const auto set = [bytes, start](const resolved_discrete_t& e, const CElement& v) {
        const size_t i = e.addr.first - start;
        const bool on = CParamDiscreteMapping::translate(v, e.negate);
        bytes[i / 8] |= static_cast<uint8_t>(static_cast<unsigned>(on) << (i % 8));
    };
    // Without overlaps every readable mapping has its own address: the walk is the answer.
    size_t filled = 0;
    const bool overlap = walk_readable<CParamDiscreteMapping>(req, false, set, &filled);
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

namespace {

// Lays one mapping's registers over the answer (with claims, only where no earlier mapping
// did), adding the positions it filled to filled; false when the value has no registers.
bool lay_registers(CModbusRequest& req, const ranked_t& r, bool claims, size_t& filled) {
    const resolved_register_t& e = reg(r);
    const size_t first = req.start;
    const size_t last = req.start + req.quantity - 1;
    if (!claims && r.first >= first && r.last <= last) {
        filled += static_cast<size_t>(r.last - r.first) + 1;
        return e.mapping->to_registers(*r.value, e.cfg, &req.regs[r.first - first]);
    }
    req.scratch.resize(static_cast<size_t>(r.last - r.first) + 1);
    if (!e.mapping->to_registers(*r.value, e.cfg, req.scratch.data()))
        return false;
    for (size_t a = std::max<size_t>(r.first, first); a <= std::min<size_t>(r.last, last); ++a) {
        const size_t i = a - first;
        if (claims && req.marks[i])
            continue;
        if (claims)
            req.marks[i] = 1;
        req.regs[i] = req.scratch[a - r.first];
        ++filled;
    }
    return true;
}

// Lays the event mappings' registers where no parameter did (req.marks); returns how many
// positions they filled (an event whose value has no registers fills none). Files in the
// unit's order, each in address order.
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
            if (!event.to_registers(*req.events, req.scratch.data()))
                continue;
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
    // Without overlaps (or events) each mapping lays its registers where they belong.
    bool laid = true;
    const bool overlap = walk_readable<CParamRegisterMapping>(
        req, false, [&](const resolved_register_t& e, const CElement& v) {
            const ranked_t r{e.id, 0, e.addr.first, e.addr.second, &e, &v};
            laid = lay_registers(req, r, false, filled) && laid;
        });
    if (overlap || events) {
        // Each register goes to the first mapping in rank that covers it.
        rank<CParamRegisterMapping>(req, false);
        req.regs.assign(n, 0);
        req.marks.assign(n, 0);
        filled = 0;
        laid = true;
        for (const ranked_t& r : req.ranked)
            laid = lay_registers(req, r, true, filled) && laid;
        if (events)
            filled += lay_events(req);
    }
    // A value without registers (a time without a calendar date) cannot be answered.
    if (!laid)
        return MB_ILLEGAL_DATA_ADDRESS;
    if (!req.zero_fill && filled < n)
        return unmapped(req, "registers");
    return MB_NO_ERROR;
}

} // namespace

modbus_err_t steps::answer_read_registers(CModbusRequest& req) {
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

namespace {

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

} // namespace

modbus_err_t steps::plan_write_bits(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    req.bits.clear();
    if (req.pdu->function == FC_WRITE_SINGLE_COIL) {
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

modbus_err_t steps::write_bits(CModbusRequest& req) {
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

modbus_err_t steps::plan_write_registers(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    req.regs.clear();
    if (req.pdu->function == FC_WRITE_SINGLE_REGISTER) {
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

namespace {

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
// keeps as a float gets the exact quotient of a scaled integer. False when the translator
// refuses the registers.
bool add_register_write(CModbusRequest& req, const ranked_t& r) {
    const resolved_register_t& e = reg(r);
    CElement value;
    if (!e.mapping->from_registers(&req.regs[r.first - req.start], e.cfg, value,
                                   r.value->is_float()))
        return false;
    add_write(req, e.value, std::move(value), e.mapping);
    return true;
}

// With block writes: every parameter in the range is written, and every register of the
// range must belong to one that is writable and wholly inside it; otherwise nothing is.
modbus_err_t write_register_block(CModbusRequest& req) {
    rank<CParamRegisterMapping>(req, true);
    req.marks.assign(req.quantity, 0);
    const size_t last = req.start + req.quantity - 1u;
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
        if (!add_register_write(req, r))
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

} // namespace

modbus_err_t steps::write_registers(CModbusRequest& req) {
    update_attributes<CParamRegisterMapping>(req);
    if (req.block_writes && req.pdu->function != FC_WRITE_SINGLE_REGISTER &&
        req.pdu->function != FC_MASK_WRITE_REGISTER)
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
    for (const ranked_t& r : req.ranked) {
        // A parameter that straddles an edge of the written registers is not written.
        if (r.first < req.start || r.last > last)
            continue;
        if (!claim(req.marks, r.first - req.start, r.last - req.start))
            continue;
        if (!add_register_write(req, r))
            return MB_ILLEGAL_DATA_ADDRESS;
    }
    return req.write_ids.empty() ? MB_ILLEGAL_DATA_ADDRESS : MB_NO_ERROR;
}

namespace {

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

} // namespace

// A write has been stored: single writes and mask writes echo the request, multiple writes
// keep start and quantity.
modbus_err_t steps::answer_write(CModbusRequest& req) {
    const modbus_err_t e = check_written(req);
    if (e != MB_NO_ERROR)
        return e;
    if (req.pdu->function == FC_WRITE_MULTIPLE_COILS ||
        req.pdu->function == FC_WRITE_MULTIPLE_REGISTERS)
        req.pdu->data.resize(4);
    return MB_NO_ERROR;
}

// ---- 22: mask write of one register: its present value, AND and OR masks, then the path
// of function 6 (the same checks, padding and one transaction).

modbus_err_t steps::plan_mask_write(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    if (data.size() != 6)
        return MB_ILLEGAL_DATA_VALUE;
    req.start = read_u16(data, 0);
    req.quantity = 1;
    return plan_leaves<CParamRegisterMapping>(req);
}

modbus_err_t steps::mask_write(CModbusRequest& req) {
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

modbus_err_t steps::plan_read_write(CModbusRequest& req) {
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

modbus_err_t steps::reread_registers(CModbusRequest& req) {
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
