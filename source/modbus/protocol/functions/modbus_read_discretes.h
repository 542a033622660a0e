#pragma once
// Read coils (0x01) and read discrete inputs (0x02): both served from the unit's discrete
// map, 1 to 2000 bits.
#include "modbus/modbus_types.h"
#include "modbus/protocol/functions/modbus_function_handler.h"

class CDiscreteMaplist;

class CModbusReadDiscretes : public CModbusFunctionHandler {
public:
    static constexpr unsigned max_inputs = 2000;

    static std::shared_ptr<CModbusReadDiscretes>
    create(CModbusProtocolHandler& prot, CModbusPdu& pdu, CModbusDeviceConfig& device);
    static bool verify_length(const CModbusPdu& pdu) { return pdu.data.size() >= 4; }

    CModbusReadDiscretes(CModbusProtocolHandler& prot, CModbusPdu& pdu,
                         CModbusDeviceConfig& device);
    ~CModbusReadDiscretes() override;

    void execute() override;
    void post(CThreadCdsGetLeaves& cmd, bool timed_out) override;

private:
    void fetch_leaves();

    regaddr_t _start = 0;
    uint16_t _ninputs = 0;
    std::unique_ptr<CDiscreteMaplist> _maplist;
};
