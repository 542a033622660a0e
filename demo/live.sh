#!/usr/bin/env bash
# Makes the demo device look alive: every second a few of its values change in the store.
# Usage: live.sh CDSCTL   (CDS_STORE names the store)
set -u
cdsctl=$1
dev="/Devices/Power"
t=0
while true; do
    t=$((t + 1))
    volts=$(awk -v t="$t" 'BEGIN { printf "%.1f", 230 + 2.5 * sin(t / 5) }')
    amps=$(awk -v t="$t" 'BEGIN { printf "%.2f", 4.25 + 0.75 * sin(t / 7) }')
    watts=$(awk -v v="$volts" -v a="$amps" 'BEGIN { printf "%.1f", v * a }')
    hz=$(awk -v t="$t" 'BEGIN { printf "%.2f", 50 + 0.05 * sin(t / 3) }')
    "$cdsctl" set "$dev/Output/Voltage/Value" "$volts" >/dev/null || exit 1
    "$cdsctl" set "$dev/Output/Current/Value" "$amps" >/dev/null
    "$cdsctl" set "$dev/Output/Power/Value" "$watts" >/dev/null
    "$cdsctl" set "$dev/Input/Frequency/Value" "$hz" >/dev/null
    "$cdsctl" set "$dev/Status/Runtime/Value" "$t" >/dev/null
    "$cdsctl" set "$dev/Status/Clock/Value" "$(date -u +%Y-%m-%dT%H:%M:%SZ)" >/dev/null
    if [ $((t % 10)) -eq 0 ]; then
        "$cdsctl" set "$dev/Output/Energy/Value" $((1520 + t / 10)) >/dev/null
    fi
    sleep 1
done
