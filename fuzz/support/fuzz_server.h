#pragma once
// An in-process server for the targets that feed protocol handlers: the sample store (with
// further leaves when a target needs them), its configuration, the store worker with its event
// loop, and the store access the handlers use, as the server wires them. Set up once per
// process.
#include "modbus/handler/modbus_services.h"
#include "util/transport_counters.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

class CCdsHandle;
class CIoManager;
class CModbusConfig;
class CProtocolHandler;
class CStoreAccess;
class CStoreWorker;
class CFuzzStore;

class CFuzzServer {
public:
    // extra_json: leaves defined besides the sample store's, as "cdsctl load" takes them;
    // "@DATA@" in it stands for the tests' data folder.
    explicit CFuzzServer(const char* extra_json = nullptr);
    ~CFuzzServer();
    CFuzzServer(const CFuzzServer&) = delete;
    CFuzzServer& operator=(const CFuzzServer&) = delete;

    // What the handlers are made with; its counters are those below.
    const CModbusServices& services() const { return _services; }
    CTransportCounters tcp_counters, rtu_over_tcp_counters, udp_counters;

    // Hands data to handler as a connection does, `piece` bytes at a time (0: all at once):
    // every call gets all bytes not consumed yet, a wait runs the loop until the handler is
    // woken. Returns each answer the handler sent, once the bytes are used up, or wait for more
    // that never come, or the handler closes. A request that waits 20 seconds is a hang: abort.
    std::vector<std::vector<uint8_t>> exchange(CProtocolHandler& handler, const uint8_t* data,
                                               size_t size, size_t piece = 0);

    // Hands one datagram to handler as the UDP listener does, whatever it says it consumed;
    // its answer, if it sent one.
    std::vector<std::vector<uint8_t>> datagram(CProtocolHandler& handler, const uint8_t* data,
                                               size_t size);

private:
    void wait(bool& woken);

    std::unique_ptr<CFuzzStore> _store;
    std::unique_ptr<CIoManager> _manager;
    std::unique_ptr<CModbusConfig> _config;
    std::unique_ptr<CCdsHandle> _reader;
    std::unique_ptr<CStoreWorker> _worker;
    std::unique_ptr<CStoreAccess> _access;
    CModbusServices _services;
};
