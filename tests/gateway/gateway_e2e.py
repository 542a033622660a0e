#!/usr/bin/python3
"""The gateway end to end: the real modbus_server on the demo store with three gateway lines
on socat pseudo-terminals. Line GW1 has a libmodbus slave (rtu_test_slave) answering for
address 5, and lists 6 too, which nobody answers; GW2 lists 7 and has no slave at all; GW3
lists 8, whose slave's line echoes what it is sent; GW4 lists 9 on a port that does not
exist. Masters: pymodbus and libmodbus (modbus_load) over TCP, pymodbus over TLS, raw MBAP
frames over TCP and UDP, and raw RTU frames over TCP.

usage: gateway_e2e.py BUILD_DIR SOURCE_DIR
"""
import json
import logging
import os
import shutil
import socket
import struct
import subprocess
import sys
import threading
import time

import e2e_rig
from e2e_rig import STATS, Rig, check, free_port, wait_for

sys.path.insert(0, os.path.join(sys.argv[2] if len(sys.argv) > 2 else ".", "scripts"))
import modbus_tls_client  # noqa: E402
from pymodbus.client import ModbusTcpClient  # noqa: E402

logging.basicConfig(level=logging.CRITICAL)

SERIAL = "/Software/Data Servers/Modbus/Interface Type/Serial/Interface"
SECURITY = "/Software/Data Servers/Modbus/Interface Type/TCP/Security"
TYPES = "/Software/Data Servers/Modbus/Interface Type"
TIMEOUT_MS = 300
TURNAROUND_MS = 200


class GatewayRig(Rig):
    def __init__(self, build, source):
        super().__init__(build, source, prefix="gateway-e2e.")
        self.source = source
        self.ptys = {}
        self.helpers = []
        # COM1 is a slave line whose master's end echoes what the server sends.
        for line, echo in (("GW1", 0), ("GW2", 0), ("GW3", 0), ("COM1", 1)):
            ours, theirs = (os.path.join(self.dir, f"{line}-{end}") for end in ("ours", "other"))
            self.helpers.append(subprocess.Popen(
                ["socat", f"pty,raw,echo=0,link={ours}",
                 f"pty,raw,echo={echo},echoctl=0,link={theirs}"]))
            wait_for(lambda: os.path.exists(theirs), "the pty pair")
            self.ptys[line] = (ours, theirs)
        self.slave("GW1", "5")
        self.slave("GW3", "8", "--echo")
        settings = {}
        for line, units, more in (("GW1", "5,6", {"Dead After": 2, "Retry Dead": 2,
                                                   "Turnaround Delay": TURNAROUND_MS}),
                                  ("GW2", "7", {}), ("GW3", "8", {"Local Echo": "true"})):
            node = f"{SERIAL}/{line}"
            settings.update({f"{node}/Serial Port/Value": self.ptys[line][0],
                             f"{node}/Baud Rate/Value": 115200, f"{node}/Role/Value": "Gateway",
                             f"{node}/Downstream/Value": units,
                             f"{node}/Response Timeout/Value": TIMEOUT_MS,
                             f"{node}/RS485/Value": "true"})
            settings.update({f"{node}/{k}/Value": v for k, v in more.items()})
        settings.update({f"{SERIAL}/GW4/Serial Port/Value": os.path.join(self.dir, "no-such-tty"),
                         f"{SERIAL}/GW4/Role/Value": "Gateway",
                         f"{SERIAL}/GW4/Downstream/Value": "9"})
        self.rtu_port, self.udp_port = free_port(), free_port()
        settings.update({f"{TYPES}/RTU over TCP/Port/Value": self.rtu_port,
                         f"{TYPES}/UDP/Port/Value": self.udp_port})
        node = f"{SERIAL}/COM1"
        settings.update({f"{node}/Serial Port/Value": self.ptys["COM1"][0],
                         f"{node}/Local Echo/Value": "true", f"{node}/Response Delay/Value": 50,
                         f"{node}/Mappings/Power/Slave ID/Value": 1,
                         f"{node}/Mappings/Power/Device Path/Value": "/Devices/Power",
                         f"{node}/Mappings/Power/EDS Paths/Value":
                             os.path.join(source, "demo", "eds", "power.eds")})
        self.certs = os.path.join(self.dir, "certs")
        subprocess.run(["bash", os.path.join(source, "scripts", "tls-certs.sh"), self.certs],
                       check=True, stdout=subprocess.DEVNULL)
        self.tls_port = free_port()
        settings.update({f"{SECURITY}/Port/Value": self.tls_port,
                         f"{SECURITY}/Certificate/Value": f"{self.certs}/server.crt",
                         f"{SECURITY}/Private Key/Value": f"{self.certs}/server.key",
                         f"{SECURITY}/CA Bundle/Value": f"{self.certs}/ca.crt",
                         f"{SECURITY}/Plain Port Open/Value": "true",
                         f"{SECURITY}/Roles/Viewer/Function Codes/Value": "1-4",
                         f"{SECURITY}/Roles/Viewer/Unit IDs/Value": "1,5"})
        self.load_text(json.dumps(settings), "gateway.json")
        self.start()

    def slave(self, line, units, *args):
        self.helpers.append(subprocess.Popen(
            [os.path.join(self.build, "rtu_test_slave"), self.ptys[line][1], units, *args],
            stdout=subprocess.DEVNULL))

    def client(self):
        c = ModbusTcpClient("127.0.0.1", port=self.port, timeout=3, retries=0)
        c.connect()
        return c

    def close(self):
        super_dir = self.dir
        for p in self.procs:
            p.terminate()
            p.wait(timeout=10)
        self.procs = []
        for p in reversed(self.helpers):
            p.terminate()
            p.wait(timeout=10)
        shutil.rmtree(super_dir, ignore_errors=True)


