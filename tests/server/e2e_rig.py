"""What the end-to-end scripts share: checks that are counted rather than fatal, and a rig
that runs the real modbus_server on a scratch copy of the demo store."""
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time

STATS = "/Software/Data Servers/Modbus/Statistics"
failures = []


def check(what, got, want):
    if got != want:
        failures.append(f"{what}: got {got!r}, want {want!r}")
        print(f"FAIL {what}: got {got!r}, want {want!r}")
    else:
        print(f"ok   {what}")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(ready, what, seconds=10):
    end = time.monotonic() + seconds
    while not ready():
        if time.monotonic() > end:
            raise SystemExit(f"e2e: {what} never came up")
        time.sleep(0.05)


def listening(port):
    try:
        socket.create_connection(("127.0.0.1", port), timeout=0.2).close()
        return True
    except OSError:
        return False


class Rig:
    """A scratch folder with a store made from the demo's, with its statistics leaves.
    serial_port: the line of the demo's serial interface, or None for no serial line."""

    def __init__(self, build, source, serial_port=None, prefix="e2e."):
        self.dir = tempfile.mkdtemp(prefix=prefix)
        self.env = dict(os.environ, CDS_STORE=os.path.join(self.dir, "store.db"))
        self.build = build
        self.cdsctl = os.path.join(build, "cdsctl")
        self.server_binary = os.path.join(build, "modbus_server")
        self.procs = []
        self.log_path = os.path.join(self.dir, "server.log")
        with open(os.path.join(source, "demo", "store.json")) as f:
            store = f.read().replace("@DEMO@", os.path.join(source, "demo"))
        self.port = free_port()
        store = store.replace("@SERIAL_PORT@", serial_port or "unused")
        store = store.replace('"$value": 5020', f'"$value": {self.port}')
        self.load_text(store, "store.json", init=True)
        if serial_port is None:
            self.ctl("rm", "/Software/Data Servers/Modbus/Interface Type/Serial/Interface", "-r")

    def load_text(self, text, name, init=False):
        path = os.path.join(self.dir, name)
        with open(path, "w") as f:
            f.write(text)
        if init:
            self.ctl("init")
        self.ctl("load", path)

    def start(self, *args, wait_port=None):
        """The server, its log in server.log; waits until wait_port (default: the plain
        port) takes connections. The integrator defines the statistics leaves; the server
        only fills them."""
        leaves = subprocess.run([self.server_binary, "-Ns", "--statistics-leaves"], env=self.env,
                                check=True, capture_output=True, text=True).stdout
        self.load_text(leaves, "statistics.json")
        log = open(self.log_path, "w")
        self.procs.append(subprocess.Popen([self.server_binary, "-Ns", *args], env=self.env,
                                           stdout=log, stderr=subprocess.STDOUT))
        port = wait_port or self.port
        wait_for(lambda: listening(port), "the server")

    def log(self):
        with open(self.log_path, errors="replace") as f:
            return f.read()

    def ctl(self, *args):
        return subprocess.run([self.cdsctl, *args], env=self.env, check=True,
                              capture_output=True, text=True).stdout

    def leaf(self, path):
        out = self.ctl("get", path).strip()
        return int(out.split()[-1]) if out else None

    def leaf_becomes(self, path, want):
        """The statistics are written at most once a second: wait up to 5 s for want."""
        end = time.monotonic() + 5
        got = self.leaf(path)
        while got != want and time.monotonic() < end:
            time.sleep(0.1)
            got = self.leaf(path)
        check(path[len(STATS) + 1:], got, want)

    def close(self):
        for p in reversed(self.procs):
            p.terminate()
            p.wait(timeout=10)
        shutil.rmtree(self.dir)


def main(usage, make_rig, *steps):
    """Runs each step on the rig that make_rig(BUILD_DIR, SOURCE_DIR) makes from the command
    line, then closes it; the exit status for the failures counted."""
    if len(sys.argv) != 3:
        print(usage)
        return 2
    rig = make_rig(sys.argv[1], sys.argv[2])
    try:
        for step in steps:
            step(rig)
    finally:
        rig.close()
    print(f"{len(failures)} failures")
    return 1 if failures else 0
