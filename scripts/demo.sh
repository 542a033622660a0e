#!/usr/bin/env bash
# Installs what is missing, builds, creates the demo store in a scratch folder and runs
# modbus_server on it in the foreground (Ctrl-C stops it). With DEMO_SERIAL=1 the demo also
# serves Modbus RTU on a pseudo-terminal pair made by socat. With DEMO_TLS=1 it makes test
# certificates (scripts/tls-certs.sh) and serves the secure port, 802 (DEMO_TLS_PORT; 8802
# when not run as root), with roles Operator and Viewer. With DEMO_GATEWAY=1 the server is
# also the RTU master of a serial line (a socat pty pair) with two simulated slaves behind it,
# 10 and 11 (rtu_test_slave), which TCP masters reach through it. With DEMO_FRAMINGS=1 unit 1
# is also served as RTU over TCP on port 5021 and over Modbus/UDP on 5022, and as slave 1 of a
# Modbus ASCII line on a socat pty pair (8N1: a pty takes no other character size). The
# scratch folder goes when the demo ends, unless DEMO_DIR named it. DEMO_BUILD=DIR runs the
# programs already built in DIR instead of building build/. Arguments are passed on to
# modbus_server.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
if [ -n "${DEMO_BUILD:-}" ]; then
    build=$(cd "$DEMO_BUILD" && pwd)
else
    bash scripts/deps.sh
    echo "Building into build/ (the first build takes a few minutes)..."
    bash scripts/build.sh build
    build=$root/build
fi

if [ -n "${DEMO_DIR:-}" ]; then
    dir=$DEMO_DIR
    scratch=0
else
    dir=$(mktemp -d /tmp/modbus-demo.XXXXXX)
    scratch=1
fi
mkdir -p "$dir"
export CDS_STORE="$dir/store.db"
rm -f "$CDS_STORE" "$CDS_STORE-wal" "$CDS_STORE-shm"
cdsctl="$build/cdsctl"

