#include "protocol/protocol_handler.h"

#include "io/io_messenger.h"

#include <cassert>

CServerCore& CProtocolHandler::get_server_core() const {
    assert(_messenger != nullptr);
    return _messenger->get_server_core();
}
