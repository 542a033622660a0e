#pragma once
// Write single register (0x06) and write multiple registers (0x10, up to 120), as a
// read-modify-write: a parameter may span more registers than were written or share a
// register with others, so the parameters the range touches are read first.
#include "modbus/modbus_types.h"
#include "modbus/protocol/functions/modbus_function_handler.h"

class CRegisterMaplist;

class CModbusWriteRegisters : public CModbusFunctionHandler {
public:
    static constexpr unsigned max_registers = 120;

    static std::shared_ptr<CModbusWriteRegisters>
    create(CModbusProtocolHandler& prot, CModbusPdu& pdu, CModbusDeviceConfig& device);
    static bool verify_length(const CModbusPdu& pdu);

    CModbusWriteRegisters(CModbusProtocolHandler& prot, CModbusPdu& pdu,
                          CModbusDeviceConfig& device);
    ~CModbusWriteRegisters() override;

    void execute() override;
    void post(CThreadCdsGetLeaves& cmd, bool timed_out) override;
    void post(CThreadCdsSetLeaves& cmd, bool timed_out) override;

private:
    bool parse_values();
    void fetch_leaves();
    void write_values(CThreadCdsGetLeaves& cmd);

    regaddr_t _start = 0;
    regvec_t _values;
    std::unique_ptr<CRegisterMaplist> _maplist;
};
