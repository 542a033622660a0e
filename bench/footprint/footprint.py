#!/usr/bin/env python3
"""Memory and start-up of Modbus TCP servers, ours and the peers', on one fixture.

For each server: RSS, PSS and private dirty memory (from /proc/PID/smaps_rollup) idle after
start, then with 100 connections open that have each read 125 holding registers; and for
ours, the time from exec to the first answer on a store with 10,000 more mappings (median of
five starts).

  python3 bench/footprint/footprint.py [--build build] [--kit ../shared/bench]
                                       [--peers-build /tmp/modbus-bench/build]

The kit gives the fixture (make_fixture.py) and the peers (libmodbus_server, built by its
run_peers.sh into --peers-build; pymodbus_server.py); a peer that is not there is skipped.
"""
import argparse
import os
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time

PORT = 16120


def smaps(pid):
    """RSS, PSS and private dirty of a process, in kB."""
    fields = {}
    with open(f"/proc/{pid}/smaps_rollup") as f:
        for line in f:
            parts = line.split()
            if len(parts) >= 2 and parts[0].endswith(":"):
                fields[parts[0][:-1]] = parts[1]
    return tuple(int(fields.get(k, 0)) for k in ("Rss", "Pss", "Private_Dirty"))


def read_request(tid):
    # MBAP (transaction, protocol 0, length 6, unit 1) + read holding registers 0, 125
    return struct.pack(">HHHBBHH", tid, 0, 6, 1, 3, 0, 125)


def answered(sock, tid):
    sock.sendall(read_request(tid))
    want = 9 + 250
    got = b""
    while len(got) < want:
        chunk = sock.recv(want - len(got))
        if not chunk:
            return False
        got += chunk
    return got[7] == 3


def connect(port, timeout=2.0):
    s = socket.create_connection(("127.0.0.1", port), timeout=timeout)
    s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return s


def wait_answer(port, deadline):
    """Polls until the server answers a read; True when it did before the deadline."""
    while time.monotonic() < deadline:
        try:
            with connect(port, 0.5) as s:
                if answered(s, 1):
                    return True
        except OSError:
            time.sleep(0.001)
    return False


def make_store(build, kit, folder, extra):
    subprocess.run([sys.executable, os.path.join(kit, "make_fixture.py"), folder, str(PORT)]
                   + ([str(extra)] if extra else []), check=True, stdout=subprocess.DEVNULL)
    env = dict(os.environ, CDS_STORE=os.path.join(folder, "store.db"))
    cdsctl = os.path.join(build, "cdsctl")
    subprocess.run([cdsctl, "init"], env=env, check=True, stdout=subprocess.DEVNULL)
    subprocess.run([cdsctl, "load", os.path.join(folder, "store.json")], env=env, check=True,
                   stdout=subprocess.DEVNULL)
    # The default limit is 64 connections; the measure opens 100.
    subprocess.run([cdsctl, "set",
                    "/Software/Data Servers/Modbus/Interface Type/TCP/Max Connections/Value", "200",
                    "--type", "uint"],
                   env=env, check=True, stdout=subprocess.DEVNULL)
    return env


def measure(name, argv, env=None):
    proc = subprocess.Popen(argv, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        if not wait_answer(PORT, time.monotonic() + 20):
            print(f"{name}: did not answer", file=sys.stderr)
            return None
        time.sleep(1.0)
        idle = smaps(proc.pid)
        socks = []
        for i in range(100):
            s = connect(PORT)
            if not answered(s, i + 2):
                print(f"{name}: connection {i} not answered", file=sys.stderr)
            socks.append(s)
        time.sleep(0.5)
        busy = smaps(proc.pid)
        for s in socks:
            s.close()
        return idle, busy
    finally:
        proc.terminate()
        proc.wait()


def cpu_ns(pid):
    """CPU time the process's threads have used so far, from the scheduler's accounts."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/schedstat") as f:
            total += int(f.read().split()[0])
    return total


def startup(build, env, runs=5):
    """Medians of the wall time from exec to the first answer, and of the CPU time the
    server used until then (which a busy machine changes less)."""
    walls, cpus = [], []
    for _ in range(runs):
        t0 = time.monotonic()
        proc = subprocess.Popen([os.path.join(build, "modbus_server"), "-Ns", "-D", "1"], env=env,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        ok = wait_answer(PORT, t0 + 20)
        walls.append(time.monotonic() - t0)
        if ok:
            cpus.append(cpu_ns(proc.pid) / 1e9)
        proc.terminate()
        proc.wait()
        if not ok:
            return None
    return statistics.median(walls), statistics.median(cpus)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--build", default="build")
    ap.add_argument("--kit", default="../shared/bench")
    ap.add_argument("--peers-build", default=os.environ.get("BENCH_OUT", "/tmp/modbus-bench")
                    + "/build")
    ap.add_argument("--extra", type=int, default=10000, help="mappings added for start-up")
    args = ap.parse_args()

    rows = []
    with tempfile.TemporaryDirectory() as tmp:
        env = make_store(args.build, args.kit, os.path.join(tmp, "fixture"), 0)
        rows.append(("ours", measure("ours", [os.path.join(args.build, "modbus_server"), "-Ns",
                                              "-D", "1"], env)))
        peer = os.path.join(args.peers_build, "libmodbus_server")
        if os.access(peer, os.X_OK):
            rows.append(("libmodbus", measure("libmodbus", [peer, str(PORT), "127.0.0.1", "10000"])))
        script = os.path.join(args.kit, "pymodbus_server.py")
        if os.path.exists(script):
            # Debian's interpreter, where python3-pymodbus is installed
            rows.append(("pymodbus", measure("pymodbus", ["/usr/bin/python3", script, str(PORT),
                                                           "127.0.0.1", "10000"])))
        big = make_store(args.build, args.kit, os.path.join(tmp, "big"), args.extra)
        start = startup(args.build, big)

    print("| server | RSS idle | PSS idle | private dirty idle "
          "| RSS 100 conns | PSS 100 conns | private dirty 100 conns |")
    print("|---|---|---|---|---|---|---|")
    for name, m in rows:
        if m is None:
            print(f"| {name} | failed | | | | | |")
            continue
        (r, p, d), (r2, p2, d2) = m
        print(f"| {name} | {r/1024:.1f} MB | {p/1024:.1f} MB | {d/1024:.1f} MB "
              f"| {r2/1024:.1f} MB | {p2/1024:.1f} MB | {d2/1024:.1f} MB |")
    if start is None:
        print(f"start-up with {args.extra} more mappings: no answer")
    else:
        print(f"start-up with {args.extra} more mappings, exec to first answer: "
              f"{start[0]*1000:.0f} ms, of which the server's CPU {start[1]*1000:.0f} ms "
              f"(medians of 5)")


if __name__ == "__main__":
    main()
