#!/bin/bash
# A by-hand try of the RDP transport end to end, as the job of the throwaway container:
#   tests/system/run-container --build build --out /tmp/out-rdp --run tests/rdp/try-in-container.sh [-- CODEC [valgrind]]
# The real vexa.service with Xvfb sessions running xterm, the transport behind systemd-socket-activate as the
# unprivileged vexa-rdp (groups vexa, vexa-xauth) on 127.0.0.1:3390, and Debian's xfreerdp in an Xvfb of its
# own. CODEC: "rfx" (the default: RemoteFX offered and taken), "bitmap" (planar, 32 bpp), "bitmap24" or "bitmap16"
# (uncompressed bitmaps). Phases: a logon that types into the session's xterm and copies text both ways; a wrong password; a reconnect at
# another size and a window resize; SIGTERM to a transport; a replacing client; the inactivity limit; the user ending the session. Output in OUT: run.log (the findings),
# client.png and session.png (both screens after the first logon), transport.log, client-*.log, journal.json.
set -u
exec >/e2e/out/run.log 2>&1
# shellcheck source=/dev/null
. /etc/vexa-e2e.env
codec=${E2E_PYTEST_ARGS[0]:-rfx}
# A second argument "valgrind" runs every transport under valgrind (its reports in OUT/valgrind-PID.log).
wrapper=()
if [ "${E2E_PYTEST_ARGS[1]:-}" = valgrind ]; then
    mkdir -m 1777 /tmp/valgrind
    wrapper=(valgrind --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite
        "--log-file=/tmp/valgrind/valgrind-%p.log")
fi
export HOME=/root
out=/e2e/out
user=rdpuser
password='Rdp-try-7mz4'
port=3390

systemctl start dbus.service systemd-logind.service systemd-user-sessions.service || exit 1
useradd --create-home --user-group --shell /bin/bash "$user"
echo "$user:$password" | chpasswd
useradd --system --no-create-home --groups vexa,vexa-xauth --shell /usr/sbin/nologin vexa-rdp
systemctl reload dbus.service

# The daemon with Xvfb sessions.
/usr/bin/python3 - <<'PY'
import json, pathlib
p = pathlib.Path("/etc/vexa/vexa_service.json")
c = json.loads(p.read_text())
c.update({"xvfb:path": "/usr/bin/Xvfb",
          "xvfb:args": [":%{display}", "-nolisten", "tcp", "-auth", "%{authfile}",
                        "-screen", "0", "%{width}x%{height}x%{depth}", "-I"],
          "debug:level": "debug"})
p.write_text(json.dumps(c))
PY
systemctl start vexa.service || exit 1

mkdir -p /etc/vexa/rdp
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=vexa-try -keyout /etc/vexa/rdp/tls.key \
    -out /etc/vexa/rdp/tls.crt 2>/dev/null
chgrp vexa /etc/vexa/rdp/tls.key && chmod 0640 /etc/vexa/rdp/tls.key

# The transport as the units will run it: one process per accepted connection, the socket as descriptor 3.
setpriv --reuid=vexa-rdp --regid=vexa-rdp --init-groups \
    systemd-socket-activate --accept --listen=127.0.0.1:$port \
    "${wrapper[@]}" /usr/libexec/vexa/vexa_rdp_transport --log debug >"$out/transport.log" 2>&1 &
activator=$!
sleep 1

Xvfb :77 -nolisten tcp -screen 0 1280x1024x24 >/dev/null 2>&1 &
client_x=$!
sleep 1
export DISPLAY=:77

codec_args=(/gdi:sw /rfx)
case $codec in
bitmap) codec_args=(/gdi:sw /bpp:32) ;;
bitmap16) codec_args=(/gdi:sw /bpp:16) ;;
bitmap24) codec_args=(/gdi:sw /bpp:24) ;;
esac

