// Identification (17, report server id; 43/14, read device identification): the unit's
// identification leaves, each read as text; a leaf the store lacks reads as its default.
#include "modbus/core/function_steps.h"

#include "modbus/core/function_code.h"
#include "util/build_info.h"

#include <algorithm>

using toolkit::CLeafValue;

namespace {

// Conformity level: the regular objects, as a stream and one at a time.
constexpr uint8_t conformity = 0x82;

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

} // namespace

modbus_err_t steps::plan_identity(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    if (req.pdu->function == FC_REPORT_SERVER_ID) {
        if (!data.empty())
            return MB_ILLEGAL_DATA_VALUE;
    } else {
        // Only the device identification interface of MEI, whatever follows another type.
        if (!data.empty() && data[0] != MEI_READ_DEVICE_ID)
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

modbus_err_t steps::answer_report_server_id(CModbusRequest& req) {
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

modbus_err_t steps::answer_device_id(CModbusRequest& req) {
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
    out.assign({MEI_READ_DEVICE_ID, code, conformity, 0x00, 0x00, 0x00});
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
