#!/bin/bash
# The RDP benchmark's job inside the throwaway container (run-container --run): vexa.service with Xvfb sessions,
# vexa-rdp.socket enabled as a package would, a bench user, then rdp_bench.py. Output: /e2e/out/run.log.
set -u
exec >/e2e/out/run.log 2>&1
# shellcheck source=/dev/null
. /etc/vexa-e2e.env
here=$(dirname "$(realpath "$0")")
reconnects=${E2E_PYTEST_ARGS[0]:-10}
seconds=${E2E_PYTEST_ARGS[1]:-10}
user=vexa-bench-rdp

finish() {
    journalctl -o json --no-pager >/e2e/out/journal.json 2>/dev/null
    chmod -R a+rX /e2e/out 2>/dev/null
    exit 0
}

systemctl start dbus.service systemd-logind.service systemd-user-sessions.service || finish
if [ ! -x /usr/libexec/vexa/vexa_rdp_transport ]; then
    echo "rdp bench: /usr/libexec/vexa/vexa_rdp_transport is not installed: this build has no RDP transport yet"
    finish
fi
/usr/bin/python3 - <<'PY'
import json, pathlib
path = pathlib.Path("/etc/vexa/vexa_service.json")
config = json.loads(path.read_text())
config.update({"xvfb:path": "/usr/bin/Xvfb",
               "xvfb:args": [":%{display}", "-nolisten", "tcp", "-auth", "%{authfile}",
                             "-screen", "0", "%{width}x%{height}x%{depth}", "-I"]})
path.write_text(json.dumps(config, indent=4))
PY
useradd --create-home --user-group --shell /bin/bash "$user"
echo "$user:Bench-rdp-7Qx2-p9" | chpasswd
# the session's terminal keeps to a corner: the bench draws on the rest of the screen
printf 'XTerm*vt100.geometry: 10x2-0-0\n' >"/home/$user/.Xdefaults"
chown "$user:" "/home/$user/.Xdefaults"
systemctl start vexa.service || finish
systemctl enable --now vexa-rdp.socket vexa-rdp-certificate.service || finish
mkdir -p /tmp/rdp-bench
/usr/bin/python3 "$here/rdp_bench.py" /tmp/rdp-bench "$reconnects" "$seconds"
echo "rdp bench: exit status $?"
cp /tmp/rdp-bench/*.log /e2e/out/ 2>/dev/null
systemctl stop vexa.service
finish
