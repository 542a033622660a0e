#!/usr/bin/python3
"""RTU over TCP, Modbus/UDP and ASCII on a serial line, end to end: the real modbus_server on
the demo store, asked by pymodbus masters over real sockets and a socat pseudo-terminal, and by
hand-made frames for what a master would not send (bad checksums, cut and joined frames), and
a UDP flood beside a TCP master.

usage: framings_e2e.py BUILD_DIR SOURCE_DIR
"""
import json
import logging
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "server"))
import e2e_rig  # noqa: E402
from e2e_rig import STATS, Rig, check, wait_for  # noqa: E402
from pymodbus.client import ModbusSerialClient, ModbusTcpClient, ModbusUdpClient  # noqa: E402
from pymodbus.transaction import ModbusAsciiFramer, ModbusRtuFramer  # noqa: E402

logging.basicConfig(level=logging.CRITICAL)
# The demo's battery charge: a register that nothing changes.
CHARGE = 16
SETPOINT = 27


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def crc16(data):
    crc = 0xFFFF
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0xA001 if crc & 1 else crc >> 1
    return bytes([crc & 0xFF, crc >> 8])


def rtu(address, pdu):
    return bytes([address]) + pdu + crc16(bytes([address]) + pdu)


def ascii_line(address, pdu, lrc=None):
    body = bytes([address]) + pdu
    lrc = (-sum(body)) & 0xFF if lrc is None else lrc
    return b":" + (body + bytes([lrc])).hex().upper().encode() + b"\r\n"


def mbap(tid, unit, pdu):
    return tid.to_bytes(2, "big") + b"\0\0" + (len(pdu) + 1).to_bytes(2, "big") + bytes([unit]) + pdu


READ_CHARGE = bytes([3, 0, CHARGE, 0, 1])


class FramingsRig(Rig):
    """The demo store with RTU over TCP and UDP ports, and its serial line speaking ASCII on
    one end of a socat pty pair (masters use the other end, self.tty)."""

    def __init__(self, build, source):
        self.pty_dir = tempfile.mkdtemp(prefix="framings-e2e-pty.")
        tty = os.path.join(self.pty_dir, "ttyServer")
        self.tty = os.path.join(self.pty_dir, "ttyClient")
        self.socat = subprocess.Popen(
            ["socat", f"pty,raw,echo=0,link={tty}", f"pty,raw,echo=0,link={self.tty}"])
        wait_for(lambda: os.path.exists(self.tty), "the pty pair")
        super().__init__(build, source, serial_port=tty, prefix="framings-e2e.")
        self.rtu_port = e2e_rig.free_port()
        self.udp_port = free_udp_port()
        uint = lambda v: {"Value": {"$type": "uint", "$value": v}}  # noqa: E731
        eds = os.path.join(source, "demo", "eds", "power.eds")
        settings = {"Software": {"Data Servers": {"Modbus": {"Interface Type": {
            "RTU over TCP": {"Port": uint(self.rtu_port), "Mappings": {"Unit1": {
                "Slave ID": uint(1), "Device Path": {"Value": "/Devices/Power"},
                "EDS Paths": {"Value": eds}}}},
            "UDP": {"Port": uint(self.udp_port)},
            "Serial": {"Interface": {"COM1": {
                "Protocol": {"Value": "ASCII"}, "Char Size": uint(7),
                "Inter-Character Timeout": uint(300)}}}}}}}}
        self.load_text(json.dumps(settings), "framings.json")
        self.start()

    def close(self):
        super().close()
        self.socat.terminate()
        self.socat.wait(timeout=10)
        shutil.rmtree(self.pty_dir, ignore_errors=True)


def registers(rsp):
    return None if rsp.isError() else rsp.registers


def exception_code(rsp):
    return getattr(rsp, "exception_code", None)


