#include "modbus/protocol/functions/modbus_function_handler.h"

#include "io/io_timer.h"
#include "modbus/config/modbus_device_config.h"
#include "modbus/protocol/functions/modbus_write_common.h"
#include "server_core/server_core.h"
#include "threads/cds/commands/thread_cds_leaves.h"
#include "util/generic_err.h"
#include "util/log.h"

void CModbusFunctionHandler::fetch(cds_leaf_set_t leaves) {
    if (leaves.empty()) {
        err(MB_ILLEGAL_DATA_ADDRESS);
        return;
    }
    cmd_ptr_t cmd(new CThreadCdsGetLeaves(weak_from_this(), std::move(leaves), _device.path()));
    cmd->give_timer(_prot.response_timer());
    _prot.get_server_core().add_cds_cmd(std::move(cmd), false);
}

bool CModbusFunctionHandler::usable(CThreadCommand& cmd, bool timed_out) {
    if (timed_out) {
        timeout();
        return false;
    }
    if (cmd.failed()) {
        stop_timer(cmd.take_timer());
        err(MB_SLAVE_DEVICE_FAILURE);
        return false;
    }
    return true;
}

void CModbusFunctionHandler::write(CThreadCdsGetLeaves& read,
                                   const std::function<cds_leaf_set_t()>& merge) {
    std::shared_ptr<CIoTimer> timer = read.take_timer();
    cds_leaf_set_t out;
    try {
        out = merge();
    } catch (const generic_err&) {
    }
    if (out.empty()) {
        stop_timer(timer);
        err(MB_ILLEGAL_DATA_ADDRESS);
        return;
    }
    cmd_ptr_t cmd(new CThreadCdsSetLeaves(weak_from_this(), std::move(out), _device.path()));
    cmd->give_timer(timer);
    _prot.get_server_core().add_cds_cmd(std::move(cmd), false);
}

void CModbusFunctionHandler::write_done(CThreadCdsSetLeaves& cmd, bool timed_out,
                                        uint8_t single_function) {
    if (!usable(cmd, timed_out))
        return;
    stop_timer(cmd.take_timer());
    // The store may refuse single leaves of a batch it accepted (a read-only store, a value
    // its leaf's type cannot take): the master must not be told they were written.
    for (const CCdsLeaf& leaf : cmd.leaves()) {
        if (leaf._status != API_STATUS_OK) {
            LOG_WARN(SS_FUNCTION_CODES, 1, "The store refused '%s' (status %d)",
                     leaf._path.c_str(), static_cast<int>(leaf._status));
            err(MB_SLAVE_DEVICE_FAILURE);
            return;
        }
    }
    modbus_write::make_response(_pdu, single_function);
    _prot.respond();
}

void CModbusFunctionHandler::stop_timer(std::shared_ptr<CIoTimer> timer) {
    if (timer)
        timer->cancel();
}
