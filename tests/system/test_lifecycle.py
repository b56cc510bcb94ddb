"""Start-up and readiness, the files of the running service, stopping, the command line."""

import os
import pathlib
import signal
import stat
import subprocess

import pytest

from conftest import (API_VERSION, CONFIG, DAEMON, INTERFACE, PID_FILE, UNIT, VERSION, as_user, assert_level, cursor,
                      journal, run, wait_for, wait_line)


@pytest.mark.parametrize("how", ["busServiceShutdown", "SIGTERM"])
def test_unit_is_active_after_ready_and_stops_in_order(service, bus, unit_states, how):
    service.start()
    # systemctl start returns once READY=1 came: by then the daemon answers, and has said so before
    assert service.value("vexaApiVersion") == API_VERSION
    notice = wait_line(service.cursor, f"start: started, version {VERSION}, pid: {service.pid}, config: `{CONFIG}', "
                       "dbus timeout: 25000000", service.pid)[0]
    assert_level(notice, "notice")
    assert int(notice["_SOURCE_REALTIME_TIMESTAMP"]) < service.prop("ActiveEnterTimestamp")
    assert pathlib.Path(PID_FILE).read_text() == str(service.pid)
    assert stat.S_IMODE(os.stat("/run/vexa").st_mode) == 0o755
    assert stat.S_IMODE(os.stat("/var/lib/vexa/sessions").st_mode) == 0o750
    stopped = []
    match = bus.add_signal_receiver(lambda: stopped.append(how), "signalVexaStopped", INTERFACE)
    after = cursor()

    os.kill(service.pid, signal.SIGTERM) if how == "SIGTERM" else service.call(how)
    wait_for(lambda: unit_states[-1:] == ["inactive"], what="inactive")
    match.remove()
    assert unit_states[-4:] == ["activating", "active", "deactivating", "inactive"], unit_states
    assert stopped == [how]
    assert_level(wait_line(after, "start: shutdown complete", service.pid)[0], "notice")
    assert not os.path.exists(PID_FILE)


def test_configuration_that_is_no_object_fails_the_start(service, files):
    files.write(CONFIG, '["not", "an", "object"]')
    after = cursor()
    assert run(["systemctl", "start", UNIT], check=False).returncode != 0
    messages = [e["MESSAGE"] for e in journal(after)]
    assert f"DBusService: json not object, file: {CONFIG}" in messages
    assert not [m for m in messages if m.startswith("start: started")]


@pytest.mark.parametrize("user, args, code, out, err", [
    ("root", ["--bogus"], 0, f"usage: {DAEMON}--config <path> [--background]", ""),
    ("root", ["--config"], 0, f"usage: {DAEMON}--config <path> [--background]", ""),
    ("root", ["--config", "/nonexistent.json"], 1, "", "config not found\n"),
    ("e2e-plain", ["--config", CONFIG], 1, "", "root privileges required to run\n"),
])
def test_command_line(make_user, user, args, code, out, err):
    proc = run(as_user(make_user(user) if user != "root" else user, DAEMON, *args), check=False)
    assert (proc.returncode, proc.stdout.partition("\n")[0], proc.stderr) == (code, out, err)


def test_second_instance_leaves_the_running_one_alone(running):
    after = cursor()
    proc = subprocess.Popen([DAEMON, "--config", CONFIG], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
    assert proc.wait(timeout=15) == 0
    # the name is taken: the newcomer reports it through the journal only
    assert [e for e in journal(after, proc.pid) if e["MESSAGE"].startswith("dbus error: ")]
    assert pathlib.Path(PID_FILE).read_text() == str(running.pid)
    assert running.value("vexaApiVersion") == API_VERSION and running.prop("ActiveState") == "active"
