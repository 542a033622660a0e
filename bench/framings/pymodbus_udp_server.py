#!/usr/bin/python3
"""pymodbus's asyncio Modbus/UDP server as the peer of ours in bench/framings/framings.sh.

usage: /usr/bin/python3 pymodbus_udp_server.py PORT [BIND_IP=127.0.0.1] [N=10000]

Debian's /usr/bin/python3 is the interpreter that sees python3-pymodbus. The data match the
peer kit's TCP server: N holding registers at PDU addresses 0..N-1 (zero_mode), register i
holding i; one context answers every unit id. Prints one line once it serves; stops on SIGINT
or SIGTERM.
"""
import asyncio
import logging
import os
import signal
import sys

import pymodbus
from pymodbus.datastore import ModbusSequentialDataBlock, ModbusServerContext, ModbusSlaveContext
from pymodbus.server import StartAsyncUdpServer


async def main():
    port = int(sys.argv[1])
    ip = sys.argv[2] if len(sys.argv) > 2 else "127.0.0.1"
    n = int(sys.argv[3]) if len(sys.argv) > 3 else 10000
    # Every exception answer and unknown datagram is logged at ERROR: keep the log out of the
    # measure.
    logging.basicConfig(level=logging.CRITICAL)
    block = ModbusSequentialDataBlock(0, [i & 0xFFFF for i in range(n)])
    slave = ModbusSlaveContext(hr=block, ir=block, zero_mode=True)
    context = ModbusServerContext(slaves=slave, single=True)
    server = await StartAsyncUdpServer(context=context, address=(ip, port), defer_start=True)
    task = asyncio.create_task(server.serve_forever())
    await server.serving
    print(f"pymodbus {pymodbus.__version__} UDP server on {ip}:{port} pid={os.getpid()}",
          flush=True)
    stop = asyncio.Event()
    loop = asyncio.get_running_loop()
    for sig in (signal.SIGINT, signal.SIGTERM):
        loop.add_signal_handler(sig, stop.set)
    await stop.wait()
    await server.shutdown()
    task.cancel()
    try:
        await task
    except asyncio.CancelledError:
        pass


if __name__ == "__main__":
    asyncio.run(main())