def exception_of(rsp):
    return getattr(rsp, "exception_code", None) if rsp.isError() else None


def timed(call):
    start = time.monotonic()
    result = call()
    return result, time.monotonic() - start


def reads_and_writes(rig):
    c = rig.client()
    rsp = c.read_holding_registers(0, 4, slave=5)
    check("read through the gateway", None if rsp.isError() else rsp.registers, [0, 10, 20, 30])
    check("write through the gateway", c.write_register(3, 1234, slave=5).isError(), False)
    check("written value reads back", c.read_holding_registers(3, 1, slave=5).registers, [1234])
    check("coils", c.read_coils(0, 4, slave=5).bits[:4], [False, True, False, True])
    check("the slave's exception comes back", exception_of(c.read_holding_registers(500, 1, slave=5)), 2)
    check("a local unit still answers", c.read_holding_registers(8, 1, slave=1).isError(), False)
    c.close()
    # A libmodbus master: one second of back-to-back reads, every one answered.
    out = subprocess.run([os.path.join(rig.build, "modbus_load"), "--port", str(rig.port),
                          "--unit", "5", "--request", "read1", "--duration", "1"],
                         capture_output=True, text=True)
    check("libmodbus master, exit status", out.returncode, 0)
    check("libmodbus master, no failed request", "errors: 0" in out.stdout, True)


def echo_line(rig):
    c = rig.client()
    rsp = c.read_holding_registers(1, 2, slave=8)
    check("read on the echoing line", None if rsp.isError() else rsp.registers, [10, 20])
    c.close()
    rig.leaf_becomes(f"{STATS}/Serial/GW3/Echo Errors/Value", 0)
    check("RS485 on a pty is one info line per line",
          rig.log().count("the driver has no RS-485 settings"), 3)


def silent_line(rig):
    """Unit 7's line has no slave: exception 11 after the time-out, while GW1 serves."""
    results = {}

    def ask_7():
        c = rig.client()
        results["7"] = timed(lambda: exception_of(c.read_holding_registers(0, 1, slave=7)))
        c.close()
    t = threading.Thread(target=ask_7)
    t.start()
    c = rig.client()
    time.sleep(0.05)
    latency = []
    for _ in range(5):
        rsp, took = timed(lambda: c.read_holding_registers(0, 1, slave=5))
        latency.append(took)
    t.join()
    c.close()
    code, took = results["7"]
    check("no slave: exception 11", code, 11)
    check("no slave: after the time-out", TIMEOUT_MS / 1000 <= took < 2, True)
    check("the other line is not held up", max(latency) < TIMEOUT_MS / 1000 / 2, True)