pids=()
cleanup() {
    [ ${#pids[@]} -gt 0 ] && kill "${pids[@]}" 2>/dev/null
    wait 2>/dev/null || true
    [ "$scratch" = 1 ] && rm -rf "$dir"
    return 0
}
trap cleanup EXIT

serial_port=unused
if [ "${DEMO_SERIAL:-0}" = 1 ]; then
    socat pty,raw,echo=0,link="$dir/ttyServer" pty,raw,echo=0,link="$dir/ttyClient" &
    pids+=($!)
    for _ in $(seq 50); do [ -e "$dir/ttyClient" ] && break; sleep 0.1; done
    serial_port="$dir/ttyServer"
fi

sed -e "s|@DEMO@|$root/demo|g" -e "s|@SERIAL_PORT@|$serial_port|g" demo/store.json >"$dir/store.json"
"$cdsctl" init >/dev/null
"$cdsctl" load "$dir/store.json" >/dev/null
# Without a serial line asked for, the demo configures none rather than a missing device.
if [ "${DEMO_SERIAL:-0}" != 1 ]; then
    "$cdsctl" rm "/Software/Data Servers/Modbus/Interface Type/Serial/Interface" -r >/dev/null
fi
if [ "${DEMO_TLS:-0}" = 1 ]; then
    tls_port=${DEMO_TLS_PORT:-802}
    [ "$(id -u)" = 0 ] || [ "$tls_port" -ge 1024 ] || tls_port=8802
    bash scripts/tls-certs.sh "$dir/tls" >/dev/null
    # The plain port stays open beside the secure one, for the examples below; without
    # "Plain Port Open" it would close.
    cat >"$dir/tls.json" <<EOF
{ "Software": { "Data Servers": { "Modbus": { "Interface Type": { "TCP": { "Security": {
  "Port": { "Value": { "\$type": "uint", "\$value": $tls_port } },
  "Certificate": { "Value": "$dir/tls/server.crt" },
  "Private Key": { "Value": "$dir/tls/server.key" },
  "CA Bundle": { "Value": "$dir/tls/ca.crt" },
  "Plain Port Open": { "Value": "true" },
  "Roles": {
    "Operator": { "Function Codes": { "Value": "1-6,15,16" } },
    "Viewer": { "Function Codes": { "Value": "1-4" } }
  }
} } } } } } }
EOF
    "$cdsctl" load "$dir/tls.json" >/dev/null
fi
if [ "${DEMO_GATEWAY:-0}" = 1 ]; then
    socat pty,raw,echo=0,link="$dir/ttyGateway" pty,raw,echo=0,link="$dir/ttySlaves" &
    pids+=($!)
    for _ in $(seq 50); do [ -e "$dir/ttySlaves" ] && break; sleep 0.1; done
    # Two slaves on one line, as two meters on one RS-485 bus.
    "$build/rtu_test_slave" "$dir/ttySlaves" 10,11 >/dev/null &
    pids+=($!)
    cat >"$dir/gateway.json" <<EOF
{ "Software": { "Data Servers": { "Modbus": { "Interface Type": { "Serial": {
  "Timeout": { "Value": { "\$type": "uint", "\$value": 1000 } },
  "Interface": { "GW1": {
    "Serial Port": { "Value": "$dir/ttyGateway" },
    "Baud Rate": { "Value": { "\$type": "uint", "\$value": 19200 } },
    "Role": { "Value": "Gateway" },
    "Downstream": { "Value": "10,11" },
    "Response Timeout": { "Value": { "\$type": "uint", "\$value": 200 } }
  } }
} } } } } }
EOF
    "$cdsctl" load "$dir/gateway.json" >/dev/null
fi
if [ "${DEMO_FRAMINGS:-0}" = 1 ]; then
    socat pty,raw,echo=0,link="$dir/ttyAscii" pty,raw,echo=0,link="$dir/ttyAsciiClient" &
    pids+=($!)
    for _ in $(seq 50); do [ -e "$dir/ttyAsciiClient" ] && break; sleep 0.1; done
    unit='"Slave ID": { "Value": { "$type": "uint", "$value": 1 } },
      "Device Path": { "Value": "/Devices/Power" },
      "EDS Paths": { "Value": "'"$root/demo/eds/power.eds"'" }'
    cat >"$dir/framings.json" <<EOF
{ "Software": { "Data Servers": { "Modbus": { "Interface Type": {
  "RTU over TCP": { "Port": { "Value": { "\$type": "uint", "\$value": 5021 } },
    "Mappings": { "Unit1": { $unit } } },
  "UDP": { "Port": { "Value": { "\$type": "uint", "\$value": 5022 } } },
  "Serial": { "Interface": { "ASCII1": {
    "Serial Port": { "Value": "$dir/ttyAscii" },
    "Baud Rate": { "Value": { "\$type": "uint", "\$value": 9600 } },
    "Protocol": { "Value": "ASCII" },
    "Mappings": { "Slave1": { $unit } }
  } } }
} } } } }
EOF
    "$cdsctl" load "$dir/framings.json" >/dev/null
fi
# The statistics leaves of the units configured (the server fills but never creates leaves).
"$build/modbus_server" -Ns --statistics-leaves >"$dir/statistics.json"
"$cdsctl" load "$dir/statistics.json" >/dev/null
# A few historical events for the event registers.
now=$(date -u +%s)
"$cdsctl" event add --id 1 --kind 4 --time $((now - 3600)) --source /Devices/Power/Input/mACV_L1 --value -12 >/dev/null
"$cdsctl" event add --id 2 --kind 4 --time $((now - 1800)) --source /Devices/Power/Input/aL1Sag --url /wave/1234.dat >/dev/null
"$cdsctl" event add --id 3 --kind 8 --time $((now - 600)) --source /Devices/Power/Output/OverVoltage >/dev/null

bash demo/live.sh "$cdsctl" &
pids+=($!)

cat <<MSG
Demo store: $CDS_STORE (values change every second)
Modbus TCP on port 5020, units 1 and 2. In another terminal try:
  mbpoll -m tcp -p 5020 -a 1 -r 9 -c 3 -t 4 127.0.0.1        # voltage, current (registers 8-9)
  mbpoll -m tcp -p 5020 -a 1 -r 1 -c 3 -t 0 -1 127.0.0.1     # coils 0-2
  mbpoll -m tcp -p 5020 -a 1 -r 28 -t 4 -1 127.0.0.1 2351    # write the setpoint (235.1 V)
  CDS_STORE=$CDS_STORE $build/modbus_profiler -u 1 -d         # the unit's map as CSV
  CDS_STORE=$CDS_STORE $build/cdsctl dump "/Software/Data Servers/Modbus/Statistics"  # counters
MSG
if [ "${DEMO_SERIAL:-0}" = 1 ]; then
    echo "Modbus RTU slave 1 at 19200 8E1 on $dir/ttyClient:"
    echo "  mbpoll -m rtu -b 19200 -P even -a 1 -r 9 -c 3 -t 4 $dir/ttyClient"
fi
if [ "${DEMO_GATEWAY:-0}" = 1 ]; then
    echo "RTU slaves 10 and 11 behind the gateway line $dir/ttyGateway, through TCP port 5020:"
    echo "  mbpoll -m tcp -p 5020 -a 10 -r 1 -c 4 -t 4 -1 127.0.0.1         # registers 0-3 of slave 10"
    echo "  mbpoll -m tcp -p 5020 -a 11 -r 4 -t 4 -1 127.0.0.1 1234         # write register 3 of slave 11"
    echo "  mbpoll -m tcp -p 5020 -a 12 -r 1 -t 4 -1 127.0.0.1              # nobody's: exception 10"
fi
if [ "${DEMO_FRAMINGS:-0}" = 1 ]; then
    py="/usr/bin/python3 -c"
    ask='c.connect(); print(c.read_holding_registers(8, 2, slave=1).registers)'
    echo "Unit 1 as RTU over TCP on port 5021, over Modbus/UDP on 5022, and as ASCII slave 1 at 9600 8N1 on $dir/ttyAsciiClient:"
    echo "  $py 'from pymodbus.client import ModbusTcpClient; from pymodbus.transaction import ModbusRtuFramer; c = ModbusTcpClient(\"127.0.0.1\", port=5021, framer=ModbusRtuFramer); $ask'"
    echo "  $py 'from pymodbus.client import ModbusUdpClient; c = ModbusUdpClient(\"127.0.0.1\", port=5022); $ask'"
    echo "  $py 'from pymodbus.client import ModbusSerialClient; from pymodbus.transaction import ModbusAsciiFramer; c = ModbusSerialClient(\"$dir/ttyAsciiClient\", framer=ModbusAsciiFramer, baudrate=9600); $ask'"
fi
if [ "${DEMO_TLS:-0}" = 1 ]; then
    echo "Modbus TCP over TLS on port $tls_port, certificates in $dir/tls:"
    echo "  scripts/modbus_tls_client.py $dir/tls client-Operator --port $tls_port write 27 2351"
    echo "  scripts/modbus_tls_client.py $dir/tls client-Viewer --port $tls_port read 27   # writes: exception 1"
fi
echo "Stop the server with Ctrl-C."
"$build/modbus_server" -Ns -D 2 -e "$CDS_STORE" "$@"
