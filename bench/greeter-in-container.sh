#!/bin/bash
# The login screen benchmark's job inside the throwaway container (run-container --run): vexa.service with Xvfb
# sessions, vexa-rdp.socket enabled as a package would, a bench user, then greeter_bench.py. Output:
# /e2e/out/run.log.
set -u
exec >/e2e/out/run.log 2>&1
# shellcheck source=/dev/null
. /etc/vexa-e2e.env
here=$(dirname "$(realpath "$0")")
runs=${E2E_PYTEST_ARGS[0]:-10}
user=vexa-bench-greet

finish() {
    journalctl -o json --no-pager >/e2e/out/journal.json 2>/dev/null
    chmod -R a+rX /e2e/out 2>/dev/null
    exit 0
}

systemctl start dbus.service systemd-logind.service systemd-user-sessions.service || finish
for program in vexa_rdp_transport vexa_login_helper; do
    if [ ! -x "/usr/libexec/vexa/$program" ]; then
        echo "greeter bench: /usr/libexec/vexa/$program is not installed"
        finish
    fi
done
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
echo "$user:Bench-greet-4Rv8-k2" | chpasswd
# the user's desktop is a terminal that fills the screen in a colour of its own
printf 'XTerm*vt100.background: #7a1f5c\nXTerm*vt100.geometry: 400x200+0+0\n' >"/home/$user/.Xdefaults"
chown "$user:" "/home/$user/.Xdefaults"
systemctl start vexa.service || finish
systemctl enable --now vexa-rdp.socket vexa-rdp-certificate.service || finish
mkdir -p /tmp/greeter-bench
E2E_SRC_DIR=$E2E_SRC_DIR /usr/bin/python3 "$here/greeter_bench.py" /tmp/greeter-bench "$runs"
echo "greeter bench: exit status $?"
cp /tmp/greeter-bench/*.log /e2e/out/ 2>/dev/null
systemctl stop vexa.service
finish
