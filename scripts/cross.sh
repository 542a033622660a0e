#!/usr/bin/env bash
# Builds the server for the big-endian targets and runs the test suites under qemu-user:
#   powerpc  32-bit big-endian, the device (64-bit time_t on purpose)
#   s390x    64-bit big-endian, a second opinion on byte order
# Usage: scripts/cross.sh [powerpc|s390x]   (no argument: both)
#
# Everything comes from Debian's archive: the cross compilers and qemu as packages, SQLite,
# OpenSSL and libmodbus built from Debian's source packages (no powerpc binaries exist), Boost as
# the host's header-only parts. Dependencies go to build-deps/, builds to build-<arch>/.
# Quick when the dependencies are there; never asks questions. Environment:
#   CROSS_OPT         optimisation of the cross trees (default -O1: the CI time budget;
#                     -O2 or -Os for a release package)
#   CROSS_TESTS=0     build only, run no tests
# The programs link SQLite, libstdc++ and libgcc statically (MB_STATIC), so the powerpc
# package needs only the C library and OpenSSL's libssl3, which a device shares with its ssh
# and takes security updates for from its distribution; the package is built into build-ppc/
# and checked with dpkg-deb.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
deps=$root/build-deps
start=$SECONDS

say() { echo "cross: $* (+$((SECONDS - start)) s)"; }
die() {
    trap - EXIT
    echo "cross: FAILED: $*" >&2
    exit 1
}
step="start"
trap 'rc=$?; [ $rc -eq 0 ] || echo "cross: FAILED during: $step (exit $rc)" >&2' EXIT

arches=()
case "${1:-all}" in
    powerpc | s390x) arches=("$1") ;;
    all) arches=(powerpc s390x) ;;
    *) die "unknown target '$1': use powerpc, s390x or no argument for both" ;;
esac
triplet() { [ "$1" = powerpc ] && echo powerpc-linux-gnu || echo s390x-linux-gnu; }
qemu() { [ "$1" = powerpc ] && echo qemu-ppc-static || echo qemu-s390x-static; }

# --- host packages -------------------------------------------------------------------
step="installing host packages"
extra=(qemu-user-static tcl dpkg-dev autoconf automake libtool)
for a in "${arches[@]}"; do extra+=("g++-$(triplet "$a")"); done
bash scripts/deps.sh "${extra[@]}" || die "could not install ${extra[*]} (see apt's message above)"
for a in "${arches[@]}"; do
    command -v "$(triplet "$a")-g++" >/dev/null ||
        die "no $(triplet "$a")-g++ after installing g++-$(triplet "$a")"
    command -v "$(qemu "$a")" >/dev/null || die "no $(qemu "$a") after installing qemu-user-static"
done