def master_checks(client, where):
    """What every master does: a read, a write read back, and a refused read."""
    check(f"{where}: read", registers(client.read_holding_registers(CHARGE, 1, slave=1)), [97])
    check(f"{where}: write", client.write_register(SETPOINT, 2351, slave=1).isError(), False)
    check(f"{where}: read back", registers(client.read_holding_registers(SETPOINT, 1, slave=1)),
          [2351])
    check(f"{where}: unmapped read", exception_code(client.read_holding_registers(0xF000, 1,
                                                                                  slave=1)), 2)


def rtu_over_tcp(rig):
    client = ModbusTcpClient("127.0.0.1", port=rig.rtu_port, framer=ModbusRtuFramer, timeout=2,
                             retries=0)
    client.connect()
    master_checks(client, "rtu over tcp")
    client.close()

    answer = rtu(1, bytes([3, 2, 0, 97]))
    with socket.create_connection(("127.0.0.1", rig.rtu_port), timeout=2) as s:
        good = rtu(1, READ_CHARGE)
        # A frame with a bad CRC is dropped, and the bytes up to the next frame with it.
        s.sendall(good[:-1] + b"\x00" + b"\x55\xAA" + good)
        check("rtu over tcp: bad CRC skipped", s.recv(64), answer)
        s.sendall(good[:3])
        time.sleep(0.2)
        s.sendall(good[3:])
        check("rtu over tcp: frame cut in two", s.recv(64), answer)
        s.sendall(good + good)
        got = b""
        while len(got) < 2 * len(answer):
            got += s.recv(64)
        check("rtu over tcp: two frames in one write", got, answer + answer)
        # No unit 9: exception 10, as over TCP; address 0 is a broadcast nobody answers.
        s.sendall(rtu(0, READ_CHARGE) + rtu(9, READ_CHARGE))
        check("rtu over tcp: unknown unit", s.recv(64), rtu(9, bytes([0x83, 0x0A])))
        # A frame that never completes ends the connection after the response time-out.
        s.sendall(good[:5])
        start = time.monotonic()
        s.settimeout(5)
        check("rtu over tcp: incomplete frame closes", s.recv(64), b"")
        # Not before the response time-out (1 s); the upper bound only catches "never".
        check("rtu over tcp: after the time-out", 0.8 < time.monotonic() - start < 4.5, True)
    node = f"{STATS}/RTU over TCP"
    rig.leaf_becomes(f"{node}/Checksum Errors/Value", 1)
    rig.leaf_becomes(f"{node}/Unknown Units/Value", 2)
    # pymodbus's four and the raw socket's seven.
    rig.leaf_becomes(f"{node}/Messages/Value", 11)
    rig.leaf_becomes(f"{node}/Connections Open/Value", 0)
    rig.leaf_becomes(f"{node}/Unit 1/Requests/Value", 8)


def udp(rig):
    client = ModbusUdpClient("127.0.0.1", port=rig.udp_port, timeout=2, retries=0)
    client.connect()
    master_checks(client, "udp")
    check("udp: unknown unit", exception_code(client.read_holding_registers(CHARGE, 1, slave=9)),
          10)
    client.close()

    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(0.5)
        where = ("127.0.0.1", rig.udp_port)
        request = mbap(7, 1, READ_CHARGE)
        s.sendto(request, where)
        check("udp: raw read", s.recv(300), mbap(7, 1, bytes([3, 2, 0, 97])))
        # Each of these datagrams disagrees with its MBAP length: none is answered.
        for what, datagram in [("two frames in one datagram", request + request),
                               ("first half", request[:6]), ("second half", request[6:]),
                               ("a byte too many", request + b"\0")]:
            s.sendto(datagram, where)
            try:
                got = s.recv(300)
            except socket.timeout:
                got = None
            check(f"udp: {what} unanswered", got, None)
    rig.leaf_becomes(f"{STATS}/UDP/Datagrams Dropped/Value", 4)
    rig.leaf_becomes(f"{STATS}/UDP/Unknown Units/Value", 1)
    rig.leaf_becomes(f"{STATS}/UDP/Messages/Value", 6)
    rig.leaf_becomes(f"{STATS}/UDP/Datagrams Refused/Value", 0)


