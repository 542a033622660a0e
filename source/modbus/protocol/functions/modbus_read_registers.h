#pragma once
// Read holding registers (0x03) and read input registers (0x04): both served from the
// unit's register map, 1 to 125 registers.
#include "modbus/modbus_types.h"
#include "modbus/protocol/functions/modbus_function_handler.h"

class CRegisterMaplist;

class CModbusReadRegisters : public CModbusFunctionHandler {
public:
    static constexpr unsigned max_registers = 125;

    static std::shared_ptr<CModbusReadRegisters>
    create(CModbusProtocolHandler& prot, CModbusPdu& pdu, CModbusDeviceConfig& device);
    static bool verify_length(const CModbusPdu& pdu) { return pdu.data.size() >= 4; }

    CModbusReadRegisters(CModbusProtocolHandler& prot, CModbusPdu& pdu,
                         CModbusDeviceConfig& device);
    ~CModbusReadRegisters() override;

    void execute() override;
    void post(CThreadCdsGetLeaves& cmd, bool timed_out) override;

private:
    void fetch_leaves();

    regaddr_t _start = 0;
    uint16_t _nregs = 0;
    std::unique_ptr<CRegisterMaplist> _maplist;
};