# --- Debian source packages, through a private apt state -----------------------------
# deb-src twins of the machine's own sources; the machine's apt configuration is not touched.
apt_private() {
    apt-get -q -o Dir::Etc::SourceList="$deps/apt/sources.list" \
        -o Dir::Etc::SourceParts=/dev/null -o Dir::State::Lists="$deps/apt/lists" \
        -o Dir::Cache="$deps/apt/cache" -o APT::Sandbox::User=root "$@"
}
apt_private_cache() {
    apt-cache -o Dir::Etc::SourceList="$deps/apt/sources.list" -o Dir::Etc::SourceParts=/dev/null \
        -o Dir::State::Lists="$deps/apt/lists" -o Dir::Cache="$deps/apt/cache" "$@"
}
fetch_source() { # package: unpacked into build-deps/src/<package>-<version>
    local pkg=$1
    if [ ! -f "$deps/apt/updated" ]; then
        step="reading Debian's source index"
        mkdir -p "$deps/apt/lists/partial" "$deps/apt/cache/archives/partial"
        {
            sed -n 's/^deb \(.*\)/deb-src \1/p' /etc/apt/sources.list 2>/dev/null || true
            # deb822 files: one line per suite
            for f in /etc/apt/sources.list.d/*.sources; do
                [ -f "$f" ] || continue
                awk 'BEGIN { RS=""; FS="\n" }
                     /Types:[^\n]*deb/ && !/Enabled: *no/ {
                         u=""; s=""; c=""; k=""
                         for (i = 1; i <= NF; i++) {
                             if ($i ~ /^URIs:/) u = substr($i, 6)
                             if ($i ~ /^Suites:/) s = substr($i, 8)
                             if ($i ~ /^Components:/) c = substr($i, 12)
                             if ($i ~ /^Signed-By:/) k = " [signed-by=" substr($i, 11) "]"
                         }
                         n = split(s, suites, " ")
                         for (j = 1; j <= n; j++) print "deb-src" k " " u " " suites[j] " " c
                     }' "$f"
            done
        } | sed 's/  */ /g; s/\[signed-by= */[signed-by=/' >"$deps/apt/sources.list"
        [ -s "$deps/apt/sources.list" ] || die "no Debian sources configured in /etc/apt"
        apt_private update -qq </dev/null >/dev/null || die "apt-get update of the deb-src index failed"
        touch "$deps/apt/updated"
    fi
    step="downloading the $pkg source package"
    mkdir -p "$deps/src"
    # Newest first; a mirror sometimes lists a security update whose files it lacks, and
    # then the next version down is taken.
    local v
    for v in $(apt_private_cache showsrc "$pkg" 2>/dev/null | sed -n 's/^Version: //p' |
        sort -r -V -u); do
        (cd "$deps/src" && apt_private source -qq "$pkg=$v" </dev/null >/dev/null \
            2>"$deps/src/$pkg.log") && return 0
        echo "cross: Debian's $pkg $v could not be fetched, trying an older one" >&2
    done
    die "could not fetch Debian's $pkg source package: $(tail -3 "$deps/src/$pkg.log")"
}

amalgamation=$deps/src/sqlite-amalgamation
if [ ! -f "$amalgamation/sqlite3.c" ]; then
    fetch_source sqlite3
    step="making the SQLite amalgamation"
    say "SQLite amalgamation from Debian's source (Debian's patches applied)"
    src=$(ls -d "$deps"/src/sqlite3-*/ | head -1)
    rm -rf "$deps/src/sqlite-build" && mkdir -p "$deps/src/sqlite-build"
    (cd "$deps/src/sqlite-build" && "$src/configure" --disable-tcl >/dev/null &&
        make -s sqlite3.c sqlite3.h >/dev/null) || die "making sqlite3.c failed"
    mkdir -p "$amalgamation.tmp"
    cp "$deps/src/sqlite-build/sqlite3.c" "$deps/src/sqlite-build/sqlite3.h" "$amalgamation.tmp/"
    rm -rf "$amalgamation" "$deps/src/sqlite-build" && mv "$amalgamation.tmp" "$amalgamation"
fi
if ! ls -d "$deps"/src/libmodbus-*/configure >/dev/null 2>&1; then
    fetch_source libmodbus
    step="preparing libmodbus's configure script"
    (cd "$(ls -d "$deps"/src/libmodbus-*/ | head -1)" && autoreconf -fi >/dev/null 2>&1) ||
        die "autoreconf of libmodbus's source failed"
fi
modbus_src=$(dirname "$(ls -d "$deps"/src/libmodbus-*/configure | head -1)")
if ! ls -d "$deps"/src/openssl-*/Configure >/dev/null 2>&1; then
    fetch_source openssl
fi
openssl_src=$(dirname "$(ls -d "$deps"/src/openssl-*/Configure | head -1)")

# --- per-target dependencies -----------------------------------------------------------
build_deps() { # arch: static SQLite and libmodbus, and OpenSSL, with pkg-config files in build-deps/<arch>
    local a=$1 t prefix cflags
    t=$(triplet "$a")
    prefix=$deps/$a
    cflags=""
    [ "$a" = powerpc ] && cflags="-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64"
    # SQLite is linked into the programs: optimised for size, as they are for the device.
    local sqlite_flags="-Os -ffunction-sections -fdata-sections $cflags -DSQLITE_THREADSAFE=1"
    sqlite_flags="$sqlite_flags -DSQLITE_OMIT_LOAD_EXTENSION -DSQLITE_ENABLE_COLUMN_METADATA"
    local stamp="$sqlite_flags / $cflags / shared openssl"
    [ -f "$prefix/.done" ] && [ "$(cat "$prefix/.done")" = "$stamp" ] && return 0
    rm -rf "$prefix" && mkdir -p "$prefix/lib/pkgconfig" "$prefix/include"

    step="building SQLite for $a"
    say "SQLite for $a"
    # The options of Debian's own libsqlite3 that matter here; no run-time extension loading.
    "$t-gcc" $sqlite_flags -c "$amalgamation/sqlite3.c" -o "$prefix/sqlite3.o" ||
        die "compiling SQLite for $a failed"
    "$t-ar" rcs "$prefix/lib/libsqlite3.a" "$prefix/sqlite3.o" && rm "$prefix/sqlite3.o"
    cp "$amalgamation/sqlite3.h" "$prefix/include/"
    cat >"$prefix/lib/pkgconfig/sqlite3.pc" <<EOF
prefix=$prefix
Name: SQLite
Description: SQL database engine (static, from Debian's source)
Version: $(sed -n 's/^#define SQLITE_VERSION *"\(.*\)"/\1/p' "$amalgamation/sqlite3.h")
Libs: -L\${prefix}/lib -lsqlite3 -lm -ldl -lpthread
Cflags: -I\${prefix}/include
EOF

    step="building libmodbus for $a"
    say "libmodbus for $a (test clients only)"
    rm -rf "$deps/src/modbus-$a" && mkdir -p "$deps/src/modbus-$a"
    (cd "$deps/src/modbus-$a" && CFLAGS="-O2 $cflags" "$modbus_src/configure" --host="$t" \
        --prefix="$prefix" --disable-shared --enable-static --without-documentation \
        --disable-tests >/dev/null && make -s -j 2 install >/dev/null 2>&1) ||
        die "building libmodbus for $a failed (log: build-deps/src/modbus-$a/config.log)"
    rm -rf "$deps/src/modbus-$a"

    step="building OpenSSL for $a"
    say "OpenSSL for $a (TLS 1.2 and 1.3 with today's algorithms only)"
    # The device has its own libssl3; this one is for building against and for the tests
    # under qemu. 32-bit PowerPC has its 64-bit atomics in libatomic.
    local target=linux-ppc extra=-latomic
    [ "$a" = s390x ] && target=linux64-s390x extra=""
    # What the secure port and its tests need, and nothing else: no engines, no loadable
    # modules, no protocols or ciphers older than TLS 1.2 allows, no command-line programs.
    local off="no-tests no-legacy no-engine no-dso no-module no-comp no-dtls no-ssl3"
    off="$off no-tls1 no-tls1_1 no-srp no-psk no-idea no-camellia no-seed no-md4 no-rc2 no-rc4"
    off="$off no-des no-dsa no-cast no-bf no-mdc2 no-rmd160 no-whirlpool no-sm2 no-sm3 no-sm4"
    off="$off no-aria no-siphash no-scrypt no-ocsp no-cms no-ts no-ct no-srtp no-gost"
    off="$off no-ui-console no-async no-sctp no-nextprotoneg no-blake2 no-ocb no-ec2m"
    rm -rf "$deps/src/openssl-$a" && mkdir -p "$deps/src/openssl-$a"
    # shellcheck disable=SC2086  # $off and $cflags are lists of options
    (cd "$deps/src/openssl-$a" && "$openssl_src/Configure" "$target" --cross-compile-prefix="$t-" \
        --prefix="$prefix" --libdir=lib -Os $cflags $off $extra >config.log 2>&1 &&
        make -s -j 2 install_dev >make.log 2>&1) ||
        die "building OpenSSL for $a failed (logs: build-deps/src/openssl-$a/*.log)"
    rm -rf "$deps/src/openssl-$a"
    echo "$stamp" >"$prefix/.done"
}

# --- build and test --------------------------------------------------------------------
opt=${CROSS_OPT:--O1}
for a in "${arches[@]}"; do
    build_deps "$a"
    dir=build-$a
    [ "$a" = powerpc ] && dir=build-ppc
    step="configuring $dir"
    say "configuring $dir"
    # Dependencies built anew may differ in kind (static or shared): find them again.
    if [ "$deps/$a/.done" -nt "$dir/CMakeCache.txt" ]; then rm -f "$dir/CMakeCache.txt"; fi
    cmake -S . -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-$a.cmake" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="$opt" \
        -DCMAKE_C_FLAGS_RELEASE="$opt" -DMB_BENCH=OFF -DMB_STATIC=ON \
        -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
    step="building $dir"
    say "building $dir"
    cmake --build "$dir" -j 2
    if [ "${CROSS_TESTS:-1}" != 0 ]; then
        step="testing $dir under $(qemu "$a")"
        say "tests of $dir under $(qemu "$a")"
        ctest --test-dir "$dir" --output-on-failure -j 2
    fi
    t=$(triplet "$a")
    "$t-strip" -o "$dir/modbus_server.stripped" "$dir/modbus_server"
    say "$a: stripped modbus_server $(du -k "$dir/modbus_server.stripped" | cut -f1) kB, needs:" \
        "$("$t-readelf" -d "$dir/modbus_server" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | tr '\n' ' ')"
    if [ "$a" = powerpc ]; then
        step="packaging $dir"
        rm -f "$dir"/modbus-server_*.deb
        (cd "$dir" && cpack -G DEB >/dev/null) || die "cpack failed in $dir"
        bash scripts/check-deb.sh "$(ls "$dir"/modbus-server_*.deb)" powerpc >"$dir/check-deb.log" ||
            die "the powerpc package failed its check (see above)"
        say "package $(ls "$dir"/modbus-server_*.deb) ($(du -k "$dir"/modbus-server_*.deb | cut -f1) kB) checked"
    fi
done
step="done"
say "done: ${arches[*]}"
