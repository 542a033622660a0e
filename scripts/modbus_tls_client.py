#!/usr/bin/python3
"""Reads or writes holding registers over the secure Modbus port with pymodbus, using a
client certificate made by scripts/tls-certs.sh (or any with a role in it).

  modbus_tls_client.py CERTS NAME [--host H] [--port P] [--unit U] read ADDRESS [COUNT]
  modbus_tls_client.py CERTS NAME [--host H] [--port P] [--unit U] write ADDRESS VALUE...

CERTS is the folder with ca.crt and NAME.crt and NAME.key, e.g. client-Operator. Prints the
registers read, "written", or the Modbus exception code; exits 1 on an exception or when
the server does not answer (a refused certificate among others)."""
import argparse
import logging
import os
import ssl
import sys

from pymodbus.client import ModbusTlsClient
from pymodbus.framer.socket_framer import ModbusSocketFramer


class TlsClient(ModbusTlsClient):
    """pymodbus 3.0's TLS client, but for its reads. They wait for the socket to become
    readable, and miss what the TLS layer holds already: the rest of an answer whose first
    bytes were taken, or data behind a TLS 1.3 session ticket. Here reads wait on TLS."""

    def recv(self, size):
        self.socket.settimeout(self.params.timeout)
        data = b""
        want = size or 4096
        while len(data) < want:
            try:
                chunk = self.socket.recv(want - len(data))
            except (OSError, ssl.SSLError):  # time-out, or the server's alert
                break
            if not chunk:
                break
            data += chunk
            if size is None:
                break
        return data


def connect(host, port, certs, name, timeout=2):
    """A connected client that trusts certs/ca.crt and shows certs/name.crt (name None:
    no certificate). pymodbus 3.0 frames TLS without the MBAP header unless told otherwise;
    the secure Modbus protocol keeps it."""
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    ctx.load_verify_locations(os.path.join(certs, "ca.crt"))
    if name:
        ctx.load_cert_chain(os.path.join(certs, f"{name}.crt"), os.path.join(certs, f"{name}.key"))
    client = TlsClient(host, port=port, sslctx=ctx, server_hostname="localhost",
                       framer=ModbusSocketFramer, timeout=timeout, retries=0)
    client.connect()
    return client


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("certs")
    parser.add_argument("name")
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=802)
    parser.add_argument("--unit", type=int, default=1)
    parser.add_argument("action", choices=("read", "write"))
    parser.add_argument("address", type=int)
    parser.add_argument("values", type=int, nargs="*")
    args = parser.parse_args()
    logging.basicConfig(level=logging.CRITICAL)
    client = connect(args.host, args.port, args.certs, args.name)
    if args.action == "read":
        rsp = client.read_holding_registers(args.address, (args.values or [1])[0], slave=args.unit)
    else:
        rsp = client.write_registers(args.address, args.values, slave=args.unit)
    client.close()
    if rsp.isError():
        code = getattr(rsp, "exception_code", None)
        print(f"exception {code}" if code else f"no answer: {rsp}")
        return 1
    print(" ".join(str(r) for r in rsp.registers) if args.action == "read" else "written")
    return 0


if __name__ == "__main__":
    sys.exit(main())
