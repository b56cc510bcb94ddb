#!/bin/bash
# A by-hand try of the RDP transport end to end, as the job of the throwaway container:
#   tests/system/run-container --build build --out /tmp/out-rdp --run tests/rdp/try-in-container.sh [-- CODEC]
# The real vexa.service with Xvfb sessions running xterm, the transport behind systemd-socket-activate as the
# unprivileged vexa-rdp (groups vexa, vexa-xauth) on 127.0.0.1:3390, and Debian's xfreerdp in an Xvfb of its
# own. CODEC: "rfx" (the default: RemoteFX offered and taken) or "bitmap" (/gdi:sw /rfx off: planar bitmaps).
# Output in OUT: run.log, client.png and session.png (both screens), transport.log, journal.json.
set -u
exec >/e2e/out/run.log 2>&1
# shellcheck source=/dev/null
. /etc/vexa-e2e.env
codec=${E2E_PYTEST_ARGS[0]:-rfx}
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
    /usr/libexec/vexa/vexa_rdp_transport --log debug >"$out/transport.log" 2>&1 &
activator=$!
sleep 1

Xvfb :77 -nolisten tcp -screen 0 1280x1024x24 >/dev/null 2>&1 &
client_x=$!
sleep 1
client_args=(/v:127.0.0.1:$port /u:$user /p:$password /cert:ignore /size:1024x768 /log-level:INFO)
if [ "$codec" = bitmap ]; then
    client_args+=(-rfx /gdi:sw /bpp:32)
else
    client_args+=(/rfx /gdi:sw)
fi
DISPLAY=:77 xfreerdp "${client_args[@]}" >"$out/client.log" 2>&1 &
client=$!
# The session starts (PAM, Xvfb, xterm) while the client waits.
for _ in $(seq 40); do
    sleep 0.5
    grep -q 'activate: session id' "$out/transport.log" && break
done
sleep 3
export DISPLAY=:77
window=$(xdotool search --class xfreerdp | head -1)
echo "client window: ${window:-none}"
exec 3>&2 2>/dev/null
if [ -n "$window" ]; then
    # Real (XTEST) key events: the pointer in the window gives it the keyboard, there being no window manager.
    xdotool mousemove --window "$window" 200 100 click 1
    xdotool type --delay 60 'echo Typed-Over-RDP > /tmp/rdp-typed'
    xdotool key Return
fi
exec 2>&3
sleep 2
xwd -root -silent -display :77 | xwdtopnm 2>/dev/null | pnmtopng >"$out/client.png"
disp=$(/usr/bin/python3 - <<'PY'
import dbus, json
vexa = dbus.Interface(dbus.SystemBus().get_object("ru.kelvo.vexa", "/ru/kelvo/vexa"), "ru.kelvo.vexa")
for name, sid in vexa.vexaSessions():
    info = json.loads(vexa.vexaSessionInfoJson(dbus.UInt32(sid)))
    print(info["display"])
    break
PY
)
echo "session display: ${disp:-none}"
if [ -n "$disp" ]; then
    XAUTHORITY=/run/vexa/xauth_$disp xwd -root -silent -display ":$disp" | xwdtopnm 2>/dev/null | pnmtopng >"$out/session.png"
fi
# The client's copy of the session's screen: pixel for pixel with planar bitmaps, close with RemoteFX (lossy).
xwd -root -silent -display :77 | xwdtopnm 2>/dev/null | pamcut -left 0 -top 0 -width 1024 -height 768 >/tmp/client.ppm
XAUTHORITY=/run/vexa/xauth_$disp xwd -root -silent -display ":$disp" | xwdtopnm 2>/dev/null >/tmp/session.ppm
echo "client vs session: $(pnmpsnr /tmp/client.ppm /tmp/session.ppm 2>&1 | tr '\n' ' ')"
echo "typed file: $(cat /tmp/rdp-typed 2>&1)"
kill "$client"
sleep 2
kill "$activator" "$client_x"
echo "--- transport log"
cat "$out/transport.log"
echo "--- client log (tail)"
tail -30 "$out/client.log"
journalctl -o json --no-pager >"$out/journal.json" 2>/dev/null
journalctl --no-pager -u vexa.service | tail -40
systemctl stop vexa.service
chmod a+r "$out"/* 2>/dev/null
exit 0
