#!/usr/bin/env bash
# Builds the host's Debian package from a build tree (default build/, reconfigured with the
# prefix /usr), checks it, and proves it runs without installing it: the package is
# unpacked into a scratch root, where cdsctl makes a store from the example and the server
# answers a Modbus read over TCP. Also checks the systemd unit with systemd-analyze verify
# in that root, and its sandbox with scripts/check-unit.sh. Nothing outside the build tree
# and temporary folders is changed (check-unit.sh's container is thrown away).
# Usage: scripts/package.sh [BUILD_DIR]
# scripts/cross.sh makes and checks the powerpc package the same way, short of running it.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
start=$SECONDS
say() { echo "package: $* (+$((SECONDS - start)) s)"; }
die() {
    echo "package: FAILED: $*" >&2
    exit 1
}

bash scripts/deps.sh dpkg-dev systemd mbpoll >/dev/null

say "building the package in $dir"
cmake -S . -B "$dir" -G Ninja -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
cmake --build "$dir" -j 2 --target modbus_server modbus_profiler cdsctl >/dev/null
rm -f "$dir"/modbus-server_*.deb
(cd "$dir" && cpack -G DEB >/dev/null) || die "cpack failed in $dir"
deb=$(ls "$dir"/modbus-server_*.deb)
bash scripts/check-deb.sh "$deb"

scratch=$(mktemp -d /tmp/mb_package_XXXXXX)
server=""
cleanup() {
    [ -n "$server" ] && kill "$server" 2>/dev/null && wait "$server" 2>/dev/null
    rm -rf "$scratch"
}
trap cleanup EXIT
root=$scratch/root
# Open to others: scripts/check-unit.sh runs the server as an unprivileged user.
chmod 755 "$scratch"
dpkg-deb -x "$deb" "$root"

# The unit names /usr/bin/...: a copy pointing into the unpacked root is verified, so the
# programs it starts must be in the package. No running systemd is needed (in a container
# systemd-analyze says so in a few harmless lines, which are left out).
say "systemd-analyze verify of the packaged unit"
unit=$root/usr/lib/systemd/system/modbus-server.service
[ -f "$unit" ] || die "no modbus-server.service in the package"
sed "s|/usr/bin/|$root/usr/bin/|g" "$unit" >"$scratch/modbus-server.service"
verify_status=0
SYSTEMD_LOG_LEVEL=warning systemd-analyze verify --man=no "$scratch/modbus-server.service" \
    >"$scratch/verify.log" 2>&1 || verify_status=$?
grep -v 'Failed to read \$container\|PR_SET_MM_ARG_START\|Failed to parse system call' \
    "$scratch/verify.log" >"$scratch/verify.rest" || true
[ "$verify_status" -eq 0 ] && [ ! -s "$scratch/verify.rest" ] ||
    die "systemd-analyze verify (exit $verify_status): $(cat "$scratch/verify.rest")"

# Its sandbox: the rating, the server's system calls against the filter, and the unit run
# under systemd in a throwaway container (skipped, saying why, where that cannot be).
say "the unit's sandbox (scripts/check-unit.sh)"
bash scripts/check-unit.sh "$root" || die "scripts/check-unit.sh"

say "the unpacked server answers on a temporary store"
export CDS_STORE=$scratch/store.db
example=$root/usr/share/modbus-server/example
port=$((20000 + RANDOM % 20000))
sed -e "s|/usr/share/modbus-server/example|$example|g" \
    -e "s|\"\$value\": 5020|\"\$value\": $port|" "$example/store.json" >"$scratch/store.json"
"$root/usr/bin/cdsctl" init >/dev/null
"$root/usr/bin/cdsctl" load "$scratch/store.json" >/dev/null
"$root/usr/bin/modbus_server" -Ns -e "$CDS_STORE" 2>"$scratch/server.log" &
server=$!
answer=""
for _ in $(seq 50); do
    answer=$(mbpoll -m tcp -p "$port" -a 1 -r 9 -t 4 -1 127.0.0.1 2>/dev/null | grep '^\[9\]:' || true)
    [ -n "$answer" ] && break
    sleep 0.1
done
kill -TERM "$server"
status=0
wait "$server" || status=$?
server=""
# Register 8 is the output voltage, 230.0 V in 0.1 V.
[ "$(echo "$answer" | awk '{ print $2 }')" = 2300 ] ||
    die "the unpacked server did not answer 2300 at register 8 (got '$answer'); its log: $(cat "$scratch/server.log")"
[ "$status" -eq 0 ] || die "the server exited with $status after SIGTERM; its log: $(cat "$scratch/server.log")"
say "done: $(basename "$deb") ($(du -k "$deb" | cut -f1) kB) answers; unit verified and its sandbox checked"
