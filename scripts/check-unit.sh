#!/usr/bin/env bash
# Checks the sandbox of the packaged systemd unit, from a package unpacked into ROOT (as
# scripts/package.sh leaves it), three ways:
#   score     `systemd-analyze security --offline=true` rates the unit 2.0 or better; prints
#             the rating and the worst items.
#   syscalls  the server runs under strace through a session like a device's: the unit's
#             ExecStartPre makes the store under the unit's UMask, then the unit's ExecStart
#             serves reads and writes over TCP, the secure port and a serial line (socat
#             ptys), sends READY=1 and watchdog notices, and stops on SIGTERM; once more
#             with the -rt of example/realtime.conf. Every system call made must be one that
#             the unit's SystemCallFilter= lets through (with the drop-in's for -rt),
#             none may break MemoryDenyWriteExecute=, RestrictNamespaces=, LockPersonality=
#             or RestrictRealtime=, and the store's files must keep mode 0644.
#   sandbox   the unit itself under systemd: a throwaway container (systemd-nspawn, with
#             its own network and an empty /var) boots systemd as PID 1, installs the unit
#             with the package's files, and starts it as an integrator would: the server
#             must bind port 502, serve TCP, TLS with its files in /etc/modbus and a serial
#             line of group dialout, write its store, outlive WatchdogSec=, keep the store's
#             files at 0644, take -rt with the drop-in, and stop cleanly. A transient unit
#             (systemd-run) with the unit's sandbox properties then opens device nodes: the
#             serial majors must be let through, others refused. Needs root and
#             systemd-nspawn; otherwise one line says why it was skipped.
# Usage: scripts/check-unit.sh ROOT [score|syscalls|sandbox]...   (default: all three)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(cd "${1:?usage: scripts/check-unit.sh ROOT [score|syscalls|sandbox]...}" && pwd)
shift
parts=("$@")
[ ${#parts[@]} -gt 0 ] || parts=(score syscalls sandbox)
start=$SECONDS
say() { echo "check-unit: $* (+$((SECONDS - start)) s)"; }
die() {
    echo "check-unit: FAILED: $*" >&2
    exit 1
}

unit=$root/usr/lib/systemd/system/modbus-server.service
dropin=$root/usr/share/modbus-server/example/realtime.conf
example=$root/usr/share/modbus-server/example
[ -f "$unit" ] || die "no unit in $root"
[ -f "$dropin" ] || die "no realtime.conf in $example"

work=$(mktemp -d /tmp/mb_unit_XXXXXX)
container="" server=""
cleanup() {
    local p
    [ -z "$container" ] || stop_container
    # A killed strace lets its tracee go on: the server is ended by its own id.
    [ -z "$server" ] || kill -KILL "$server" 2>/dev/null || true
    exec 2>/dev/null # no "Killed" notices for the helpers
    for p in $(jobs -pr); do kill -KILL "$p" || true; done
    wait || true
    rm -rf "$work"
}
trap cleanup EXIT

# The value of the last KEY= line in a unit file (Exec lines: without the - prefix).
unit_value() {
    sed -n "s/^$1=-\{0,1\}//p" "$2" | tail -n 1
}

# --- score -------------------------------------------------------------------------------------
check_score() {
    say "systemd-analyze security of the packaged unit"
    # Offline, the unit's programs are looked for where the package has them.
    sed "s|/usr/bin/|$root/usr/bin/|g" "$unit" >"$work/modbus-server.service"
    SYSTEMD_LOG_LEVEL=err systemd-analyze security --offline=true --no-pager \
        "$work/modbus-server.service" >"$work/security.txt" 2>&1 ||
        die "systemd-analyze security failed: $(tail -n 5 "$work/security.txt")"
    local score
    score=$(sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\) .*/\1/p' "$work/security.txt")
    [ -n "$score" ] || die "no overall exposure in: $(tail -n 5 "$work/security.txt")"
    echo "  exposure $score; the worst items:"
    grep '✗' "$work/security.txt" | awk '{ print $NF "\t" $0 }' | sort -rn -k1,1 | head -n 8 |
        cut -f2- | sed -e 's/  */ /g' -e 's/^✗ */    /'
    awk -v s="$score" 'BEGIN { exit !(s <= 2.0) }' ||
        die "the unit's exposure is $score, above 2.0 (systemd-analyze security --offline=true)"
}

# --- a session, shared by the syscall check and the sandbox check -----------------------------
# The example store, changed for a check: TCP on PORT, the serial line on SERIAL, the secure
# port on TLS_PORT with certificates in CERTS; EXAMPLE is where the example's files are seen.
make_store() { # example port serial tls_port certs out
    sed -e "s|/usr/share/modbus-server/example|$1|g" -e "s|\"\$value\": 5020|\"\$value\": $2|" \
        -e "s|\"/dev/ttyS0\"|\"$3\"|" "$example/store.json" >"$6"
    cat >"${6%.json}-tls.json" <<EOF
{ "Software": { "Data Servers": { "Modbus": { "Interface Type": { "TCP": { "Security": {
  "Port": { "Value": { "\$type": "uint", "\$value": $4 } },
  "Plain Port Open": { "Value": true },
  "Certificate": { "Value": "$5/server.crt" },
  "Private Key": { "Value": "$5/server.key" },
  "CA Bundle": { "Value": "$5/ca.crt" },
  "Roles": { "Operator": { "Function Codes": { "Value": "1-6,15,16" } } }
} } } } } } }
EOF
}

# Runs the client side of a session through RUN (a command prefix, or nothing): register 8
# (230.0 V) over TCP, the set point (register 27) written and read back, register 8 over the
# serial line and over TLS. Dies naming what went wrong, with what the command LOG prints.
session() { # "run prefix" port tls_port tty certs log
    local run=$1 port=$2 tls_port=$3 tty=$4 certs=$5 log=$6 got
    read_reg() { # mbpoll options... : the value of the one register read, or nothing
        $run mbpoll -1 -t 4 "$@" 2>/dev/null | sed -n 's/^\[[0-9]*\]:[[:space:]]*//p' || true
    }
    got=$(read_reg -m tcp -p "$port" -a 1 -r 9 127.0.0.1)
    [ "$got" = 2300 ] || die "TCP read of register 8 gave '$got', not 2300; the server's log: $($log)"
    $run mbpoll -1 -t 4 -m tcp -p "$port" -a 1 -r 28 127.0.0.1 2351 >/dev/null 2>&1 ||
        die "TCP write of register 27 failed; the server's log: $($log)"
    got=$(read_reg -m tcp -p "$port" -a 1 -r 28 127.0.0.1)
    [ "$got" = 2351 ] || die "register 27 reads '$got' after writing 2351; the server's log: $($log)"
    got=$(read_reg -m rtu -b 19200 -P even -a 1 -r 9 "$tty")
    [ "$got" = 2300 ] || die "RTU read of register 8 on $tty gave '$got'; the server's log: $($log)"
    # MBAP read of register 8, unit 1; the answer ends in 0x08fc (2300).
    got=$( (printf '\x00\x01\x00\x00\x00\x06\x01\x03\x00\x08\x00\x01'; sleep 1) |
        $run openssl s_client -quiet -no_ign_eof -connect "127.0.0.1:$tls_port" \
            -CAfile "$certs/ca.crt" -cert "$certs/client-Operator.crt" \
            -key "$certs/client-Operator.key" 2>/dev/null | od -An -tx1 | tr -d ' \n')
    [ "$got" = 00010000000501030208fc ] ||
        die "TLS read of register 8 gave '$got'; the server's log: $($log)"
}

# --- syscalls ----------------------------------------------------------------------------------

check_syscalls() {
    say "system calls of a session against the unit's filter"
    command -v strace >/dev/null || die "strace is not installed (scripts/deps.sh has it)"
    local dir=$work/sys store port tls_port pre umask_value strace_pid status got
    mkdir -p "$dir"
    # As the unit's user would, not as root: root takes other paths (cdsctl gives a new
    # store's files to the store's owner, for one). Its ptys and files are open to it.
    as_user=() run_as=()
    if [ "$(id -u)" -eq 0 ]; then
        as_user=(-u nobody) run_as=(runuser -u nobody --)
        chmod 711 "$work"
        chown nobody "$dir"
        "${run_as[@]}" test -x "$root/usr/bin/modbus_server" ||
            die "user nobody cannot run $root/usr/bin/modbus_server: ROOT must be open to others"
    fi
    store=$dir/store.db
    port=$((20000 + RANDOM % 20000))
    tls_port=$((port + 1))
    export CDS_STORE=$store
    bash scripts/tls-certs.sh "$dir/tls" Operator >/dev/null
    [ ${#as_user[@]} -eq 0 ] || chown -R nobody "$dir/tls"
    socat pty,raw,echo=0,link="$dir/ttyServer",perm=0666 pty,raw,echo=0,link="$dir/ttyClient" &
    # systemd's notify socket: a datagram socket whose messages land in a file.
    socat -u UNIX-RECV:"$dir/notify",perm=0666 OPEN:"$dir/notices",creat,append &
    for _ in $(seq 50); do [ -e "$dir/ttyClient" ] && [ -S "$dir/notify" ] && break; sleep 0.1; done

    # The unit's own command lines, with the package's programs and the scratch store.
    pre=$(unit_value ExecStartPre "$unit" | sed "s|/usr/bin/|$root/usr/bin/|g")
    umask_value=$(unit_value UMask "$unit")
    [ -n "$umask_value" ] || die "the unit sets no UMask="
    (
        umask "$umask_value"
        eval "set -- $pre"
        strace "${as_user[@]}" -f -qq -s 16 -o "$dir/pre.trace" "$@" >/dev/null 2>&1
    ) || die "the unit's ExecStartPre ($pre) failed on a new store"
    make_store "$example" "$port" "$dir/ttyServer" "$tls_port" "$dir/tls" "$dir/store.json"
    "${run_as[@]}" "$root/usr/bin/cdsctl" load "$dir/store.json" >/dev/null
    "${run_as[@]}" "$root/usr/bin/cdsctl" load "$dir/store-tls.json" >/dev/null

    run_server() { # unit-file trace-file: the ExecStart of the unit file, traced, in the background
        local cmd trace=$2
        cmd=$(unit_value ExecStart "$1" | sed -e "s|/usr/bin/|$root/usr/bin/|g" \
            -e "s|/var/lib/modbus-server/store.db|$store|g")
        eval "set -- $cmd"
        : >"$dir/notices"
        (
            umask "$umask_value"
            NOTIFY_SOCKET=$dir/notify WATCHDOG_USEC=1000000 \
                exec strace "${as_user[@]}" -f -qq -s 16 -o "$trace" "$@" 2>"$dir/server.log"
        ) &
        strace_pid=$!
        # strace forks short-lived children of its own first.
        for _ in $(seq 50); do
            server=$(pgrep -P "$strace_pid" -x modbus_server) && break
            sleep 0.1
        done
        [ -n "$server" ] || die "the server did not start under strace; its log: $(cat "$dir/server.log")"
        for _ in $(seq 100); do grep -q READY=1 "$dir/notices" 2>/dev/null && break; sleep 0.1; done
        grep -q READY=1 "$dir/notices" ||
            die "the server sent no READY=1 within 10 s; its log: $(cat "$dir/server.log")"
    }
    stop_server() {
        kill -TERM "$server"
        status=0
        wait "$strace_pid" || status=$?
        server=""
        [ "$status" -eq 0 ] || die "the server exited with $status after SIGTERM; its log: $(cat "$dir/server.log")"
    }

    run_server "$unit" "$dir/server.trace"
    server_log() { cat "$dir/server.log"; }
    session "" "$port" "$tls_port" "$dir/ttyClient" "$dir/tls" server_log
    # WATCHDOG_USEC is 1 s here: pings come every half second.
    sleep 1.2
    [ "$(grep -o WATCHDOG=1 "$dir/notices" | wc -l)" -ge 2 ] ||
        die "fewer than 2 WATCHDOG=1 notices in 1.7 s: '$(cat "$dir/notices")'"
    # The server made the WAL, its index and the change counter under the unit's umask.
    local modes
    modes=$(cd "$dir" && stat -c '%n %a' store.db store.db-wal store.db-shm store.db-changes 2>&1 |
        tr '\n' ' ')
    [ "$(echo "$modes" | grep -o ' 644' | wc -l)" -eq 4 ] ||
        die "under UMask=$umask_value the store's files are not all 0644: $modes"
    stop_server
    [ "$("${run_as[@]}" "$root/usr/bin/cdsctl" get /Devices/Power/Output/Setpoint/Value | awk '{ print $NF }')" = 235.1 ] ||
        die "the store does not hold the set point written over TCP"

    # With -rt, under the drop-in.
    cat "$unit" "$dropin" >"$dir/rt.service"
    run_server "$dropin" "$dir/rt.trace"
    got=$(mbpoll -1 -t 4 -m tcp -p "$port" -a 1 -r 9 127.0.0.1 2>/dev/null | sed -n 's/^\[9\]:[[:space:]]*//p')
    [ "$got" = 2300 ] || die "with -rt, TCP read of register 8 gave '$got'"
    stop_server

    local groups=$dir/groups
    # (On stderr it says it cannot list the kernel's calls here, which is not needed.)
    systemd-analyze syscall-filter --no-pager >"$groups" 2>/dev/null
    python3 - "$groups" "$unit" "$dir/rt.service" "$dir/pre.trace" "$dir/server.trace" \
        "$dir/rt.trace" <<'PY' || die "the unit's sandbox refuses what the server does (above)"
import re
import sys

groups_file, unit_file, rt_unit_file, pre_trace, server_trace, rt_trace = sys.argv[1:]

# systemd-analyze syscall-filter: "@name" lines, then the members indented (# comments).
groups, current = {}, None
for line in open(groups_file):
    if line.startswith("@"):
        current = groups.setdefault(line.strip(), set())
    elif current is not None and line.strip() and not line.strip().startswith("#"):
        current.add(line.strip())


def expand(name, seen=()):
    if not name.startswith("@"):
        return {name}
    if name not in groups:
        sys.exit(f"unknown system call group {name}")
    out = set()
    for member in groups[name]:
        out |= expand(member, seen + (name,)) if member not in seen else set()
    return out


def settings(path):
    values = {}
    for line in open(path):
        m = re.match(r"([A-Za-z]+)=(.*)", line.strip())
        if m:
            values.setdefault(m.group(1), []).append(m.group(2))
    return values


def allowed(values):
    """What SystemCallFilter= lines let through, in systemd's way: the first decides between
    an allow list (with @default) and a deny list; later ones add to or take from it; an
    empty one starts again. Other settings that filter whole calls take theirs away."""
    allow, deny = None, set()
    for value in values.get("SystemCallFilter", []):
        if not value:
            allow, deny = None, set()
            continue
        invert = value.startswith("~")
        names = set()
        for word in value.lstrip("~").split():
            names |= expand(word)
        if allow is None and not deny and not invert:
            allow = expand("@default") | names
        elif allow is not None:
            allow = allow - names if invert else allow | names
        else:
            deny = deny | names if invert else deny - names
    implied = {"ProtectClock": "@clock", "ProtectKernelModules": "@module",
               "PrivateDevices": "@raw-io", "ProtectKernelLogs": "syslog",
               "ProtectHostname": "sethostname setdomainname"}
    for key, words in implied.items():
        if values.get(key, ["no"])[-1] == "yes":
            for word in words.split():
                deny |= expand(word)
    if allow is None:
        sys.exit("the unit has no SystemCallFilter= allow list")
    return allow - deny


CALL = re.compile(r"^(\d+) +(?:<\.\.\. (\w+) resumed>|(\w+)\()(.*)$")


def calls(path):
    for line in open(path):
        m = CALL.match(line)
        if m:
            yield m.group(2) or m.group(3), m.group(4)


def problems(path, values):
    """The calls in a trace that the settings refuse, each with one example."""
    ok = allowed(values)
    found, bad = set(), {}
    flag = lambda key: values.get(key, ["no"])[-1] == "yes"
    for name, args in calls(path):
        found.add(name)
        why = None
        if name not in ok:
            why = "not in SystemCallFilter="
        elif flag("MemoryDenyWriteExecute") and (
                (name == "mmap" and "PROT_WRITE" in args and "PROT_EXEC" in args) or
                (name in ("mprotect", "pkey_mprotect") and "PROT_EXEC" in args)):
            why = "MemoryDenyWriteExecute="
        elif flag("RestrictNamespaces") and name in ("clone", "clone3", "unshare", "setns") \
                and "CLONE_NEW" in args:
            why = "RestrictNamespaces="
        elif flag("LockPersonality") and name == "personality" and not re.match(
                r"(PER_LINUX|0xffffffff)\)", args):
            why = "LockPersonality="
        elif flag("RestrictRealtime") and name in ("sched_setscheduler", "sched_setattr") and \
                re.search(r"SCHED_(FIFO|RR|DEADLINE)", args):
            why = "RestrictRealtime="
        if why:
            bad.setdefault(name, f"{why}: {name}({args[:70]}")
    return found, bad


unit, rt_unit = settings(unit_file), settings(rt_unit_file)
failed = False
for label, path, values in (("ExecStartPre", pre_trace, unit), ("the server", server_trace, unit),
                            ("the server with -rt and realtime.conf", rt_trace, rt_unit)):
    found, bad = problems(path, values)
    print(f"  {label}: {len(found)} system calls: {' '.join(sorted(found))}")
    for text in bad.values():
        print(f"  REFUSED for {label}: {text}")
        failed = True
    if "rt" in path.rsplit("/", 1)[-1] and "sched_setscheduler" not in found:
        print("  -rt made no sched_setscheduler call: the session did not use it")
        failed = True
added = sorted(set().union(*(calls_ for calls_ in [
    {n for n, _ in calls(p)} for p in (pre_trace, server_trace)])) - expand("@system-service"))
print(f"  beyond @system-service: {' '.join(added) or 'nothing'}")
sys.exit(1 if failed else 0)
PY
}

# --- sandbox -----------------------------------------------------------------------------------
box_cgroup="" machine="" leader=""
stop_container() {
    kill -TERM "$container" 2>/dev/null || true # systemd in it powers off
    for _ in $(seq 100); do kill -0 "$container" 2>/dev/null || break; sleep 0.2; done
    if kill -0 "$container" 2>/dev/null; then
        # Its PID 1 would outlive a killed nspawn; ended, it takes the container's processes.
        [ -z "$leader" ] || kill -KILL "$leader" 2>/dev/null || true
        kill -KILL "$container" 2>/dev/null || true
    fi
    wait "$container" 2>/dev/null || true
    container="" leader=""
    # What nspawn leaves behind where /run is no tmpfs, and the cgroup made for it.
    rmdir "/run/systemd/nspawn/propagate/$machine/incoming" \
        "/run/systemd/nspawn/propagate/$machine" 2>/dev/null || true
    [ -z "$box_cgroup" ] || find "$box_cgroup" -depth -type d -exec rmdir {} + 2>/dev/null || true
}

skip_sandbox() {
    echo "check-unit: sandbox check skipped: $*"
}

check_sandbox() {
    say "the unit under systemd, in a throwaway container"
    if [ "$(id -u)" -ne 0 ]; then
        skip_sandbox "it needs root, to boot a container"
        return 0
    fi
    if ! command -v systemd-nspawn >/dev/null; then
        skip_sandbox "systemd-nspawn is not installed (package systemd-container)"
        return 0
    fi
    local box=$work/box id state main before got modes sched
    mkdir -p "$box"
    chmod 755 "$work" "$box"
    # The host's users and groups, with the service's own as the package's postinst makes it.
    cp /etc/passwd /etc/group "$box/"
    grep -q '^dialout:' "$box/group" || echo "dialout:x:20:" >>"$box/group"
    if ! grep -q '^modbus-server:' "$box/passwd"; then
        for id in $(seq 999 -1 100); do
            grep -q "^[^:]*:[^:]*:$id:" "$box/passwd" "$box/group" || break
        done
        echo "modbus-server:x:$id:$id::/var/lib/modbus-server:/usr/sbin/nologin" >>"$box/passwd"
        echo "modbus-server:x:$id:" >>"$box/group"
    fi
    # The package is seen at /opt/mbcheck, these files at /opt/mbbox; the unit and the drop-in
    # name its programs there. The store serves port 502, the secure port 802 with its files
    # in /etc/modbus, and a pty of group dialout as its serial line.
    sed "s|/usr/bin/|/opt/mbcheck/usr/bin/|g" "$unit" >"$box/modbus-server.service"
    sed "s|/usr/bin/|/opt/mbcheck/usr/bin/|g" "$dropin" >"$box/realtime.conf"
    bash scripts/tls-certs.sh "$box/tls" Operator >/dev/null
    chmod -R a+rX "$box/tls"
    make_store /opt/mbcheck/usr/share/modbus-server/example 502 /run/mbcheck/ttyServer 802 \
        /etc/modbus "$box/store.json"

    machine=mbcheck-$$
    local opts=(-D / --volatile=yes --register=no -M "$machine" --private-network --quiet
        --bind-ro="$box/passwd:/etc/passwd" --bind-ro="$box/group:/etc/group"
        --bind-ro="$root:/opt/mbcheck" --bind-ro="$box:/opt/mbbox"
        # systemd's device ACL is a BPF program on the cgroup: allow it to load one. Like
        # a device's PID 1, it may raise the service's limits (LimitRTPRIO= for -rt).
        --capability=CAP_BPF,CAP_SYS_RESOURCE --system-call-filter=bpf)
    local cg_root cg_path
    if [ ! -d /run/systemd/system ]; then
        # No systemd to give the container a cgroup: it gets one made here, beside nspawn's.
        opts+=(--keep-unit)
        cg_root=$(findmnt -n -t cgroup2 -o TARGET | head -n 1)
        cg_path=$(sed -n 's/^0:://p' /proc/self/cgroup)
        case $cg_path in *..*) cg_path="" ;; esac
        [ -n "$cg_root" ] || { skip_sandbox "no cgroup2 file system is mounted"; return 0; }
        box_cgroup=$cg_root${cg_path%/}/$machine
        mkdir "$box_cgroup"
    fi
    (
        [ -z "$box_cgroup" ] || echo $BASHPID >"$box_cgroup/cgroup.procs"
        # Unified cgroups even on a host with v1 ones, whose controllers nspawn hands the
        # container read-only: the device ACL would not be enforced there.
        SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1 exec systemd-nspawn "${opts[@]}" -b -- \
            systemd.mask=systemd-firstboot.service systemd.unit=multi-user.target
    ) >"$work/boot.log" 2>&1 </dev/null &
    container=$!
    for _ in $(seq 100); do
        leader=$(pgrep -P "$container" -x systemd) && break
        sleep 0.1
    done
    if [ -z "$leader" ]; then
        skip_sandbox "the container did not start: $(tail -n 3 "$work/boot.log" | tr '\n' ' ')"
        stop_container
        return 0
    fi
    in_box() { nsenter -t "$leader" -a "$@"; }
    for _ in $(seq 120); do
        state=$(in_box systemctl is-system-running 2>&1) || true
        case $state in running | degraded) break ;; esac
        sleep 0.5
    done
    case $state in
        running | degraded) ;;
        *)
            skip_sandbox "systemd in the container did not come up ($state)"
            stop_container
            return 0
            ;;
    esac
    journal() { in_box journalctl -u modbus-server --no-pager -n 25 -o cat 2>&1 || true; }
    show() { in_box systemctl show -p "$1" --value modbus-server; }
    as_service() { # (runuser and su need PAM, which the container's empty /etc lacks)
        in_box setpriv --reuid=modbus-server --regid=modbus-server --init-groups \
            env CDS_STORE=/var/lib/modbus-server/store.db "$@"
    }

    in_box install -m 644 /opt/mbbox/modbus-server.service /etc/systemd/system/
    in_box systemctl daemon-reload
    in_box install -d -m 755 /etc/modbus
    in_box install -m 644 /opt/mbbox/tls/server.crt /opt/mbbox/tls/ca.crt /etc/modbus/
    in_box install -m 600 -o modbus-server -g modbus-server /opt/mbbox/tls/server.key /etc/modbus/
    in_box mkdir /run/mbcheck
    in_box socat pty,raw,echo=0,link=/run/mbcheck/ttyServer,group=dialout,perm=0660 \
        pty,raw,echo=0,link=/run/mbcheck/ttyClient </dev/null >/dev/null 2>&1 &

    # First start: ExecStartPre makes the store; the server waits for the UPS handler.
    in_box systemctl start --no-block modbus-server
    for _ in $(seq 100); do
        in_box test -s /var/lib/modbus-server/store.db && [ "$(show ActiveState)" = activating ] && break
        sleep 0.1
    done
    got=$(in_box stat -c '%a %U' /var/lib/modbus-server/store.db 2>&1) || true
    [ "$got" = "644 modbus-server" ] ||
        die "ExecStartPre's new store: '$got', not mode 644 of modbus-server; the journal: $(journal)"
    in_box systemctl stop modbus-server

    # The example loaded as the README says, then a start that returns once READY=1 came.
    as_service /opt/mbcheck/usr/bin/cdsctl load /opt/mbbox/store.json >/dev/null
    as_service /opt/mbcheck/usr/bin/cdsctl load /opt/mbbox/store-tls.json >/dev/null
    timeout 30 nsenter -t "$leader" -a systemctl start modbus-server ||
        die "the service did not start; the journal: $(journal)"
    before=$SECONDS
    main=$(show MainPID)
    got=$(in_box grep -E '^(NoNewPrivs|Seccomp):' "/proc/$main/status" | tr -s '\t\n' '  ')
    [ "$got" = "NoNewPrivs: 1 Seccomp: 2 " ] || die "the server is not under its filter: $got"
    session in_box 502 802 /run/mbcheck/ttyClient /opt/mbbox/tls journal
    got=$(as_service /opt/mbcheck/usr/bin/cdsctl get /Devices/Power/Output/Setpoint/Value | awk '{ print $NF }')
    [ "$got" = 235.1 ] || die "the store holds '$got' for the set point written over TCP, not 235.1"
    modes=$(in_box sh -c 'cd /var/lib/modbus-server && stat -c "%n %a %U" store.db*' | tr '\n' ' ')
    [ "$(echo "$modes" | grep -o ' 644 modbus-server' | wc -l)" -eq 4 ] ||
        die "the store's files are not all 0644 of modbus-server: $modes"
    # Past WatchdogSec= with the same process: its notices come through.
    sleep $((12 - (SECONDS - before) > 0 ? 12 - (SECONDS - before) : 0))
    [ "$(show MainPID) $(show NRestarts) $(show ActiveState)" = "$main 0 active" ] ||
        die "the service did not run on past WatchdogSec= ($(show Result)); the journal: $(journal)"

    # -rt with the drop-in.
    in_box install -D -m 644 /opt/mbbox/realtime.conf \
        /etc/systemd/system/modbus-server.service.d/realtime.conf
    in_box systemctl daemon-reload
    timeout 30 nsenter -t "$leader" -a systemctl restart modbus-server ||
        die "the service did not start with realtime.conf; the journal: $(journal)"
    got="$(show RestrictRealtime) $(show LimitRTPRIO) $(show SystemCallFilter | grep -ow sched_setscheduler)"
    [ "$got" = "no 50 sched_setscheduler" ] ||
        die "with realtime.conf the unit has RestrictRealtime=, LimitRTPRIO=, the call: '$got'"
    # systemd gives the service LimitRTPRIO= where it may raise limits, as a device's PID 1
    # may; a machine whose root lacks CAP_SYS_RESOURCE leaves every hard limit where it was.
    local capbnd
    capbnd=$(awk '/^CapBnd:/ { print $2 }' "/proc/$leader/status")
    if (((0x$capbnd >> 24) & 1)) ||
        [ "$(awk '/^Max realtime priority/ { print $5 }' "/proc/$leader/limits")" -ge 50 ]; then
        sched=$(in_box chrt -p "$(show MainPID)" | tr -s '\n' ' ')
        case $sched in
            *SCHED_FIFO*": 50 ") ;;
            *) die "with realtime.conf the server runs at '$sched', not SCHED_FIFO 50; the journal: $(journal)" ;;
        esac
    else
        echo "  -rt: not checked that the server runs SCHED_FIFO, as root here may not raise"
        echo "  RLIMIT_RTPRIO (no CAP_SYS_RESOURCE); the drop-in's settings are in force"
        sched=""
    fi
    got=$(in_box mbpoll -1 -t 4 -m tcp -p 502 -a 1 -r 9 127.0.0.1 2>/dev/null |
        sed -n 's/^\[9\]:[[:space:]]*//p')
    [ "$got" = 2300 ] || die "with realtime.conf, TCP read of register 8 gave '$got'; the journal: $(journal)"
    in_box systemctl stop modbus-server
    [ "$(show Result) $(show ExecMainStatus)" = "success 0" ] ||
        die "the service stopped with $(show Result), status $(show ExecMainStatus); the journal: $(journal)"

    # Devices, in a transient unit with the unit's sandbox: nodes in /dev of the serial
    # majors (at minor 255, which no driver has: the driver says ENXIO once the ACL lets the
    # open through) and of one that is not allowed (misc).
    local props=() key value
    while IFS='=' read -r key value; do
        case $key in
            Type | TimeoutStartSec | Environment | StateDirectory | StateDirectoryMode | Exec* | \
                WatchdogSec | KillSignal | TimeoutStopSec | Restart | RestartSec) ;;
            *) props+=(-p "$key=$value") ;;
        esac
    done < <(sed -n '/^\[Service\]/,/^\[/{/^[A-Za-z]*=/p}' "$unit")
    local nodes=(/dev/mbcheck-misc) name major
    in_box mknod -m 666 /dev/mbcheck-misc c 10 255
    for name in ttyS ttyUSB ttyACM; do
        major=$(awk -v n="$name" '$2 == n { print $1 }' /proc/devices)
        if [ -z "$major" ]; then
            echo "  $name: no driver loaded here, not checked"
            continue
        fi
        in_box mknod -m 666 "/dev/mbcheck-$name" c "$major" 255
        nodes+=("/dev/mbcheck-$name")
    done
    got=$(in_box systemd-run --wait --pipe --quiet "${props[@]}" /usr/bin/python3 -c '
import errno, os, sys
for path in sys.argv[1:]:
    try:
        os.close(os.open(path, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK))
        print(path, "opened")
    except OSError as e:
        print(path, errno.errorcode[e.errno])' "${nodes[@]}" 2>&1) ||
        die "the device probe failed under the unit's properties: $got"
    echo "$got" | sed 's/^/  /'
    if echo "$got" | grep -q ' ENOENT$'; then
        die "the unit's /dev lacks the device nodes of /dev (PrivateDevices=yes makes its own)"
    fi
    if echo "$got" | grep -v mbcheck-misc | grep -Eq ' (EPERM|EACCES)$'; then
        die "the unit's device ACL keeps a serial line out"
    fi
    echo "$got" | grep -q '^/dev/mbcheck-misc EPERM$' ||
        die "the unit's device ACL let a misc device through"
    echo "  under the unit: served on 502, TLS on 802 and a serial line, wrote its store (0644),"
    echo "  outlived WatchdogSec=, served with realtime.conf${sched:+ as SCHED_FIFO 50}, stopped cleanly"
    stop_container
}

for part in "${parts[@]}"; do
    case $part in
        score) check_score ;;
        syscalls) check_syscalls ;;
        sandbox) check_sandbox ;;
        *) die "no part '$part': score, syscalls or sandbox" ;;
    esac
done
say "done"
