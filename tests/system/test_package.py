"""The Debian package on a system that has never seen the build (run-container --packages): installed with apt,
a session of a user logged in as the demo does it, an upgrade to a higher version with the session alive, removal
and purge. Skipped in the ordinary suite, which installs the build instead."""

import functools
import glob
import json
import os
import pathlib
import subprocess

import pytest

from conftest import BUS_NAME, PASSWORD, PROGRAM, XVFB, cursor, journal, run, wait_for

PACKAGES = pathlib.Path("/e2e/packages")
pytestmark = pytest.mark.skipif(not PACKAGES.is_dir(), reason="no packages to install (run-container --packages)")
APT = ["apt-get", "-y", "-q", "--no-install-recommends", "-o", "Dpkg::Options::=--force-confdef",
       "-o", "Dpkg::Options::=--force-confold"]
ENV = {**os.environ, "DEBIAN_FRONTEND": "noninteractive"}
UNITS = ["vexa.service", "vexa-rdp.socket", "vexa-metrics.socket"]
STATE = ["/etc/vexa", "/var/lib/vexa", "/run/vexa"]


def apt(*args):
    proc = subprocess.run([*APT, *args], capture_output=True, text=True, env=ENV, timeout=300)
    assert proc.returncode == 0, proc.stdout + proc.stderr
    return proc.stdout


def debs():
    """The packages, oldest version first (dpkg's own order)."""
    found = glob.glob(str(PACKAGES / "vexa_*.deb"))
    version = lambda deb: run(["dpkg-deb", "-f", deb, "Version"]).stdout.strip()  # noqa: E731
    older = lambda a, b: -1 if subprocess.run(  # noqa: E731
        ["dpkg", "--compare-versions", version(a), "lt", version(b)]).returncode == 0 else 1
    assert len(found) == 2, found
    return sorted(found, key=functools.cmp_to_key(older))


def active(unit):
    return subprocess.run(["systemctl", "is-active", unit], capture_output=True, text=True).stdout.strip()


def call(bus, method, signature="", *args):
    return bus.call_blocking(BUS_NAME, "/ru/kelvo/vexa", BUS_NAME, method, signature, args)


def test_install_upgrade_with_a_live_session_remove_and_purge(bus, make_user):
    old, new = debs()
    assert not pathlib.Path("/usr/sbin/vexa_service").exists()
    # This machine is a container image whose policy-rc.d forbids maintainer scripts to start services; a server
    # has none, and the container's root is a throwaway overlay.
    pathlib.Path("/usr/sbin/policy-rc.d").unlink(missing_ok=True)
    apt("install", old)
    assert [active(unit) for unit in UNITS] == ["active"] * 3
    for group in ("vexa", "vexa-admin", "vexa-monitor", "vexa-xauth"):
        run(["getent", "group", group])
    wait_for(lambda: pathlib.Path("/etc/vexa/rdp/tls.key").exists(), what="the RDP certificate")
    assert json.loads(run(["vexactl", "status", "--json"]).stdout)["alive"]
    run(["man", "-w", "vexactl", "vexa_service", "vexa_service.json"])
    assert pathlib.Path("/usr/share/bash-completion/completions/vexactl").is_file()

    # A session as the demo asks for one (Xvfb: no console in the container).
    config = pathlib.Path("/etc/vexa/vexa_service.json")
    config.write_text(json.dumps({**json.loads(config.read_text()), **XVFB}))
    run(["systemctl", "restart", "vexa.service"])
    user = make_user("e2e-pkg", PASSWORD)
    sid = int(call(bus, "vexaSessionRequest", "s", json.dumps({"username": user, "password": PASSWORD, **PROGRAM})))
    assert sid > 0
    before = json.loads(str(call(bus, "vexaSessionInfoJson", "u", sid)))
    daemon = run(["systemctl", "show", "-p", "MainPID", "--value", "vexa.service"]).stdout.strip()

    mark = cursor()
    apt("install", new)
    assert run(["dpkg-query", "-W", "-f", "${Version}", "vexa"]).stdout == run(
        ["dpkg-deb", "-f", new, "Version"]).stdout.strip()
    assert run(["systemctl", "show", "-p", "MainPID", "--value", "vexa.service"]).stdout.strip() != daemon
    wait_for(lambda: active("vexa.service") == "active", what="the new daemon")
    after = json.loads(str(call(bus, "vexaSessionInfoJson", "u", sid)))
    assert (after["pid2"], after["display"], after["username"]) == (before["pid2"], before["display"], user)
    assert [e for e in journal(mark) if e["MESSAGE"].startswith("sessionsKeep: sessions kept")]
    assert json.loads(run(["vexactl", "sessions", "--json"]).stdout)[0]["id"] == sid

    apt("remove", "vexa")
    assert not pathlib.Path("/usr/sbin/vexa_service").exists()
    wait_for(lambda: not os.path.exists(f"/proc/{before['pid2']}"), what="the session to end with the daemon")
    assert config.exists() and pathlib.Path("/etc/vexa/rdp/tls.key").exists()  # kept until purge

    apt("purge", "vexa")
    assert [path for path in STATE if os.path.exists(path)] == []
    assert run(["dpkg-query", "-W", "-f", "${db:Status-Status}", "vexa"], check=False).stdout in ("", "not-installed")
    # What Debian keeps: the system accounts and groups.
    run(["getent", "group", "vexa-admin"])
