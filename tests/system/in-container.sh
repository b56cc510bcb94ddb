#!/bin/bash
# The container's job (systemd.run=): brings up the system bus and logind, runs the suite against
# the installed vexa.service, exports the journal; its exit status becomes the container's.
set -u
# Written by run-container: E2E_SRC_DIR, E2E_BUILD_DIR, E2E_TRACE, E2E_PYTEST_ARGS, E2E_ENV.
# shellcheck source=/dev/null
. /etc/vexa-e2e.env
out=/e2e/out

# This job starts early in the boot, before the bus and logind, and while /run/nologin still refuses
# user logins (systemd-user-sessions removes it).
if systemctl start dbus.service systemd-logind.service systemd-user-sessions.service; then
    # shellcheck disable=SC2163 # KEY=VALUE is exported as it stands
    for kv in ${E2E_ENV[@]+"${E2E_ENV[@]}"}; do export "$kv"; done
    export E2E_SRC_DIR E2E_BUILD_DIR E2E_TRACE PYTHONDONTWRITEBYTECODE=1 PYTHONUNBUFFERED=1
    cd /e2e/in && /usr/bin/python3 -m pytest -p no:cacheprovider -o console_output_style=classic \
        -rfEs --junitxml="$out/junit.xml" ${E2E_PYTEST_ARGS[@]+"${E2E_PYTEST_ARGS[@]}"} \
        >"$out/pytest.log" 2>&1
    status=$?
else
    status=1
    echo "in-container: could not start dbus/logind" >"$out/pytest.log"
    systemctl --no-pager status dbus.service systemd-logind.service >>"$out/pytest.log" 2>&1
fi
journalctl -o json --no-pager >"$out/journal.json" 2>/dev/null
chmod a+r "$out"/* 2>/dev/null
exit "$status"
