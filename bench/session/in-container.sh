#!/bin/bash
# The bench's job inside the throwaway container (run-container --run): brings up the system bus and
# logind, runs bench_session.py with the arguments given after "--" to run-container (which passes them
# on as E2E_PYTEST_ARGS), exports the journal. Output goes to /e2e/out/run.log.
set -u
exec >/e2e/out/run.log 2>&1
# shellcheck source=/dev/null
. /etc/vexa-e2e.env
out=/e2e/out
here=$(dirname "$(realpath "$0")")

# Early in the boot /run/nologin still refuses user logins (systemd-user-sessions removes it).
if ! systemctl start dbus.service systemd-logind.service systemd-user-sessions.service; then
    echo "bench: could not start dbus/logind"
    systemctl --no-pager status dbus.service systemd-logind.service
    exit 1
fi
export PYTHONDONTWRITEBYTECODE=1 PYTHONUNBUFFERED=1
/usr/bin/python3 "$here/bench_session.py" --out "$out" ${E2E_PYTEST_ARGS[@]+"${E2E_PYTEST_ARGS[@]}"}
status=$?
journalctl -o json --no-pager >"$out/journal.json" 2>/dev/null
chmod a+r "$out"/* 2>/dev/null
exit "$status"
