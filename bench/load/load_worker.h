#pragma once
// One connection of the load client: it connects, then sends its request back to back until
// the deadline, timing every answer. An exception response is an answer (counted apart); a
// failed request is counted, and a broken connection is made again after a short pause.
// Modbus TCP goes through libmodbus, the other framings through a CRawLink.
#include "latency_histogram.h"
#include "load_options.h"
#include "raw_link.h"

#include <modbus.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class CLoadWorker {
public:
    using steady_t = std::chrono::steady_clock;

    explicit CLoadWorker(const CLoadOptions& options);
    ~CLoadWorker();
    CLoadWorker(const CLoadWorker&) = delete;
    CLoadWorker& operator=(const CLoadWorker&) = delete;

    // Connects and readies the request (a write sends back values read first); on failure
    // the message says why.
    bool connect(std::string& error);
    void run(steady_t::time_point deadline);

    const CLatencyHistogram& latencies() const { return _latencies; }
    uint64_t exceptions() const { return _exceptions; }
    uint64_t errors() const { return _errors; }

private:
    int send_request();
    void recover(int error, steady_t::time_point deadline);
    bool connect_raw(std::string& error);
    void run_raw(steady_t::time_point deadline);

    const CLoadOptions& _options;
    modbus_t* _ctx = nullptr;
    std::vector<uint16_t> _regs;
    std::vector<uint8_t> _bits;
    std::unique_ptr<CRawLink> _raw;
    // The request's PDU, and the answer's, for a raw link.
    std::vector<uint8_t> _pdu;
    std::vector<uint8_t> _answer;
    CLatencyHistogram _latencies;
    uint64_t _exceptions = 0;
    uint64_t _errors = 0;
};