def eight_masters(rig):
    """Eight masters at once on one line, each writing its own register and reading it back:
    every answer is its own, in order."""
    bad = []

    def master(i):
        c = rig.client()
        for n in range(15):
            value = i * 1000 + n
            if c.write_register(10 + i, value, slave=5).isError():
                bad.append((i, n, "write"))
            rsp = c.read_holding_registers(10 + i, 1, slave=5)
            if rsp.isError() or rsp.registers != [value]:
                bad.append((i, n, rsp))
        c.close()
    threads = [threading.Thread(target=master, args=(i,)) for i in range(8)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    check("eight masters, every answer their own", bad, [])


def mbap(tid, unit, pdu):
    return struct.pack(">HHHB", tid, 0, len(pdu) + 1, unit) + pdu


def broadcast(rig):
    """A broadcast and a read behind it on one connection: the read waits for the line's
    Turnaround Delay, and is the only thing answered."""
    s = socket.create_connection(("127.0.0.1", rig.port))
    s.settimeout(3)
    s.sendall(mbap(1, 0, struct.pack(">BHH", 6, 2, 4321)) + mbap(2, 5, struct.pack(">BHH", 3, 2, 1)))
    got, took = timed(lambda: s.recv(100))
    check("the broadcast reached the slave, and is not answered",
          (got[:2], got[-2:]), (struct.pack(">H", 2), struct.pack(">H", 4321)))
    check("the bus rests for the Turnaround Delay after a broadcast", took >= TURNAROUND_MS / 1000,
          True)
    s.settimeout(0.3)
    try:
        got = s.recv(100)
    except socket.timeout:
        got = None
    check("nothing more comes", got, None)
    s.close()


def other_ways_in(rig):
    """Modbus/UDP and RTU over TCP reach the slaves too; a line whose port does not open
    answers exception 10."""
    u = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    u.settimeout(3)
    u.sendto(mbap(7, 5, struct.pack(">BHH", 3, 0, 2)), ("127.0.0.1", rig.udp_port))
    check("UDP through the gateway", u.recv(100), mbap(7, 5, bytes([3, 4, 0, 0, 0, 10])))
    u.close()
    t = socket.create_connection(("127.0.0.1", rig.rtu_port))
    t.settimeout(3)
    t.sendall(rtu(bytes([5, 3, 0, 1, 0, 1])))
    check("RTU over TCP through the gateway", t.recv(100), rtu(bytes([5, 3, 2, 0, 10])))
    t.close()
    c = rig.client()
    check("a line that did not open: exception 10",
          exception_of(c.read_holding_registers(0, 1, slave=9)), 10)
    c.close()


def dead_slave(rig):
    c = rig.client()
    took = [timed(lambda: exception_of(c.read_holding_registers(0, 1, slave=6))) for _ in range(3)]
    check("dead slave: exception 11 each time", [t[0] for t in took], [11, 11, 11])
    check("dead slave: the first two wait for the time-out",
          all(t[1] >= TIMEOUT_MS / 1000 for t in took[:2]), True)
    check("dead slave: then it is answered at once", took[2][1] < 0.1, True)
    # Slave 5 on the same line is not held up by it.
    rsp, t5 = timed(lambda: c.read_holding_registers(0, 1, slave=5))
    check("dead slave: its neighbour still answers", (rsp.isError(), t5 < 0.1), (False, True))
    time.sleep(2.1)  # Retry Dead: it is tried again, once
    code, t6 = timed(lambda: exception_of(c.read_holding_registers(0, 1, slave=6)))
    check("dead slave: tried again after Retry Dead", (code, t6 >= TIMEOUT_MS / 1000), (11, True))
    c.close()
    rig.leaf_becomes(f"{STATS}/Serial/GW1/Downstream 6/Time-outs/Value", 3)
    rig.leaf_becomes(f"{STATS}/Serial/GW1/Downstream 6/Requests/Value", 4)
    rig.leaf_becomes(f"{STATS}/Serial/GW1/Downstream 6/Answers/Value", 0)
    rig.leaf_becomes(f"{STATS}/Serial/GW1/Downstream 5/Exceptions/Value", 1)
    longest = rig.leaf(f"{STATS}/Serial/GW1/Downstream 5/Longest Response Time/Value")
    mean = rig.leaf(f"{STATS}/Serial/GW1/Downstream 5/Mean Response Time/Value")
    check("response times: 0 < mean <= longest", 0 < mean <= longest, True)


def roles(rig):
    viewer = modbus_tls_client.connect("127.0.0.1", rig.tls_port, rig.certs, "client-Viewer")
    rsp = viewer.read_holding_registers(0, 1, slave=5)
    check("TLS Viewer reads unit 5", None if rsp.isError() else rsp.registers, [0])
    check("TLS Viewer may not write unit 5", exception_of(viewer.write_register(0, 1, slave=5)), 1)
    check("TLS Viewer may not ask unit 7", exception_of(viewer.read_holding_registers(0, 1, slave=7)), 1)
    viewer.close()


def start_up_refusals(rig):
    """A unit id claimed by a TCP or RTU-over-TCP unit and a gateway line, and a Downstream
    list with 0, stop the start with one message each."""
    rig.ctl("set", f"{SERIAL}/GW2/Downstream/Value", "1,7")
    out = subprocess.run([rig.server_binary, "-Ns", "-c"], env=rig.env, capture_output=True,
                         text=True)
    check("clash: --check fails", out.returncode, 1)
    check("clash: the message names both", "TCP unit 1 of '/Devices/Power'" in out.stderr and
          "gateway line 'GW2'" in out.stderr, True)
    # An RTU-over-TCP unit claims 7, which GW2 lists.
    rig.ctl("set", f"{SERIAL}/GW2/Downstream/Value", "7")
    unit = f"{TYPES}/RTU over TCP/Mappings/Meter"
    rig.load_text(json.dumps({f"{unit}/Slave ID/Value": 7,
                              f"{unit}/Device Path/Value": "/Devices/Power",
                              f"{unit}/EDS Paths/Value":
                                  os.path.join(rig.source, "demo", "eds", "power.eds")}),
                  "rtu-unit.json")
    out = subprocess.run([rig.server_binary, "-Ns", "-c"], env=rig.env, capture_output=True,
                         text=True)
    check("clash with an RTU-over-TCP unit: named", "RTU over TCP unit 7 of '/Devices/Power'"
          in out.stderr and "gateway line 'GW2'" in out.stderr, True)
    rig.ctl("rm", f"{TYPES}/RTU over TCP/Mappings", "-r")
    rig.ctl("set", f"{SERIAL}/GW2/Downstream/Value", "0-7")
    out = subprocess.run([rig.server_binary, "-Ns", "-c"], env=rig.env, capture_output=True,
                         text=True)
    check("bad Downstream: named, line left out", "Gateway line 'GW2' left out" in out.stderr, True)
    rig.ctl("set", f"{SERIAL}/GW2/Downstream/Value", "7")


def rtu(pdu_bytes):
    crc = 0xFFFF
    for b in pdu_bytes:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0xA001 if crc & 1 else crc >> 1
    return pdu_bytes + struct.pack("<H", crc)


def slave_echo_and_delay(rig):
    """Slave line COM1 has Local Echo and a Response Delay of 50 ms; its master's pty echoes
    what the server sends."""
    fd = os.open(rig.ptys["COM1"][1], os.O_RDWR | os.O_NOCTTY)
    for n in range(2):
        os.write(fd, rtu(bytes([1, 3, 0, 8, 0, 1])))
        start = time.monotonic()
        answer = b""
        while len(answer) < 7 and time.monotonic() - start < 2:
            answer += os.read(fd, 64)
        took = time.monotonic() - start
        check(f"slave line with echo and delay, request {n + 1}", (answer[:3], took >= 0.05),
              (bytes([1, 3, 2]), True))
    os.close(fd)
    rig.leaf_becomes(f"{STATS}/Serial/COM1/Echo Errors/Value", 0)


if __name__ == "__main__":
    sys.exit(e2e_rig.main(__doc__, GatewayRig, reads_and_writes, echo_line, silent_line,
                          eight_masters, broadcast, other_ways_in, dead_slave, roles, start_up_refusals,
                          slave_echo_and_delay))
