#!/usr/bin/python3
"""Diagnostics (8), the event counter (11), device identification (43/14) and the
statistics leaves, end to end: the real modbus_server on the demo store, asked by
pymodbus over TCP and over a socat pseudo-terminal.

usage: diagnostics_e2e.py BUILD_DIR SOURCE_DIR
"""
import logging
import os
import shutil
import subprocess
import sys
import tempfile
import time

import e2e_rig
from e2e_rig import STATS, Rig, check, wait_for
from pymodbus.client import ModbusSerialClient, ModbusTcpClient
from pymodbus.diag_message import (ClearCountersRequest, ForceListenOnlyModeRequest,
                                   RestartCommunicationsOptionRequest,
                                   ReturnBusCommunicationErrorCountRequest,
                                   ReturnBusExceptionErrorCountRequest,
                                   ReturnBusMessageCountRequest, ReturnQueryDataRequest,
                                   ReturnSlaveMessageCountRequest,
                                   ReturnSlaveNoResponseCountRequest)
from pymodbus.mei_message import ReadDeviceInformationRequest
from pymodbus.other_message import GetCommEventCounterRequest

logging.basicConfig(level=logging.CRITICAL)


class SerialRig(Rig):
    """The demo store with its serial line on one end of a socat pty pair; masters use
    the other end, self.tty."""

    def __init__(self, build, source):
        self.pty_dir = tempfile.mkdtemp(prefix="diag-e2e-pty.")
        tty = os.path.join(self.pty_dir, "ttyServer")
        self.tty = os.path.join(self.pty_dir, "ttyClient")
        self.socat = subprocess.Popen(
            ["socat", f"pty,raw,echo=0,link={tty}", f"pty,raw,echo=0,link={self.tty}"])
        wait_for(lambda: os.path.exists(self.tty), "the pty pair")
        super().__init__(build, source, serial_port=tty, prefix="diag-e2e.")
        self.start()

    def close(self):
        super().close()
        self.socat.terminate()
        self.socat.wait(timeout=10)
        shutil.rmtree(self.pty_dir, ignore_errors=True)


def diag(client, request_class, unit, data=0):
    rsp = client.execute(request_class(data, unit=unit) if request_class is ReturnQueryDataRequest
                         else request_class(unit=unit))
    if rsp.isError():
        return rsp
    return rsp.message[0] if isinstance(rsp.message, (list, tuple)) else rsp.message


def identity(client, unit):
    rsp = client.execute(ReadDeviceInformationRequest(read_code=1, object_id=0, unit=unit))
    return None if rsp.isError() else {k: v.decode() for k, v in rsp.information.items()}


def known_sequence(client, unit, where):
    """Clears the unit's counters, then runs requests whose counts are known."""
    check(f"{where}: clear counters", diag(client, ClearCountersRequest, unit), 0)
    for _ in range(3):
        check(f"{where}: read", client.read_holding_registers(8, 2, slave=unit).isError(), False)
    rsp = client.read_holding_registers(0xF000, 1, slave=unit)
    check(f"{where}: unmapped read", getattr(rsp, "exception_code", None), 2)
    check(f"{where}: exceptions", diag(client, ReturnBusExceptionErrorCountRequest, unit), 1)
    # The request counts itself: 3 reads, the refused one, the exception count, this one.
    check(f"{where}: server messages", diag(client, ReturnSlaveMessageCountRequest, unit), 6)
    rsp = client.execute(GetCommEventCounterRequest(unit=unit))
    # Carried out: the three reads and the two counter requests; not the exception. The
    # status says the unit is not busy (pymodbus shows it as True).
    check(f"{where}: event counter", (rsp.status, rsp.count), (True, 5))


def tcp(rig):
    client = ModbusTcpClient("127.0.0.1", port=rig.port, timeout=2, retries=0)
    client.connect()
    check("tcp: query data echoed", diag(client, ReturnQueryDataRequest, 1, 0xA55A), 0xA55A)
    check("tcp: basic identification", identity(client, 2), {
        0: "Demo Power Systems", 1: "PB3000", 2: "1.4"})
    rsp = diag(client, ForceListenOnlyModeRequest, 1)
    check("tcp: no listen-only mode", getattr(rsp, "exception_code", None), 1)
    known_sequence(client, 1, "tcp")
    unit1 = f"{STATS}/TCP/Unit 1"
    # And the event counter request itself.
    rig.leaf_becomes(f"{unit1}/Requests/Value", 7)
    rig.leaf_becomes(f"{unit1}/Events/Value", 5)
    rig.leaf_becomes(f"{unit1}/Exceptions/Value", 1)
    rig.leaf_becomes(f"{unit1}/Exception 2/Value", 1)
    rig.leaf_becomes(f"{STATS}/TCP/Connections Open/Value", 1)
    client.close()
    rig.leaf_becomes(f"{STATS}/TCP/Connections Open/Value", 0)
    total = rig.leaf(f"{STATS}/TCP/Connections Total/Value")
    check("tcp: connections counted (the rig's probes too)", total is not None and total >= 2, True)


def serial(rig):
    # A pty carries no parity bits, and refuses to be reconfigured with even parity: the
    # master's side runs 8N1 while the server's is set up as the demo's 8E1.
    client = ModbusSerialClient(method="rtu", port=rig.tty, baudrate=19200, bytesize=8, parity="N",
                                stopbits=1, timeout=0.5, retries=0, strict=False)
    client.connect()
    # pymodbus 3.0 opens the port with a time-out of 0 (reads that never wait), and reopens
    # it so after every request left unanswered: keep it open, with a real time-out.
    client.socket.timeout = 1
    client.transaction.reset_socket = False
    check("rtu: query data echoed", diag(client, ReturnQueryDataRequest, 1, 0x1234), 0x1234)
    check("rtu: basic identification", identity(client, 1), {
        0: "Demo Power Systems", 1: "PB3000", 2: "1.4"})
    known_sequence(client, 1, "rtu")
    # A frame whose CRC fails is counted on the line and not answered.
    check("rtu: clear", diag(client, ClearCountersRequest, 1), 0)
    client.socket.write(bytes([0x01, 0x03, 0x00, 0x08, 0x00, 0x02, 0x00, 0x00]))
    time.sleep(0.1)
    check("rtu: checksum errors", diag(client, ReturnBusCommunicationErrorCountRequest, 1), 1)
    # The bad frame, the previous request and this one.
    check("rtu: bus messages", diag(client, ReturnBusMessageCountRequest, 1), 3)
    rig.leaf_becomes(f"{STATS}/Serial/COM1/Checksum Errors/Value", 1)

    # Listen-only: nothing is answered, not even the mode's own request, until a restart.
    check("rtu: listen only", diag(client, ForceListenOnlyModeRequest, 1).isError(), True)
    check("rtu: read while listening", client.read_holding_registers(8, 2, slave=1).isError(),
          True)
    rig.leaf_becomes(f"{STATS}/Serial/COM1/Unit 1/Unanswered/Value", 2)
    check("rtu: restart unanswered", diag(client, RestartCommunicationsOptionRequest, 1).isError(),
          True)
    check("rtu: read after restart", client.read_holding_registers(8, 2, slave=1).isError(), False)
    check("rtu: restart cleared", diag(client, ReturnSlaveNoResponseCountRequest, 1), 0)
    client.close()


if __name__ == "__main__":
    sys.exit(e2e_rig.main(__doc__, SerialRig, tcp, serial))
