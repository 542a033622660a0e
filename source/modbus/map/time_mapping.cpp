#include "modbus/map/time_mapping.h"
#include "modbus/map/map_util.h"
#include "util/log.h"

#include <cassert>
#include <cerrno>

CTimeMapping::CTimeMapping(const toolkit::node_map_t& node) : CRegisterMapping(node) {
    LOG_STACK();
    if (_offset % 8 != 0)
        CMapUtil::fail(node, "BitOffset", "a DATATYPE_TIME starts at bit offset 0 or 8");
    _timestamp = CMapUtil::flag(node, "Timestamp");
    const auto it = node.find("DateSpec");
    if (it == node.end())
        CMapUtil::fail(node, nullptr, "no DateSpec");
    if (!CTimeMappingSpec::valid(it->second))
        CMapUtil::fail(node, "DateSpec", "one letter per byte, each of dHIjmMSuwyYqQ");
    if (it->second.size() > 65535)
        CMapUtil::fail(node, "DateSpec", "longer than 65535 bytes");
    _spec = std::make_unique<CTimeMappingSpec>(it->second);
    if (_size == 0)
        _size = static_cast<uint16_t>(_spec->size());
    // One letter per byte: any other size leaves letters without bytes or bytes without.
    if (_size != _spec->size())
        CMapUtil::fail(node, "Size",
                       "differs from the DateSpec's " + std::to_string(_spec->size()) + " letters");
}

const CTimeMappingSpec& CTimeMapping::spec() const {
    assert(_spec);
    return *_spec;
}

bool CTimeMapping::translate(const toolkit::CElement& el, const CModbusParamDynamicConfig&,
                             mbreg_t* out) const {
    LOG_STACK();
    const size_t nregs = reg_count();
    assert((_offset == 0) || (_offset == 8));
    assert(nregs != 0);
    assert(_size != 0);
    assert(_spec);
    const timeval tv = _timestamp ? el.time() : el.to_timeval();
    const time_t secs = tv.tv_sec;
    tm t;
    if (!gmtime_r(&secs, &t)) {
        LOG_WARN(SS_MAPPING, 1, "Time %lld has no calendar date", static_cast<long long>(secs));
        return false;
    }
    size_t i = 0;
    size_t r = 0;
    if (_offset == 8)
        out[r++] = _spec->translate(i++, t, tv) & 0xff;
    for (; r < nregs; ++r, i += 2) {
        if (_spec->double_specifier(i)) {
            out[r] = _spec->translate(i, t, tv);
            continue;
        }
        const mbreg_t low = i + 1 < _spec->size() ? _spec->translate(i + 1, t, tv) & 0xff : 0;
        out[r] = static_cast<mbreg_t>((_spec->translate(i, t, tv) & 0xff) << 8 | low);
    }
    return true;
}

bool CTimeMapping::translate(const mbreg_t* regs, const CModbusParamDynamicConfig&,
                             toolkit::CElement& out) const {
    LOG_STACK();
    const size_t nregs = reg_count();
    assert(_spec);
    assert(regs != nullptr);
    if (_timestamp) {
        LOG_WARN(SS_MAPPING, 1, "Can't set a value's timestamp via Modbus");
        return false;
    }
    timeval tv;
    tm t;
    if (gettimeofday(&tv, nullptr) != 0 || !gmtime_r(&tv.tv_sec, &t))
        return false;
    size_t i = 0;
    size_t r = 0;
    if (_offset == 8)
        _spec->translate(i++, regs[r++] & 0xff, t, tv);
    for (; r < nregs; ++r, i += 2) {
        if (_spec->double_specifier(i)) {
            _spec->translate(i, regs[r], t, tv);
            continue;
        }
        _spec->translate(i, regs[r] >> 8, t, tv);
        if (i + 1 < _spec->size())
            _spec->translate(i + 1, regs[r] & 0xff, t, tv);
    }
    assert(i >= _spec->size());
    errno = 0;
    const time_t secs = mktime(&t);
    if (secs == static_cast<time_t>(-1) && errno != 0) {
        LOG_WARN(SS_MAPPING, 1, "Date written is out of range");
        return false;
    }
    // A doubled q may carry more than a second of milliseconds.
    tv.tv_sec = secs + tv.tv_usec / 1000000;
    tv.tv_usec %= 1000000;
    out = toolkit::CElement::from_time(tv, toolkit::CElement::_invalid_time);
    return true;
}

CProfileMapping CTimeMapping::reverse_map(const toolkit::CElement&, const tk_string&,
                                          const CModbusParamDynamicConfig&) const {
    LOG_STACK();
    CProfileMapping row;
    row[CProfileMapping::TYPE] = "DATE";
    row[CProfileMapping::IS_TIMESTAMP] = _timestamp ? "Yes" : "No";
    spec().reverse_map(row);
    return row;
}
