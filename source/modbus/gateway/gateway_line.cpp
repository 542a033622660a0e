#include "modbus/gateway/gateway_line.h"

#include "modbus/gateway/gateway_answer.h"
#include "util/crc16.h"
#include "util/log.h"

#include <cassert>

static_assert(CGatewayAnswer::by_silence == CBusClient::by_silence, "one way to say 'by silence'");

CGatewayLine::CGatewayLine(const tk_string& name, const CGatewaySettings& settings)
    : _name(name), _settings(settings) {
    for (unsigned unit = 1; unit < 248; ++unit)
        if (_settings.downstream.test(unit))
            _slaves[static_cast<uint8_t>(unit)];
}

const CDownstreamCounters* CGatewayLine::counters(uint8_t unit) const {
    const auto it = _slaves.find(unit);
    return it == _slaves.end() ? nullptr : &it->second.counters;
}

CGatewayLine::source_t& CGatewayLine::source(const void* key) {
    for (source_t& s : _sources)
        if (s.key == key)
            return s;
    _sources.push_back(source_t{key, {}, 0});
    return _sources.back();
}

void CGatewayLine::submit(const void* source_key, const std::shared_ptr<CGatewayRequest>& request) {
    assert(request && serves(request->unit));
    ++_slaves[request->unit].counters.requests;
    if (_unavailable) {
        finish(request, MB_GATEWAY_PATH_UNAVAILABLE);
        return;
    }
    request->state = CGatewayRequest::QUEUED;
    source(source_key).queue.push_back(request);
    wake();
}

void CGatewayLine::broadcast(const void* source_key, const CModbusPdu& pdu) {
    if (_unavailable)
        return;
    source_t& s = source(source_key);
    if (s.broadcasts >= max_broadcasts) {
        LOG_DEBUG(SS_SERIAL_PROTOCOL, 2, "Gateway line '%s': broadcast dropped, %zu wait already",
                  _name.c_str(), s.broadcasts);
        return;
    }
    auto request = std::make_shared<CGatewayRequest>();
    request->pdu = pdu;
    ++s.broadcasts;
    s.queue.push_back(std::move(request));
    wake();
}

std::shared_ptr<CGatewayRequest> CGatewayLine::pop() {
    while (!_sources.empty()) {
        source_t s = std::move(_sources.front());
        _sources.pop_front();
        if (s.queue.empty())
            continue;
        std::shared_ptr<CGatewayRequest> request = std::move(s.queue.front());
        s.queue.pop_front();
        if (request->unit == 0)
            --s.broadcasts;
        // Its next request waits for every other source's turn.
        if (!s.queue.empty())
            _sources.push_back(std::move(s));
        return request;
    }
    return nullptr;
}

void CGatewayLine::frame(const CGatewayRequest& request) {
    _frame.clear();
    _frame.push_back(request.unit);
    _frame.push_back(request.pdu.function);
    _frame.insert(_frame.end(), request.pdu.data.begin(), request.pdu.data.end());
    uint16_t crc = crc16::initial;
    for (const uint8_t byte : _frame)
        crc = crc16::step(crc, byte);
    _frame.push_back(static_cast<uint8_t>(crc & 0xff));
    _frame.push_back(static_cast<uint8_t>(crc >> 8));
}

CBusClient::frame_t CGatewayLine::on_bus() const {
    frame_t f;
    f.data = _frame.data();
    f.size = _frame.size();
    f.answer = _current->unit != 0;
    f.timeout_ms = _settings.response_timeout_ms;
    f.rest_ms = _settings.turnaround_delay_ms;
    return f;
}

CBusClient::frame_t CGatewayLine::next() {
    if (_unavailable)
        return frame_t();
    // A broadcast has had its rest; a request is being tried again.
    if (_current && _current->unit == 0)
        _current.reset();
    if (_current)
        return on_bus();
    while (std::shared_ptr<CGatewayRequest> request = pop()) {
        if (request->state == CGatewayRequest::ABANDONED)
            continue;
        if (request->unit != 0) {
            slave_t& slave = _slaves[request->unit];
            _trying_dead = slave.dead;
            if (slave.dead) {
                if (clock_t::now() < slave.next_try) {
                    finish(request, MB_GATEWAY_TARGET_FAILED);
                    continue;
                }
                // Tried once; until it answers, the next try is as far off again.
                slave.next_try = clock_t::now() + std::chrono::seconds(_settings.retry_dead_s);
            }
        }
        _current = std::move(request);
        _current->state = CGatewayRequest::ON_BUS;
        _tries = 0;
        frame(*_current);
        return on_bus();
    }
    return frame_t();
}

