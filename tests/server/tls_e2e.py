#!/usr/bin/python3
"""The secure Modbus TCP port end to end: the real modbus_server on the demo store, with
certificates from scripts/tls-certs.sh, asked by pymodbus's TLS client and by the openssl
command line, and handshakes that are garbage, cut short or asking to renegotiate.

usage: tls_e2e.py BUILD_DIR SOURCE_DIR
"""
import logging
import os
import select
import socket
import ssl
import subprocess
import sys
import time

import e2e_rig
from e2e_rig import STATS, Rig, check, free_port, listening

sys.path.insert(0, os.path.join(sys.argv[2] if len(sys.argv) > 2 else ".", "scripts"))
import modbus_tls_client  # noqa: E402  (pymodbus's TLS client made to read reliably)

logging.basicConfig(level=logging.CRITICAL)

SECURITY = "/Software/Data Servers/Modbus/Interface Type/TCP/Security"
# Read register 8 of unit 1, as MBAP bytes for the command-line client.
READ_8 = bytes([0, 1, 0, 0, 0, 6, 1, 3, 0, 8, 0, 1])


class TlsRig(Rig):
    """The demo store with a secure port only, roles Operator (functions 1 to 6, 15 and 16)
    and Viewer (1 to 4), a handshake time-out of 1 s, and the certificates in self.certs,
    with keys of key_type; more: further security settings."""

    def __init__(self, build, source, key_type="ec", more=None):
        super().__init__(build, source, prefix="tls-e2e.")
        self.certs = os.path.join(self.dir, "certs")
        subprocess.run(["bash", os.path.join(source, "scripts", "tls-certs.sh"), self.certs],
                       check=True, stdout=subprocess.DEVNULL,
                       env=dict(os.environ, TLS_KEY_TYPE=key_type))
        self.tls_port = free_port()

        def leaf(value):
            if isinstance(value, int):
                return f'{{ "Value": {{ "$type": "uint", "$value": {value} }} }}'
            return f'{{ "Value": "{value}" }}'
        settings = {
            "Port": self.tls_port, "Certificate": self.cert("server.crt"),
            "Private Key": self.cert("server.key"), "CA Bundle": self.cert("ca.crt"),
            "Handshake Timeout": 1, **(more or {}),
        }
        roles = {"Operator": "1-6,15,16", "Viewer": "1-4"}
        body = ", ".join(f'"{k}": {leaf(v)}' for k, v in settings.items())
        body += ', "Roles": {' + ", ".join(
            f'"{r}": {{ "Function Codes": {leaf(f)} }}' for r, f in roles.items()) + "}"
        path = SECURITY.strip("/").split("/")
        text = body
        for node in reversed(path):
            text = f'"{node}": {{ {text} }}'
        self.load_text("{ " + text + " }", "security.json")
        self.start("-D", "1", wait_port=self.tls_port)
        self.lines_seen = 0

    def cert(self, name):
        return os.path.join(self.certs, name)

    def handshake_failed(self, reason):
        """Whether the log tells within 2 s of a failed handshake giving reason, in a line
        after those that answered earlier calls."""
        end = time.monotonic() + 2
        while time.monotonic() < end:
            lines = self.log().splitlines()
            for i in range(self.lines_seen, len(lines)):
                if "TLS handshake with '127.0.0.1' failed" in lines[i] and reason in lines[i]:
                    self.lines_seen = i + 1
                    return True
            time.sleep(0.05)
        print(self.log())
        return False


def pymodbus_client(rig, name):
    return modbus_tls_client.connect("127.0.0.1", rig.tls_port, rig.certs, name)


def exception_code(rsp):
    return getattr(rsp, "exception_code", None) if rsp.isError() else None


