#pragma once
// Write single coil (0x05) and write multiple coils (0x0F), as a read-modify-write: the
// parameters the range touches are read first, the new bits merged in, and the merged
// parameters written back; the answer follows the write.
#include "modbus/modbus_types.h"
#include "modbus/protocol/functions/modbus_function_handler.h"

#include <vector>

class CDiscreteMaplist;

class CModbusWriteDiscretes : public CModbusFunctionHandler {
public:
    static constexpr unsigned max_coils = 1968;

    static std::shared_ptr<CModbusWriteDiscretes>
    create(CModbusProtocolHandler& prot, CModbusPdu& pdu, CModbusDeviceConfig& device);
    static bool verify_length(const CModbusPdu& pdu);

    CModbusWriteDiscretes(CModbusProtocolHandler& prot, CModbusPdu& pdu,
                          CModbusDeviceConfig& device);
    ~CModbusWriteDiscretes() override;

    void execute() override;
    void post(CThreadCdsGetLeaves& cmd, bool timed_out) override;
    void post(CThreadCdsSetLeaves& cmd, bool timed_out) override;

private:
    bool parse_values();
    void fetch_leaves();
    void write_values(CThreadCdsGetLeaves& cmd);

    regaddr_t _start = 0;
    std::vector<bool> _values;
    std::unique_ptr<CDiscreteMaplist> _maplist;
};
