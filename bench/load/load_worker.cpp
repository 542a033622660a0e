#include "load_worker.h"

#include <cerrno>
#include <thread>

namespace {

bool is_exception(int error) {
    return (error >= EMBXILFUN && error <= EMBXGTAR) || error == EMBBADEXC || error == EMBUNKEXC;
}

// Errors after which the same socket can carry the next request.
bool link_survives(int error) {
    return error == ETIMEDOUT || (error >= EMBBADCRC && error <= EMBBADSLAVE);
}

} // namespace

CLoadWorker::CLoadWorker(const CLoadOptions& options)
    : _options(options), _regs(MODBUS_MAX_READ_REGISTERS), _bits(MODBUS_MAX_READ_BITS) {}

CLoadWorker::~CLoadWorker() {
    if (_ctx == nullptr)
        return;
    modbus_close(_ctx);
    modbus_free(_ctx);
}

bool CLoadWorker::connect(std::string& error) {
    if (_options.framing != CLoadOptions::framing_t::tcp)
        return connect_raw(error);
    const std::string where = _options.host + ":" + std::to_string(_options.port);
    _ctx = modbus_new_tcp_pi(_options.host.c_str(), std::to_string(_options.port).c_str());
    if (_ctx == nullptr) {
        error = "Couldn't set up a connection to " + where + ": " + modbus_strerror(errno);
        return false;
    }
    modbus_set_response_timeout(_ctx, _options.timeout_ms / 1000,
                                (_options.timeout_ms % 1000) * 1000);
    if (modbus_set_slave(_ctx, _options.unit) != 0) {
        error = "Bad unit id " + std::to_string(_options.unit) + ": " + modbus_strerror(errno);
        return false;
    }
    if (modbus_connect(_ctx) != 0) {
        error = "Couldn't connect to " + where + ": " + modbus_strerror(errno);
        return false;
    }
    if (_options.request != CLoadOptions::request_t::write100)
        return true;
    if (modbus_read_registers(_ctx, _options.address, 100, _regs.data()) != 100) {
        error = "Couldn't read the 100 registers at " + std::to_string(_options.address) +
                " to write back: " + modbus_strerror(errno);
        return false;
    }
    return true;
}

int CLoadWorker::send_request() {
    switch (_options.request) {
    case CLoadOptions::request_t::read125:
        return modbus_read_registers(_ctx, _options.address, 125, _regs.data());
    case CLoadOptions::request_t::read1:
        return modbus_read_registers(_ctx, _options.address, 1, _regs.data());
    case CLoadOptions::request_t::write100:
        return modbus_write_registers(_ctx, _options.address, 100, _regs.data());
    case CLoadOptions::request_t::coils2000:
        return modbus_read_bits(_ctx, _options.address, 2000, _bits.data());
    }
    return -1;
}

void CLoadWorker::recover(int error, steady_t::time_point deadline) {
    if (link_survives(error)) {
        // A late answer must not be taken for the next one.
        modbus_flush(_ctx);
        return;
    }
    modbus_close(_ctx);
    while (steady_t::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (modbus_connect(_ctx) == 0)
            return;
        ++_errors;
    }
}

namespace {

std::vector<uint8_t> read_pdu(uint8_t function, uint16_t address, uint16_t count) {
    return {function, static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address),
            static_cast<uint8_t>(count >> 8), static_cast<uint8_t>(count)};
}

} // namespace

bool CLoadWorker::connect_raw(std::string& error) {
    const auto framing = _options.framing == CLoadOptions::framing_t::udp
                             ? CRawLink::framing_t::udp
                             : CRawLink::framing_t::rtu_over_tcp;
    _raw.reset(new CRawLink(framing, _options.host, _options.port,
                            static_cast<uint8_t>(_options.unit), _options.timeout_ms));
    if (!_raw->connect(error))
        return false;
    const uint16_t a = _options.address;
    switch (_options.request) {
    case CLoadOptions::request_t::read125:
        _pdu = read_pdu(3, a, 125);
        return true;
    case CLoadOptions::request_t::read1:
        _pdu = read_pdu(3, a, 1);
        return true;
    case CLoadOptions::request_t::coils2000:
        _pdu = read_pdu(1, a, 2000);
        return true;
    case CLoadOptions::request_t::write100:
        break;
    }
    // The registers are written back as they were read.
    if (_raw->transact(read_pdu(3, a, 100), _answer) != CRawLink::ANSWER || _answer.size() != 202) {
        error = "Couldn't read the 100 registers at " + std::to_string(a) + " to write back";
        return false;
    }
    _pdu = read_pdu(16, a, 100);
    _pdu.push_back(200);
    _pdu.insert(_pdu.end(), _answer.begin() + 2, _answer.end());
    return true;
}

void CLoadWorker::run_raw(steady_t::time_point deadline) {
    for (;;) {
        const steady_t::time_point start = steady_t::now();
        if (start >= deadline)
            return;
        const CRawLink::result_t result = _raw->transact(_pdu, _answer);
        if (result == CRawLink::ANSWER || result == CRawLink::EXCEPTION) {
            _latencies.record(static_cast<uint64_t>(
                std::chrono::duration_cast<std::chrono::microseconds>(steady_t::now() - start)
                    .count()));
            if (result == CRawLink::EXCEPTION)
                ++_exceptions;
            continue;
        }
        ++_errors;
        std::string ignored;
        while (result == CRawLink::BROKEN && steady_t::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (_raw->connect(ignored))
                break;
            ++_errors;
        }
    }
}

void CLoadWorker::run(steady_t::time_point deadline) {
    if (_raw) {
        run_raw(deadline);
        return;
    }
    for (;;) {
        const steady_t::time_point start = steady_t::now();
        if (start >= deadline)
            return;
        const int rc = send_request();
        const int error = errno;
        const int64_t us =
            std::chrono::duration_cast<std::chrono::microseconds>(steady_t::now() - start).count();
        if (rc >= 0 || is_exception(error)) {
            _latencies.record(static_cast<uint64_t>(us));
            if (rc < 0)
                ++_exceptions;
            continue;
        }
        ++_errors;
        recover(error, deadline);
    }
}
