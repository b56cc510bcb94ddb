"""Start-up and readiness, the files of the running service, stopping, the command line."""

import os
import signal
import stat
import subprocess

import pytest

from conftest import (API_VERSION, CONFIG, DAEMON, INTERFACE, PID_FILE, UNIT, VERSION, as_user,
                      assert_level, cursor, journal, run, wait_for, wait_line)

START_NOTICE = (f"start: started, version {VERSION}, pid: {{pid}}, config: `{CONFIG}', "
                "dbus timeout: 25000000")


def test_unit_is_active_only_after_ready(service, unit_states):
    assert service.prop("Type", "Service") == "notify"
    service.start()
    # systemctl start returns once READY=1 came: by then the daemon answers
    assert service.value("vexaApiVersion") == API_VERSION
    wait_for(lambda: unit_states[-2:] == ["activating", "active"], what="activating, active")
    notice = wait_line(service.cursor, START_NOTICE.format(pid=service.pid), service.pid)[0]
    assert_level(notice, "notice")
    sent = int(notice["_SOURCE_REALTIME_TIMESTAMP"])
    assert service.prop("ExecMainStartTimestamp", "Service") <= sent
    assert sent < service.prop("ActiveEnterTimestamp")


def test_configuration_that_is_no_object_fails_the_start(service, files):
    files.write(CONFIG, '["not", "an", "object"]')
    after = cursor()
    assert run(["systemctl", "start", UNIT], check=False).returncode != 0
    messages = [e["MESSAGE"] for e in journal(after)]
    assert f"DBusService: json not object, file: {CONFIG}" in messages
    assert not [m for m in messages if m.startswith("start: started")]


@pytest.mark.parametrize("how", ["busServiceShutdown", "SIGTERM"])
def test_orderly_shutdown(running, bus, unit_states, how):
    with open(PID_FILE) as f:
        assert f.read() == str(running.prop("MainPID", "Service"))
    assert stat.S_IMODE(os.stat("/run/vexa").st_mode) == 0o755
    assert stat.S_IMODE(os.stat("/var/lib/vexa/sessions").st_mode) == 0o750
    stopped = []
    match = bus.add_signal_receiver(lambda: stopped.append(how), "signalVexaStopped", INTERFACE)
    after = cursor()

    if how == "SIGTERM":
        os.kill(running.pid, signal.SIGTERM)
    else:
        running.call(how)
    wait_for(lambda: unit_states[-1:] == ["inactive"], what="inactive")
    match.remove()
    assert "deactivating" in unit_states and "failed" not in unit_states, unit_states
    assert stopped == [how]
    assert_level(wait_line(after, "start: shutdown complete", running.pid)[0], "notice")
    assert not os.path.exists(PID_FILE)


@pytest.mark.parametrize("user,args,code,out,err", [
    ("root", ["--bogus"], 0, f"usage: {DAEMON}--config <path> [--background]", ""),
    ("root", ["--config"], 0, f"usage: {DAEMON}--config <path> [--background]", ""),
    ("root", ["--config", "/nonexistent.json"], 1, "", "config not found\n"),
    ("e2e-plain", ["--config", CONFIG], 1, "", "root privileges required to run\n"),
])
def test_command_line(users, user, args, code, out, err):
    proc = run(as_user(user, DAEMON, *args), check=False)
    assert (proc.returncode, proc.stdout.partition("\n")[0], proc.stderr) == (code, out, err)


def test_second_instance_leaves_the_running_one_alone(running):
    after = cursor()
    proc = subprocess.Popen([DAEMON, "--config", CONFIG], stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    assert proc.wait(timeout=15) == 0
    # the name is taken: the newcomer reports it through the journal only
    assert [e for e in journal(after, proc.pid) if e["MESSAGE"].startswith("dbus error: ")]
    with open(PID_FILE) as f:
        assert f.read() == str(running.pid)
    assert running.value("vexaApiVersion") == API_VERSION
    assert running.prop("ActiveState") == "active"