# client NAME SIZE PASSWORD [ARGS...]: an xfreerdp in the background, its pid in $client.
client() {
    xfreerdp /v:127.0.0.1:$port /u:$user "/p:$3" /cert:ignore "/size:$2" /log-level:INFO "${codec_args[@]}" \
        "${@:4}" >"$out/client-$1.log" 2>&1 &
    client=$!
}
# wait_log COUNT PATTERN: until the transport log holds COUNT lines matching PATTERN (20 s at most).
wait_log() {
    for _ in $(seq 80); do
        [ "$(grep -c "$2" "$out/transport.log")" -ge "$1" ] && return 0
        sleep 0.25
    done
    return 1
}
vexa() {
    /usr/bin/python3 -c '
import dbus, json, sys
vexa = dbus.Interface(dbus.SystemBus().get_object("ru.kelvo.vexa", "/ru/kelvo/vexa"), "ru.kelvo.vexa")
what = sys.argv[1]
if what == "display":
    for name, sid in vexa.vexaSessions():
        print(json.loads(vexa.vexaSessionInfoJson(dbus.UInt32(sid)))["display"]); break
elif what == "clipboard":
    vexa.vexaSessionPolicyRedirectClipboard(dbus.Int32(-1), bool(int(sys.argv[2])), bool(int(sys.argv[3])))
elif what == "inactivity":
    vexa.vexaSessionInactivityLimit(dbus.Int32(-1), dbus.UInt32(int(sys.argv[2])))
' "$@"
}
# The last transport systemd-socket-activate started.
transport_pid() { sed -n 's/^Spawned .* as PID \([0-9]*\)\.$/\1/p' "$out/transport.log" | tail -1; }
# wait_client SECONDS: $status is the client's exit status once it ended, "running" (and it is ended) after
# SECONDS.
wait_client() {
    for _ in $(seq $(($1 * 4))); do
        if ! kill -0 "$client" 2>/dev/null; then
            wait "$client"
            status=$?
            return
        fi
        sleep 0.25
    done
    kill "$client"
    wait "$client" 2>/dev/null
    status=running
}

echo "== 1. logon ($codec), typing into the session"
client first 1024x768 "$password"
wait_log 1 'activate: session id' || echo "FAIL: no activation"
sleep 3
window=$(xdotool search --class xfreerdp 2>/dev/null | head -1)
# Real (XTEST) key events: the pointer in the window gives it the keyboard, there being no window manager.
xdotool mousemove --window "$window" 200 100 click 1 2>/dev/null
xdotool type --delay 60 'echo Typed-Over-RDP > /tmp/rdp-typed' 2>/dev/null
xdotool key Return 2>/dev/null
sleep 2
disp=$(vexa display)
echo "session display: ${disp:-none}"
xwd -root -silent -display :77 | xwdtopnm 2>/dev/null | pnmtopng >"$out/client.png"
XAUTHORITY=/run/vexa/xauth_$disp xwd -root -silent -display ":$disp" | xwdtopnm 2>/dev/null >/tmp/session.ppm
pnmtopng </tmp/session.ppm >"$out/session.png"
# The client's copy of the session's screen: pixel for pixel with bitmaps, close with RemoteFX (lossy).
xwd -root -silent -display :77 | xwdtopnm 2>/dev/null | pamcut -left 0 -top 0 -width 1024 -height 768 >/tmp/client.ppm
echo "client vs session: $(pnmpsnr /tmp/client.ppm /tmp/session.ppm 2>&1 | sed 's/pnmpsnr: *//' | tr '\n' ' ')"
echo "typed file: $(cat /tmp/rdp-typed 2>&1)"
# The clipboard both ways (xclip -i stays in the background serving its selection).
printf 'From-the-session\nline two ü' | XAUTHORITY=/run/vexa/xauth_$disp xclip -selection clipboard -i -display ":$disp"
sleep 1
echo "client's clipboard: $(timeout 5 xclip -selection clipboard -o -display :77 2>&1 | tr '\n' '|')"
printf 'From-the-client €' | xclip -selection clipboard -i -display :77
sleep 1
echo "session's clipboard: $(XAUTHORITY=/run/vexa/xauth_$disp timeout 5 xclip -selection clipboard -o -display ":$disp" 2>&1)"
# Client to server switched off for all sessions: the next copy stays on the client (asked again per transfer).
vexa clipboard 0 1
printf 'Not-for-the-session' | xclip -selection clipboard -i -display :77
sleep 1
echo "session's clipboard, client to server off: $(XAUTHORITY=/run/vexa/xauth_$disp timeout 5 xclip -selection clipboard -o -display ":$disp" 2>&1)"
vexa clipboard 1 1
# A scrolling terminal for 8 s: the transport's CPU time and the frames it sent (the frames line of the log).
pid=$(transport_pid)
ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
before=$(ticks "$pid")
xdotool mousemove --window "$window" 200 100 2>/dev/null
xdotool type --delay 30 'seq 1 3000000' 2>/dev/null
xdotool key Return 2>/dev/null
sleep 8
used=$(($(ticks "$pid") - before))
echo "scrolling for 8 s: transport CPU $(awk -v t="$used" -v hz="$(getconf CLK_TCK)" 'BEGIN { printf "%.0f%%", t / hz / 8 * 100 }') of one core"
xdotool key ctrl+c 2>/dev/null
xwd -root -silent -display :77 | xwdtopnm 2>/dev/null | pnmtopng >"$out/client-scrolled.png"
kill "$client"
wait_log 1 'run: client .* left' || echo "FAIL: transport did not see the client leave"
grep -h 'frames:' "$out/transport.log" | head -1
sleep 1