def pymodbus_roles(rig):
    check("the plain port is closed once a secure one is set", listening(rig.port), False)
    operator = pymodbus_client(rig, "client-Operator")
    rsp = operator.read_holding_registers(8, 2, slave=1)
    check("Operator reads", rsp.isError(), False)
    check("Operator writes the setpoint", operator.write_register(27, 2351, slave=1).isError(),
          False)
    check("Operator reads the setpoint back", operator.read_holding_registers(27, 1, slave=1)
          .registers, [2351])
    viewer = pymodbus_client(rig, "client-Viewer")
    check("Viewer reads", viewer.read_holding_registers(8, 2, slave=1).isError(), False)
    check("Viewer may not write", exception_code(viewer.write_register(27, 2300, slave=1)), 1)
    check("Viewer may not write coils", exception_code(viewer.write_coil(0, True, slave=1)), 1)
    nobody = pymodbus_client(rig, "client-none")
    check("no role, no default role: refused", exception_code(
        nobody.read_holding_registers(8, 2, slave=1)), 1)
    # The refusals are exceptions 1 of unit 1, counted like any other.
    rig.leaf_becomes(f"{STATS}/TCP/Unit 1/Exception 1/Value", 3)
    for client in (operator, viewer, nobody):
        client.close()

    for name, reason in ((None, "certificate"),
                         ("client-foreign", "unable to get local issuer certificate"),
                         ("client-expired", "certificate has expired")):
        client = pymodbus_client(rig, name)
        rsp = client.read_holding_registers(8, 2, slave=1) if client.socket else None
        check(f"{name or 'no certificate'}: refused", rsp is None or rsp.isError(), True)
        check(f"{name or 'no certificate'}: logged", rig.handshake_failed(reason), True)
        client.close()


def s_client(rig, name, *options):
    args = ["openssl", "s_client", "-connect", f"127.0.0.1:{rig.tls_port}",
            "-CAfile", rig.cert("ca.crt"), *options]
    if name:
        args += ["-cert", rig.cert(f"{name}.crt"), "-key", rig.cert(f"{name}.key")]
    return subprocess.Popen(args, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT)


def read_for(stream, seconds):
    """What stream gives within seconds, or until it ends."""
    data = b""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        ready, _, _ = select.select([stream], [], [], end - time.monotonic())
        if not ready:
            break
        chunk = os.read(stream.fileno(), 4096)
        if not chunk:
            break
        data += chunk
    return data


def openssl_clients(rig):
    answer = bytes([0, 1, 0, 0, 0, 5, 1, 3, 2])
    proc = s_client(rig, "client-Operator", "-quiet")
    proc.stdin.write(READ_8)
    proc.stdin.flush()
    check("s_client Operator: an answer", read_for(proc.stdout, 2)[-11:-2], answer)
    proc.kill()
    proc.wait()

    proc = s_client(rig, "client-Viewer", "-quiet")
    proc.stdin.write(bytes([0, 2, 0, 0, 0, 6, 1, 6, 0, 27, 0x08, 0xFC]))
    proc.stdin.flush()
    check("s_client Viewer: write refused", read_for(proc.stdout, 2)[-9:],
          bytes([0, 2, 0, 0, 0, 3, 1, 0x86, 1]))
    proc.kill()
    proc.wait()

    for name, reason in ((None, "certificate"),
                         ("client-foreign", "unable to get local issuer certificate"),
                         ("client-expired", "certificate has expired")):
        proc = s_client(rig, name, "-quiet")
        proc.stdin.write(READ_8)
        proc.stdin.flush()
        got = read_for(proc.stdout, 2)
        check(f"s_client {name or 'without certificate'}: no answer", answer in got, False)
        check(f"s_client {name or 'without certificate'}: logged", rig.handshake_failed(reason),
              True)
        proc.kill()
        proc.wait()

    # Renegotiation ("R" on a line of its own asks for it in TLS 1.2) is refused.
    proc = s_client(rig, "client-Operator", "-tls1_2")
    time.sleep(0.5)
    proc.stdin.write(b"R\n")
    proc.stdin.flush()
    out = read_for(proc.stdout, 2).decode(errors="replace")
    check("s_client: renegotiation refused", "RENEGOTIATING" in out and "no renegotiation" in out,
          True)
    proc.kill()
    proc.wait()


