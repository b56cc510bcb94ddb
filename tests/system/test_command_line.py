"""The daemon's command line, run directly (not through the unit)."""

import os
import signal
import subprocess
import tempfile
import time

import pytest

from conftest import API_VERSION, CONFIG, DAEMON, PID_FILE, VERSION, run, wait_for

USAGE_TAIL = "--config <path> [--background]"


@pytest.mark.parametrize("argv0,args", [
    (DAEMON, ["--bogus"]),
    ("vexa", ["--help"]),
    (DAEMON, ["--config"]),
    (DAEMON, ["--background", "--config"]),
    (DAEMON, ["--config", CONFIG, "--bogus"]),
    (DAEMON, ["--config", CONFIG, "extra"]),
], ids=["unknown", "argv0-as-given", "config-last", "background-config-last",
        "unknown-after-config", "stray-word"])
def test_usage(service, argv0, args):
    proc = subprocess.run([argv0, *args], executable=DAEMON, capture_output=True, text=True,
                          timeout=10)
    assert proc.returncode == 0
    lines = proc.stdout.splitlines()
    assert lines[0] == f"usage: {argv0}{USAGE_TAIL}"
    assert len(lines) == 2 and lines[1].strip()
    assert not os.path.exists(PID_FILE)


MISSING = "/nonexistent/vexa_service.json"


@pytest.fixture
def workdir():
    """A working directory every test user can enter."""
    path = tempfile.mkdtemp(prefix="vexa-cli-")
    os.chmod(path, 0o755)
    yield path
    run(["rm", "-rf", path])


@pytest.mark.parametrize("user,args,cwd_config,message", [
    ("root", ["--config", MISSING], False, "config not found"),
    ("root", ["--config", CONFIG, "--config", MISSING], False, "config not found"),
    ("e2e-plain", ["--config", MISSING, "--config", CONFIG], False,
     "root privileges required to run"),
    ("e2e-plain", ["--config", CONFIG], False, "root privileges required to run"),
    ("e2e-admin", ["--background", "--config", CONFIG], False, "root privileges required to run"),
    ("root", [], False, "config not found"),
    ("e2e-plain", [], True, "root privileges required to run"),
], ids=["missing", "later-missing-wins", "later-present-wins", "not-root",
        "not-root-background", "default-path-missing", "default-path-present"])
def test_refusals(service, users, workdir, user, args, cwd_config, message):
    if cwd_config:
        with open(os.path.join(workdir, "vexa_service.json"), "w") as f:
            f.write("{}")
    argv = [DAEMON, *args]
    if user != "root":
        argv = ["runuser", "-u", user, "--", *argv]
    proc = subprocess.run(argv, cwd=workdir, capture_output=True, text=True, timeout=10)
    assert proc.returncode == 1
    assert proc.stdout == ""
    assert proc.stderr.splitlines()[0] == message
    assert not os.path.exists(PID_FILE)


def _alive(pid):
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except FileNotFoundError:
        return False


def test_background_mode_ignores_sigint_and_stops_on_sigterm(service, journal):
    cursor = journal.cursor()
    proc = subprocess.run([DAEMON, "--config", CONFIG, "--background"], stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=10)
    assert proc.returncode == 0

    pid = None
    try:
        pid = wait_for(lambda: os.path.exists(PID_FILE) and open(PID_FILE).read(),
                       what="pid file of the background daemon")
        pid = int(pid)
        journal.wait(cursor, f"start: started, version {VERSION}, pid: {pid}, config: `{CONFIG}'"
                     ", dbus timeout: 25000000", pid=pid)
        assert service.client.value("vexaApiVersion") == API_VERSION

        os.kill(pid, signal.SIGINT)
        time.sleep(0.5)
        assert _alive(pid)
        assert service.client.value("vexaApiVersion") == API_VERSION

        os.kill(pid, signal.SIGTERM)
        wait_for(lambda: not _alive(pid), what="background daemon to exit")
        journal.wait(cursor, "start: shutdown complete", pid=pid)
        assert not os.path.exists(PID_FILE)
    finally:
        if pid and _alive(pid):
            os.kill(pid, signal.SIGKILL)


def test_second_instance_leaves_the_running_one_alone(running, journal):
    with open(PID_FILE, "rb") as f:
        pid_file = f.read()
    cursor = journal.cursor()

    proc = subprocess.Popen([DAEMON, "--config", CONFIG], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        proc.communicate(timeout=15)
    finally:
        if proc.poll() is None:
            proc.kill()
    # The name is taken: the newcomer reports the bus error and gives up (a failed start is
    # reported through the journal only).
    assert proc.returncode == 0
    messages = [e["MESSAGE"] for e in journal.entries(cursor, proc.pid)]
    assert [m for m in messages if m.startswith("dbus error: ")], messages
    assert not [m for m in messages if m.startswith("start: started")]

    with open(PID_FILE, "rb") as f:
        assert f.read() == pid_file
    assert running.client.value("vexaApiVersion") == API_VERSION
    assert running.state() == "active"
