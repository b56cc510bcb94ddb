#!/bin/sh
# Session script of vexa_service: runs as the user, in the session's environment, as
#
#   xsession.sh PROGRAM [ARGUMENT]...
#
# It gives the session a D-Bus session bus (the user's own bus when the user's systemd manager
# serves one at $XDG_RUNTIME_DIR/bus, otherwise a dbus-daemon of its own), exports its address as
# DBUS_SESSION_BUS_ADDRESS and writes it to $VEXA_DBUS_SESSION_FILE, where the service waits for
# it. Then it runs PROGRAM with its arguments as a child, passes TERM, HUP and INT on to it, and
# once it has ended stops the bus it started, removes the address file and exits with PROGRAM's
# status.
#
# PROGRAM and its arguments come from the service's caller: they are only ever used as "$@" and
# the path found for PROGRAM, never read by this shell as code.

me=xsession.sh

say() {
    printf '%s: %s\n' "$me" "$*" >&2
}

# Signals are taken from the start: one that arrives before the program runs is remembered and
# ends the session as soon as it is set up; later ones go to the program.
child=
pending=
last=
signals=0
# shellcheck disable=SC2317 # called by the traps below
forward() {
    signals=$((signals + 1))
    last=$1
    if [ -n "$child" ]; then
        kill -s "$1" "$child" 2>/dev/null
    else
        pending=$1
    fi
}
trap 'forward TERM' TERM
trap 'forward HUP' HUP
trap 'forward INT' INT

if [ $# -eq 0 ] || [ -z "$1" ]; then
    say "usage: $me PROGRAM [ARGUMENT]..."
    exit 2
fi

# The program by path: a name without a slash is looked up in PATH here, so that the shell never
# takes it for a builtin or a function.
program=
case $1 in
*/*)
    program=$1
    ;;
*)
    rest=${PATH:-/usr/local/bin:/usr/bin:/bin}:
    while [ -n "$rest" ]; do
        dir=${rest%%:*}
        rest=${rest#*:}
        if [ -f "${dir:-.}/$1" ] && [ -x "${dir:-.}/$1" ]; then
            program=${dir:-.}/$1
            break
        fi
    done
    ;;
esac
if [ -z "$program" ] || [ ! -e "$program" ]; then
    say "session program not found: $1"
    exit 127
fi
if [ -d "$program" ] || [ ! -x "$program" ]; then
    say "session program is not executable: $program"
    exit 126
fi
shift

# The character escaping of D-Bus addresses, for a socket path (bytes outside
# [-0-9A-Za-z_/.*] become %XX).
bus_escape() {
    s=$1
    while [ -n "$s" ]; do
        tail=${s#?}
        c=${s%"$tail"}
        s=$tail
        case $c in
        [-0-9A-Za-z_/.*]) printf '%s' "$c" ;;
        *) printf '%%%02X' "'$c" ;;
        esac
    done
}

newline='
'
bus_pid=
address=
if [ -n "${XDG_RUNTIME_DIR:-}" ] && [ -S "$XDG_RUNTIME_DIR/bus" ]; then
    # The user's systemd manager serves the user's bus (dbus-user-session, dbus-broker).
    case $XDG_RUNTIME_DIR in
    *[!-0-9A-Za-z_/.*]*) address=unix:path=$(LC_ALL=C && bus_escape "$XDG_RUNTIME_DIR/bus") ;;
    *) address=unix:path=$XDG_RUNTIME_DIR/bus ;;
    esac
else
    # With --fork the daemon prints its pid and, once it listens, its address, then stays in
    # the background: two lines, told apart by their form.
    out=$(dbus-daemon --session --fork --print-address=1 --print-pid=1 </dev/null)
    first=${out%%"$newline"*}
    second=${out#*"$newline"}
    case $first in
    *:*) address=$first bus_pid=$second ;;
    *) bus_pid=$first address=$second ;;
    esac
    case $bus_pid in
    '' | *[!0-9]*)
        say "could not start a session bus (dbus-daemon --session)"
        bus_pid=
        address=
        ;;
    esac
fi

address_file=${VEXA_DBUS_SESSION_FILE:-}
if [ -n "$address" ]; then
    DBUS_SESSION_BUS_ADDRESS=$address
    export DBUS_SESSION_BUS_ADDRESS
    if [ -n "$address_file" ]; then
        case $address_file in
        */*) address_dir=${address_file%/*} ;;
        *) address_dir=. ;;
        esac
        # One line in one write: the service takes the address once the line's newline is there, so it
        # never reads half of it. Builtins only, but for the mkdir of a first session: the service waits
        # for this file. It needs no mode of its own: the run-time directory is the user's alone.
        if { [ -d "${address_dir:-/}" ] || (umask 077 && mkdir -p -- "${address_dir:-/}"); } &&
            printf '%s\n' "$address" >"$address_file"; then
            :
        else
            say "could not write the bus address to $address_file"
            address_file=
        fi
    fi
else
    # The session runs without a bus rather than not at all; the service reports it.
    address_file=
fi

cleanup() {
    if [ -n "$bus_pid" ]; then
        kill -s TERM "$bus_pid" 2>/dev/null
    fi
    if [ -n "$address_file" ]; then
        rm -f -- "$address_file"
    fi
}

case $pending in
TERM) status=143 ;;
HUP) status=129 ;;
INT) status=130 ;;
*) status= ;;
esac
if [ -n "$status" ]; then
    say "stopped by SIG$pending before the session program started"
    cleanup
    exit "$status"
fi

# A child started with & has SIGINT and SIGQUIT ignored (no job control in a script); env puts them
# back to their defaults so that a forwarded INT works. env would take a path with "=" in it for
# an assignment: such a program, or one on a system whose env cannot do this, keeps them ignored.
reset_signals=false
case $program in
*=*) ;;
*) if env --default-signal=INT,QUIT true 2>/dev/null; then reset_signals=true; fi ;;
esac
if $reset_signals; then
    env --default-signal=INT,QUIT -- "$program" "$@" &
else
    "$program" "$@" &
fi
child=$!
# A signal taken between the check above and now is still owed to the program.
if [ -n "$pending" ]; then
    kill -s "$pending" "$child" 2>/dev/null
fi

# wait also returns when a trapped signal arrives; the program may then still run. A second wait
# for a program that has ended meanwhile returns its status, or 127 once this shell has already
# handed that status out.
#
# A signal sent to the program right after the fork may reach it before it has become the program:
# it then still runs this shell's trap, and the signal is lost. So every forwarded signal is sent
# once more, a moment later, while the program still runs.
status=
resend=$pending
while :; do
    if [ -n "$resend" ] && kill -0 "$child" 2>/dev/null; then
        sleep 0.2
        kill -s "$resend" "$child" 2>/dev/null
    fi
    resend=
    seen=$signals
    wait "$child"
    rc=$?
    if [ "$rc" -eq 127 ] && [ -n "$status" ]; then
        break
    fi
    status=$rc
    [ "$signals" -ne "$seen" ] || break
    resend=$last
done

cleanup
exit "$status"