def closed_within(sock, seconds):
    """Whether the server closes sock within seconds (an alert before is fine)."""
    end = time.monotonic() + seconds
    try:
        while time.monotonic() < end:
            sock.settimeout(max(0.01, end - time.monotonic()))
            if sock.recv(100) == b"":
                return True
    except OSError:  # reset, or the time-out
        return time.monotonic() < end
    return False


def cipher_suites(rig, build, source):
    """The suites every secure Modbus master may rely on: AES128-SHA256 by default, and the
    integrity-only NULL-SHA256 when the integrator lists it. Both need an RSA server key,
    so they run on a second server, which also has a default role."""
    answer = bytes([0, 1, 0, 0, 0, 5, 1, 3, 2])
    # On the first server, whose key is ECDSA: NULL-SHA256 is not offered, and AES128-SHA256
    # cannot be agreed without an RSA key.
    for cipher in ("NULL-SHA256:@SECLEVEL=0", "AES128-SHA256"):
        proc = s_client(rig, "client-Operator", "-quiet", "-tls1_2", "-cipher", cipher)
        proc.stdin.write(READ_8)
        proc.stdin.flush()
        check(f"ECDSA key, {cipher}: refused", answer in read_for(proc.stdout, 2), False)
        check(f"ECDSA key, {cipher}: logged", rig.handshake_failed("no shared cipher"), True)
        proc.kill()
        proc.wait()

    rsa = TlsRig(build, source, "rsa",
                 {"TLS 1.2 Ciphers": "ECDHE-RSA-AES128-GCM-SHA256:AES128-SHA256:NULL-SHA256:"
                                     "@SECLEVEL=0", "Default Role": "Viewer"})
    try:
        # And a default role: a certificate without a role gets Viewer's rights.
        nobody = modbus_tls_client.connect("127.0.0.1", rsa.tls_port, rsa.certs, "client-none")
        check("default role: reads", nobody.read_holding_registers(8, 2, slave=1).isError(),
              False)
        check("default role: no writes", exception_code(nobody.write_register(27, 2300, slave=1)),
              1)
        nobody.close()
        for cipher in ("AES128-SHA256", "NULL-SHA256:@SECLEVEL=0"):
            proc = s_client(rsa, "client-Operator", "-quiet", "-tls1_2", "-cipher", cipher)
            proc.stdin.write(READ_8)
            proc.stdin.flush()
            check(f"RSA key, {cipher}: an answer", read_for(proc.stdout, 2)[-11:-2], answer)
            proc.kill()
            proc.wait()
    finally:
        rsa.close()


def bad_handshakes(rig):
    # Garbage: a plain-text request on the secure port is dropped at once.
    with socket.create_connection(("127.0.0.1", rig.tls_port), timeout=3) as s:
        s.sendall(b"GET / HTTP/1.0\r\n\r\n")
        check("garbage: dropped", closed_within(s, 2), True)
    check("garbage: logged", rig.handshake_failed("http request"), True)

    # Cut short: half a client hello, then nothing. The server drops it after its time-out,
    # and serves other clients meanwhile.
    outgoing = ssl.MemoryBIO()
    hello = ssl.create_default_context().wrap_bio(ssl.MemoryBIO(), outgoing,
                                                  server_hostname="localhost")
    try:
        hello.do_handshake()
    except ssl.SSLWantReadError:
        pass
    first = outgoing.read()
    stalled = socket.create_connection(("127.0.0.1", rig.tls_port), timeout=4)
    stalled.sendall(first[:len(first) // 2])
    start = time.monotonic()
    other = pymodbus_client(rig, "client-Operator")
    check("meanwhile another client is served",
          other.read_holding_registers(8, 2, slave=1).isError(), False)
    other.close()
    check("cut short: closed after the time-out", closed_within(stalled, 3), True)
    check("cut short: not before it", time.monotonic() - start > 0.9, True)
    check("cut short: logged", rig.handshake_failed("not completed within 1 s"), True)
    stalled.close()


if __name__ == "__main__":
    sys.exit(e2e_rig.main(__doc__, TlsRig, pymodbus_roles, openssl_clients,
                          lambda rig: cipher_suites(rig, sys.argv[1], sys.argv[2]),
                          bad_handshakes))
