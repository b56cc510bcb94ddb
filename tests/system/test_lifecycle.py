"""Start-up, readiness, files of the running service and the ways it stops."""

import os
import signal
import stat
import time

import pytest

from conftest import (API_VERSION, CONFIG, LIMITS, PID_FILE, RUNTIME_DIR, STORE_DIR, UNIT,
                      VERSION, assert_level_fields, end_listener, run, subscribers_as,
                      wait_for)

START_NOTICE = ("start: started, version " + VERSION + ", pid: {pid}, config: `" + CONFIG +
                "', dbus timeout: 25000000")


def test_unit_is_active_only_once_the_service_answers(service, journal, unit_states):
    assert str(service.prop("Type")) == "notify"
    assert str(service.prop("NotifyAccess")) == "main"

    service.start()

    # `systemctl start` of a notify unit returns once READY=1 arrived: by then the name must be
    # owned, the object registered and the start notice written; no retry is allowed here.
    assert service.client.value("vexaApiVersion") == API_VERSION
    assert service.state() == "active"
    wait_for(lambda: "active" in unit_states.states(), what="active state announced")
    states = unit_states.states()
    assert states[states.index("activating"):] == ["activating", "active"]

    notice = journal.wait(service.start_cursor, START_NOTICE.format(pid=service.pid),
                          pid=service.pid)[0]
    assert_level_fields(notice, "notice")
    assert notice["SYSLOG_IDENTIFIER"] == "vexa_service"
    assert os.path.exists(PID_FILE)
    # The kernel's time stamp of the notice (taken when it was sent) lies between the start of
    # the process and the moment systemd took the unit for active, which READY=1 decides.
    sent = int(notice["_SOURCE_REALTIME_TIMESTAMP"])
    assert int(service.prop("ExecMainStartTimestamp")) <= sent
    assert sent < int(service.prop("ActiveEnterTimestamp"))


@pytest.mark.parametrize("content", [
    '["an", "array", "is", "no", "object"]',
    '{"debug:level": "info",}',
    '',
], ids=["array", "trailing-comma", "empty"])
def test_configuration_that_is_no_object_makes_the_start_fail(service, files, journal, content):
    files.write(CONFIG, content)
    proc = service.start(check=False)

    assert proc.returncode != 0, "systemctl start reported success"
    assert service.state() != "active"
    # The process never said READY=1: it ended without it.
    assert str(service.prop("Result")) == "protocol"
    pid = int(service.prop("ExecMainPID"))
    messages = journal.messages(service.start_cursor, pid)
    assert f"DBusService: json not object, file: {CONFIG}" in messages
    assert "exception: DBusService" in messages
    assert not any(m.startswith("start: started") for m in messages)
    assert not os.path.exists(PID_FILE)


def test_limits_file_that_is_no_object_is_logged_and_ignored(service, files, journal):
    files.write(LIMITS, '[{"default": {"cpu:weight": 300}}]')
    service.start()
    entries = service.barrier()
    errors = [e for e in entries if e["MESSAGE"] == f"DBusService: json not object, file: {LIMITS}"]
    assert len(errors) == 1
    assert_level_fields(errors[0], "error")
    assert service.client.value("vexaCpuWeightDefault") == 0


@pytest.mark.parametrize("prepare", ["missing", "wrong-modes"])
def test_run_time_and_store_directories_and_pid_file(service, prepare):
    if prepare == "missing":
        run(["rm", "-rf", RUNTIME_DIR, "/var/lib/vexa"])
    else:
        os.makedirs(RUNTIME_DIR, exist_ok=True)
        os.makedirs(STORE_DIR, exist_ok=True)
        os.chmod(RUNTIME_DIR, 0o700)
        os.chmod(STORE_DIR, 0o777)

    service.start()

    for path, mode in ((RUNTIME_DIR, 0o755), (STORE_DIR, 0o750)):
        st = os.stat(path)
        assert stat.S_ISDIR(st.st_mode), path
        assert oct(stat.S_IMODE(st.st_mode)) == oct(mode), path
    with open(PID_FILE, "rb") as f:
        assert f.read() == str(service.pid).encode()
    st = os.stat(PID_FILE)
    assert stat.S_ISREG(st.st_mode) and st.st_uid == 0
    # Written under the daemon's umask 027.
    assert oct(stat.S_IMODE(st.st_mode)) == oct(0o640)


def _trigger(service, how):
    if how == "busServiceShutdown":
        reply = service.client.call("busServiceShutdown")
        assert reply.get_signature() == "" and reply.get_args_list() == []
    elif how == "systemctl stop":
        run(["systemctl", "--no-block", "stop", UNIT])
    else:
        os.kill(service.pid, getattr(signal, how))


@pytest.mark.parametrize("how", ["busServiceShutdown", "SIGTERM", "SIGINT", "systemctl stop"])
def test_orderly_shutdown(running, journal, unit_states, signals, how):
    service = running
    stopped = signals("signalVexaStopped")
    cursor = journal.cursor()

    _trigger(service, how)
    service.wait_inactive()
    inactive_at = time.monotonic()

    states = unit_states.states()
    assert "deactivating" in states, states
    assert states[-1] == "inactive", states
    assert "failed" not in states and "activating" not in states, states

    wait_for(lambda: stopped.seen, what="signalVexaStopped")
    assert len(stopped.seen) == 1
    assert stopped.seen[0][1] == ()
    # The daemon gives the signal 250 ms to leave before it tears down.
    assert inactive_at - stopped.seen[0][0] >= 0.2

    messages = journal.messages(cursor, service.pid)
    if how == "busServiceShutdown":
        initiated = [e for e in journal.entries(cursor, service.pid)
                     if e["MESSAGE"] == "busServiceShutdown: process is initiated"]
        assert len(initiated) == 1
        assert_level_fields(initiated[0], "notice")
        assert messages.index("busServiceShutdown: process is initiated") < \
            messages.index("start: shutdown complete")
    else:
        assert "busServiceShutdown: process is initiated" not in messages
    complete = [e for e in journal.entries(cursor, service.pid)
                if e["MESSAGE"] == "start: shutdown complete"]
    assert len(complete) == 1
    assert_level_fields(complete[0], "notice")

    assert not os.path.exists(PID_FILE)
    assert str(service.prop("Result")) == "success"
    assert int(service.prop("ExecMainStatus")) == 0
    assert int(service.prop("ExecMainCode")) == 1  # CLD_EXITED
    time.sleep(0.3)
    assert service.state() == "inactive"
    assert int(service.prop("NRestarts")) == 0


def test_stop_signal_reaches_members_but_not_strangers(running, users):
    with subscribers_as(users) as procs:
        running.client.call("busServiceShutdown")
        running.wait_inactive()
        for name in ("e2e-member", "e2e-admin"):
            line = procs[name].stdout.readline().strip()
            assert line == "signal signalVexaStopped", f"{name}: {line!r}"
        out, _ = end_listener(procs["e2e-plain"])
        assert "signal" not in out