# Sends one read request after another to the UDP port for the given seconds, reading nothing,
# and prints how many it sent.
FLOOD = """
import socket, sys, time
port, seconds = int(sys.argv[1]), float(sys.argv[2])
request = bytes.fromhex(sys.argv[3])
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.connect(("127.0.0.1", port))
sent, end = 0, time.monotonic() + seconds
while time.monotonic() < end:
    for _ in range(100):
        try:
            s.send(request)
            sent += 1
        except OSError:
            pass
print(sent)
"""


def udp_flood(rig):
    """UDP as fast as one client can send, while a TCP master goes on being served. Each TCP
    read must be answered within the client's (generous) time-out; how fast is not asked."""
    refused_before = rig.leaf(f"{STATS}/UDP/Datagrams Refused/Value")
    flooder = subprocess.Popen([sys.executable, "-c", FLOOD, str(rig.udp_port), "3",
                                mbap(1, 1, READ_CHARGE).hex()], stdout=subprocess.PIPE, text=True)
    client = ModbusTcpClient("127.0.0.1", port=rig.port, timeout=5, retries=0)
    client.connect()
    served = failed = 0
    while flooder.poll() is None:
        if registers(client.read_holding_registers(CHARGE, 1, slave=1)) == [97]:
            served += 1
        else:
            failed += 1
    client.close()
    sent = int(flooder.communicate(timeout=10)[0])
    print(f"     flood: {sent} datagrams sent, {served} TCP reads served meanwhile")
    check("flood: TCP reads served during the flood", served > 0 and failed == 0, True)
    # Past the peer's rate the datagrams were refused before any handler saw them.
    wait_for(lambda: rig.leaf(f"{STATS}/UDP/Datagrams Refused/Value") > refused_before,
             "refused datagrams in the statistics")
    # The peer's credit comes back within a second.
    time.sleep(1.1)
    client = ModbusUdpClient("127.0.0.1", port=rig.udp_port, timeout=2, retries=0)
    client.connect()
    check("flood: UDP served after it", registers(client.read_holding_registers(CHARGE, 1, slave=1)),
          [97])
    client.close()


def ascii_serial(rig):
    # A pty carries no parity or character size: the master's side runs 8N1.
    client = ModbusSerialClient(port=rig.tty, framer=ModbusAsciiFramer, baudrate=19200,
                                timeout=1, retries=0, strict=False)
    client.connect()
    # pymodbus 3.0 opens the port with a time-out of 0; keep it open with a real one.
    client.socket.timeout = 1
    client.transaction.reset_socket = False
    master_checks(client, "ascii")
    line = client.socket
    answer = ascii_line(1, bytes([3, 2, 0, 97]))
    good = ascii_line(1, READ_CHARGE)

    def exchange(what, data, want, pause=0.0, cut=None):
        line.reset_input_buffer()
        if cut is None:
            line.write(data)
        else:
            line.write(data[:cut])
            line.flush()
            time.sleep(pause)
            line.write(data[cut:])
        line.timeout = 0.5
        got = line.read(len(want) if want else 64)
        check(f"ascii: {what}", got, want)

    exchange("raw read", good, answer)
    exchange("bad LRC", ascii_line(1, READ_CHARGE, lrc=0), b"")
    exchange("not hex", good[:5] + b"G" + good[6:], b"")
    exchange("no CR LF, then a frame", good[:-2] + good, answer)
    exchange("frame cut in two", good, answer, pause=0.1, cut=7)
    exchange("silence inside a frame", good, b"", pause=0.6, cut=7)
    exchange("the line goes on", good, answer)
    client.close()
    rig.leaf_becomes(f"{STATS}/Serial/COM1/Checksum Errors/Value", 4)


if __name__ == "__main__":
    sys.exit(e2e_rig.main(__doc__, FramingsRig, rtu_over_tcp, udp, udp_flood, ascii_serial))
