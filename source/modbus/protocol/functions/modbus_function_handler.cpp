#include "modbus/protocol/functions/modbus_function_handler.h"

#include "io/io_timer.h"
#include "server_core/server_core.h"
#include "threads/commands/thread_command.h"

void CModbusFunctionHandler::send(std::unique_ptr<CThreadCommand> cmd,
                                  std::shared_ptr<CIoTimer>& timer) {
    cmd->give_timer(timer);
    _prot.get_server_core().add_cds_cmd(std::move(cmd), false);
}

void CModbusFunctionHandler::stop_timer(std::shared_ptr<CIoTimer> timer) {
    if (timer)
        timer->cancel();
}