echo "== 2. wrong password"
client wrong 1024x768 'not-the-password'
wait_client 20
echo "client exit: $status"
grep -h 'connection refused\|session request refused' "$out/transport.log"
grep -h 'ERRINFO\|LOGON' "$out/client-wrong.log" | head -3

echo "== 3. reconnect at 800x600, then the client's window resized to 900x700 (display control)"
client second 800x600 "$password" /dynamic-resolution
wait_log 2 'activate: session id' || echo "FAIL: no second activation"
sleep 2
echo "session screen: $(XAUTHORITY=/run/vexa/xauth_$disp xdpyinfo -display ":$disp" | grep dimensions)"
window=$(xdotool search --class xfreerdp 2>/dev/null | head -1)
xdotool windowsize "$window" 900 700 2>/dev/null
wait_log 1 'applyLayout' || echo "FAIL: no layout from the client"
wait_log 3 'activate: session id' || echo "FAIL: no activation after the resize"
sleep 1
grep -h 'running session\|resize\|desktopResize\|applyLayout' "$out/transport.log"
echo "session screen: $(XAUTHORITY=/run/vexa/xauth_$disp xdpyinfo -display ":$disp" | grep dimensions)"

echo "== 4. SIGTERM to the transport"
pid=$(transport_pid)
echo "transport pid: $pid"
kill -TERM "$pid"
wait_client 10
echo "client exit: $status"
grep -h 'signal 15\|frames:' "$out/transport.log" | tail -2

echo "== 4b. a second client while one is connected (the default connect policy PrevReplace)"
client fourth 1024x768 "$password"
first_client=$client
wait_log 4 'activate: session id' || echo "FAIL: no activation of the first client"
client fifth 1024x768 "$password"
wait_log 5 'activate: session id' || echo "FAIL: no activation of the replacing client"
replacing=$client
client=$first_client
wait_client 10
echo "replaced client exit: $status"
client=$replacing
kill "$client"
wait_client 10

echo "== 5. inactivity limit of 3 s"
vexa inactivity 3
client third 1024x768 "$password"
wait_log 6 'activate: session id' || echo "FAIL: no activation for phase 5"
wait_client 15
echo "client exit after the inactivity disconnect: $status"
grep -h 'checkInactivity' "$out/transport.log"

echo "== 6. the user ends the session (exit in the xterm)"
vexa inactivity 0
client sixth 1024x768 "$password"
wait_log 7 'activate: session id' || echo "FAIL: no activation for phase 6"
sleep 1
window=$(xdotool search --class xfreerdp 2>/dev/null | head -1)
xdotool mousemove --window "$window" 200 100 2>/dev/null
xdotool type --delay 60 'exit' 2>/dev/null
xdotool key Return 2>/dev/null
wait_client 15
echo "client exit after the session ended: $status"
grep -h 'X server gone' "$out/transport.log"
echo "sessions left: $(busctl --system call ru.kelvo.vexa /ru/kelvo/vexa ru.kelvo.vexa vexaSessions)"

kill "$activator" "$client_x"
echo "--- the daemon on transports"
journalctl --no-pager -u vexa.service -o cat |
    grep -E 'proxy|vexaConnectRdpTransport|TransportDisplay|vexaDisplayResize|vexaDisconnect|transport ended' | cut -c1-160
echo "--- transport log"
grep -v '^\[..:..:..:...\] \[[0-9]*:[0-9]*\] \[INFO\]' "$out/transport.log"
journalctl -o json --no-pager >"$out/journal.json" 2>/dev/null
if [ -d /tmp/valgrind ]; then
    cp /tmp/valgrind/* "$out/" 2>/dev/null
    echo "--- valgrind"
    grep -h 'ERROR SUMMARY\|definitely lost' /tmp/valgrind/*
fi
systemctl stop vexa.service
chmod a+r "$out"/* 2>/dev/null
exit 0