size_t CGatewayLine::answer_length(const uint8_t* data, size_t n) const {
    return CGatewayAnswer::frame_length(_frame.data(), _frame.size(), data, n);
}

void CGatewayLine::answered(const uint8_t* data, size_t n, int64_t response_us) {
    if (!_current || _current->unit == 0)
        return;
    slave_t& slave = _slaves[_current->unit];
    if (_line != nullptr)
        ++_line->messages;
    const CGatewayAnswer::verdict_t verdict =
        CGatewayAnswer::judge(_frame.data(), _frame.size(), data, n);
    if (verdict == CGatewayAnswer::BAD_CRC || verdict == CGatewayAnswer::GARBLED) {
        LOG_DEBUG(SS_SERIAL_PROTOCOL, 3, "Gateway line '%s', slave %u: %s answer of %zu bytes",
                  _name.c_str(), static_cast<unsigned>(_current->unit),
                  verdict == CGatewayAnswer::BAD_CRC ? "a bad CRC in an" : "not the", n);
        ++slave.counters.crc_errors;
        if (_line != nullptr && verdict == CGatewayAnswer::BAD_CRC)
            ++_line->checksum_errors;
        retry_or_fail();
        return;
    }
    ++(verdict == CGatewayAnswer::ANSWER ? slave.counters.answers : slave.counters.exceptions);
    slave.counters.timed(response_us);
    slave.in_a_row = 0;
    if (slave.dead) {
        slave.dead = false;
        LOG_INFO(SS_SERIAL_PROTOCOL, 0, "Gateway line '%s': slave %u answers again", _name.c_str(),
                 static_cast<unsigned>(_current->unit));
    }
    // The answer's PDU as the slave sent it: between the address and the CRC.
    _current->pdu.function = data[1];
    _current->pdu.data.assign(data + 2, data + n - 2);
    std::shared_ptr<CGatewayRequest> request = std::move(_current);
    finish(request);
}

void CGatewayLine::no_answer() {
    if (!_current || _current->unit == 0)
        return;
    slave_t& slave = _slaves[_current->unit];
    ++slave.counters.timeouts;
    ++slave.in_a_row;
    if (_settings.dead_after != 0 && slave.in_a_row >= _settings.dead_after) {
        if (!slave.dead)
            LOG_WARN(SS_SERIAL_PROTOCOL, 0,
                     "Gateway line '%s': slave %u did not answer %u times in a row; it is "
                     "answered with exception 11 and tried once every %u s until it answers",
                     _name.c_str(), static_cast<unsigned>(_current->unit), slave.in_a_row,
                     _settings.retry_dead_s);
        slave.dead = true;
        slave.next_try = clock_t::now() + std::chrono::seconds(_settings.retry_dead_s);
        std::shared_ptr<CGatewayRequest> request = std::move(_current);
        finish(request, MB_GATEWAY_TARGET_FAILED);
        return;
    }
    retry_or_fail();
}

void CGatewayLine::retry_or_fail() {
    if (!_trying_dead && _tries < _settings.retries &&
        _current->state != CGatewayRequest::ABANDONED) {
        ++_tries;
        return; // next() sends it again
    }
    std::shared_ptr<CGatewayRequest> request = std::move(_current);
    finish(request, MB_GATEWAY_TARGET_FAILED);
}

void CGatewayLine::unavailable() {
    if (!_unavailable)
        LOG_WARN(SS_SERIAL_PROTOCOL, 0,
                 "Gateway line '%s' is unavailable: its requests are answered with exception 10",
                 _name.c_str());
    _unavailable = true;
    if (_current) {
        std::shared_ptr<CGatewayRequest> request = std::move(_current);
        if (request->unit != 0)
            finish(request, MB_GATEWAY_PATH_UNAVAILABLE);
    }
    while (std::shared_ptr<CGatewayRequest> request = pop())
        if (request->unit != 0)
            finish(request, MB_GATEWAY_PATH_UNAVAILABLE);
}

void CGatewayLine::finish(const std::shared_ptr<CGatewayRequest>& request, modbus_err_t code) {
    _current.reset();
    if (request->state == CGatewayRequest::ABANDONED)
        return;
    if (code != MB_NO_ERROR)
        request->pdu.err(code);
    request->state = CGatewayRequest::DONE;
    if (!request->done)
        return;
    std::shared_ptr<CGatewayRequest> held = request;
    auto done = [held] {
        if (held->state == CGatewayRequest::DONE && held->done)
            held->done();
    };
    if (_defer)
        _defer(std::move(done));
    else
        done();
}
