#pragma once
// A serial line whose Role is Gateway, as its master sees it: the requests forwarded to the
// slaves behind it wait here for the bus, and go on it one at a time (CSerialMaster asks for
// them as a CBusClient).
//
// - Fair: each source (a connection's handler) has its own queue, and the sources take turns,
//   so one master that keeps the line busy makes the others wait one request at most.
// - An answer goes back as the slave sent it, exception answers included. A time-out or an
//   answer that fails its checks is tried again, up to Retries times; then the request is
//   answered with exception 11 (gateway target failed to respond). A line that cannot be
//   opened, or that failed, answers exception 10 (gateway path unavailable).
// - After Dead After time-outs in a row a slave counts as dead: its requests are answered
//   with exception 11 at once, but for one every Retry Dead, which is tried once; the first
//   answer revives it.
// - A broadcast is sent once, answered by nobody, and followed by the Turnaround Delay.
//
// Requests are completed through defer, never from inside a call of the handler's or the
// port's, so that a handler woken by its answer may submit its next request at once.
#include "io/serial/bus_client.h"
#include "modbus/config/gateway_settings.h"
#include "modbus/gateway/downstream_counters.h"
#include "modbus/gateway/gateway_request.h"
#include "modbus/protocol/protocol_object.h"
#include "toolkit/tk_string.h"
#include "util/transport_counters.h"

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <vector>

class CGatewayLine : public CBusClient {
public:
    using clock_t = std::chrono::steady_clock;
    // Runs a completion later, on the I/O thread.
    using defer_t = std::function<void(std::function<void()>)>;
    // Broadcasts a source may have waiting; more are dropped.
    static constexpr size_t max_broadcasts = 16;

    // name: the interface's, for messages.
    CGatewayLine(const tk_string& name, const CGatewaySettings& settings);

    const tk_string& name() const { return _name; }
    const CGatewaySettings& settings() const { return _settings; }
    bool serves(uint8_t unit) const { return unit != 0 && _settings.downstream.test(unit); }
    // The counters of a slave behind the line; null for another address.
    const CDownstreamCounters* counters(uint8_t unit) const;
    // Before the first request: how completions run, and the line's own counters (answers
    // framed, and those whose CRC failed; null: not counted).
    void set_defer(defer_t defer) { _defer = std::move(defer); }
    void set_counters(CTransportCounters* counters) { _line = counters; }

    // Queues request (for a slave the line serves) for source.
    void submit(const void* source, const std::shared_ptr<CGatewayRequest>& request);
    // Queues pdu for every slave at once (address 0).
    void broadcast(const void* source, const CModbusPdu& pdu);

    frame_t next() override;
    size_t answer_length(const uint8_t* data, size_t n) const override;
    void answered(const uint8_t* data, size_t n, int64_t response_us) override;
    void no_answer() override;
    void unavailable() override;

private:
    struct slave_t {
        CDownstreamCounters counters;
        uint32_t in_a_row = 0;
        bool dead = false;
        clock_t::time_point next_try;
    };
    struct source_t {
        const void* key;
        std::deque<std::shared_ptr<CGatewayRequest>> queue;
        size_t broadcasts = 0;
    };

    source_t& source(const void* key);
    // The next request in the sources' turn; null when none waits.
    std::shared_ptr<CGatewayRequest> pop();
    // The RTU frame of request into _frame.
    void frame(const CGatewayRequest& request);
    frame_t on_bus() const;
    // Another try, or exception 11.
    void retry_or_fail();
    // Hands the request back: with its answer, or with code as an exception.
    void finish(const std::shared_ptr<CGatewayRequest>& request, modbus_err_t code = MB_NO_ERROR);

    tk_string _name;
    CGatewaySettings _settings;
    std::map<uint8_t, slave_t> _slaves;
    defer_t _defer;
    CTransportCounters* _line = nullptr;
    std::deque<source_t> _sources;
    // On the bus (or about to be tried again), and its frame.
    std::shared_ptr<CGatewayRequest> _current;
    std::vector<uint8_t> _frame;
    uint32_t _tries = 0;
    // The current request is a dead slave's one try.
    bool _trying_dead = false;
    bool _unavailable = false;
};
