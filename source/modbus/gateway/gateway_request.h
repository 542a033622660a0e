#pragma once
// One request forwarded to a slave behind a gateway line, shared by the handler that waits
// for it and the line that carries it out. The handler fills pdu and done and submits it;
// the line replaces pdu with the answer (the slave's own, or an exception of the gateway's)
// and calls done, later, on the I/O thread. A handler that goes away abandons it: the line
// then drops it, or the answer when it is on the bus already.
#include "modbus/protocol/modbus_pdu.h"

#include <cstdint>
#include <functional>

struct CGatewayRequest {
    enum state_t { QUEUED, ON_BUS, DONE, ABANDONED };

    uint8_t unit = 0;
    CModbusPdu pdu;
    state_t state = QUEUED;
    std::function<void()> done;
};
