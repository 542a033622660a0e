#!/usr/bin/env bash
# Installs the Debian packages that the build, the tests and the demo need, and any further
# packages named as arguments. Quick when everything is there already; never asks questions.
set -euo pipefail

packages=(
    cmake ninja-build g++ make pkg-config
    libboost1.74-dev libboost-system1.74-dev libboost-thread1.74-dev
    libboost-test1.74-dev libboost-random1.74-dev libboost-date-time1.74-dev
    libsqlite3-dev sqlite3 nlohmann-json3-dev libinih-dev libssl-dev openssl
    libbenchmark-dev libmodbus-dev socat mbpoll iproute2
    # scripts/check-unit.sh: the server's system calls, and the unit in a container
    strace systemd-container
    # pymodbus's client imports serial_asyncio, which its package only recommends
    python3-pymodbus python3-serial-asyncio
    "$@"
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "deps: need root to install: ${missing[*]}" >&2; exit 1; }
    sudo="sudo -n"
fi
echo "deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq </dev/null
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
