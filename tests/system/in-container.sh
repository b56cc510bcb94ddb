#!/bin/bash
# Runs inside the test container as the kernel-command-line unit (systemd.run=): brings up the
# system bus and logind, runs the suite against the installed vexa.service and leaves the
# results in /e2e/out. Its exit status becomes the container's, and run-container's.
set -u

# Written by run-container: E2E_SRC_DIR, E2E_PYTEST_ARGS, E2E_ENV.
# shellcheck source=/dev/null
. /etc/vexa-e2e.env

out=/e2e/out
log=$out/pytest.log

# This unit starts early in the boot; the bus and logind are not up yet. Waiting for the whole
# system to be "running" would wait for this very unit.
if ! systemctl start dbus.service systemd-logind.service; then
    echo "in-container: could not start dbus/logind" >"$log"
    systemctl --no-pager status dbus.service systemd-logind.service >>"$log" 2>&1
    journalctl -o json --no-pager >"$out/journal.json" 2>/dev/null
    exit 1
fi

for kv in ${E2E_ENV[@]+"${E2E_ENV[@]}"}; do
    # shellcheck disable=SC2163 # KEY=VALUE is exported as it stands
    export "$kv"
done

export E2E_SRC_DIR PYTHONDONTWRITEBYTECODE=1 PYTHONUNBUFFERED=1
cd /e2e/in || exit 1
/usr/bin/python3 -m pytest -p no:cacheprovider -o console_output_style=classic -rfEs \
    --junitxml="$out/junit.xml" ${E2E_PYTEST_ARGS[@]+"${E2E_PYTEST_ARGS[@]}"} >"$log" 2>&1
status=$?

journalctl -o json --no-pager >"$out/journal.json" 2>/dev/null
chmod a+r "$out"/* 2>/dev/null
exit "$status"
