#!/bin/bash
# The demo's job inside the throwaway container (run by systemd after boot): bring up the system bus and
# logind, start vexa.service as the installed unit, then run the client. Output goes to /e2e/out/run.log,
# the screenshot to /e2e/out/session.png (the host's out/demo/).
exec >/e2e/out/run.log 2>&1
here=$(dirname "$(realpath "$0")")
systemctl start dbus.service systemd-logind.service systemd-user-sessions.service || exit 1
# The newest package run-container bound at /e2e/packages: apt installs it, its maintainer scripts make the
# accounts, reload the bus and start the units.
# A container image's policy-rc.d forbids maintainer scripts to start services; this throwaway root needs none.
rm -f /usr/sbin/policy-rc.d
deb=$(find /e2e/packages -name 'vexa_*.deb' | sort -V | tail -1)
echo "== apt-get install $deb"
DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "$deb" || exit 1
echo "== vexa.service (Type=notify: started once the daemon has said READY=1)"
systemctl is-active vexa.service || {
    systemctl --no-pager status vexa.service
    exit 1
}
/usr/bin/python3 "$here/client.py" --out /e2e/out
status=$?
chmod a+r /e2e/out/* 2>/dev/null
exit "$status"
