#!/usr/bin/env bash
# Checks a modbus-server .deb with dpkg-deb: its control data and file list, the files it
# must hold, and that no maintainer script removes the store. Prints both listings.
# Usage: scripts/check-deb.sh PACKAGE.deb [ARCHITECTURE]
set -euo pipefail
deb=$1
arch=${2:-$(dpkg --print-architecture)}
die() {
    echo "check-deb: FAILED: $(basename "$deb"): $*" >&2
    exit 1
}
[ -f "$deb" ] || die "no such file"
info=$(dpkg-deb --info "$deb") || die "dpkg-deb --info cannot read it"
contents=$(dpkg-deb --contents "$deb") || die "dpkg-deb --contents cannot read it"
echo "$info"
echo "$contents" | awk '{ print $1, $3, $6 }'

grep -q "^ Package: modbus-server$" <<<"$info" || die "not the modbus-server package"
grep -q "^ Architecture: $arch$" <<<"$info" || die "architecture is not $arch"
for f in usr/bin/modbus_server usr/bin/modbus_profiler usr/bin/cdsctl \
    usr/lib/systemd/system/modbus-server.service usr/share/modbus-server/example/store.json \
    usr/share/modbus-server/example/eds/power.eds usr/share/modbus-server/example/README.md \
    usr/share/modbus-server/example/realtime.conf; do
    grep -q " \./$f$" <<<"$contents" || die "$f is missing"
done
if grep -q " \./var/lib" <<<"$contents"; then die "it ships files in /var/lib"; fi

scripts=$(mktemp -d)
trap 'rm -rf "$scripts"' EXIT
dpkg-deb --control "$deb" "$scripts"
grep -q "adduser --system" "$scripts/postinst" || die "postinst makes no system user"
for s in "$scripts"/preinst "$scripts"/prerm "$scripts"/postrm; do
    [ -f "$s" ] || continue
    if grep -Eq "rm .*(/var/lib|modbus-server)|deluser" "$s"; then
        die "$(basename "$s") removes the store or the user"
    fi
done
echo "check-deb: $(basename "$deb"): ok"
