"""Stands in for vexa_rdp_transport inside vexa-rdp@.service (test_rdp.py puts it there with a drop-in): reads a
session id from the accepted connection (descriptor 3), tries what a transport must be able to do and what it
must not, and answers with one JSON line on the same connection."""

import grp
import json
import os
import pathlib
import pwd
import socket
import subprocess

import dbus


def attempt(action):
    try:
        action()
        return True
    except OSError:
        return False


def status_field(name):
    for line in pathlib.Path("/proc/self/status").read_text().splitlines():
        if line.startswith(name + ":"):
            return line.split(":", 1)[1].strip()
    return None


def main():
    conn = socket.socket(fileno=3)
    sid = int(conn.makefile("r").readline())
    report = {
        "pid": os.getpid(),
        "listen_fds": os.environ.get("LISTEN_FDS"),
        "peer": conn.getpeername()[0],
        "user": pwd.getpwuid(os.getuid()).pw_name,
        "groups": sorted(grp.getgrgid(g).gr_name for g in os.getgroups()),
        "no_new_privs": status_field("NoNewPrivs"),
        "cap_eff": status_field("CapEff"),
        "certificate": attempt(lambda: pathlib.Path("/etc/vexa/rdp/tls.crt").read_bytes()),
        "key": attempt(lambda: pathlib.Path("/etc/vexa/rdp/tls.key").read_bytes()),
        "config": attempt(lambda: pathlib.Path("/etc/vexa/rdp.json").read_bytes()),
        "etc_writable": attempt(lambda: pathlib.Path("/etc/vexa/rdp/probe").write_text("x")),
        "tmp_shared": os.path.exists("/tmp/vexa-rdp-probe-marker"),
        "home_visible": attempt(lambda: os.listdir("/home")) and bool(os.listdir("/home")),
    }
    try:
        bus = dbus.SystemBus()
        info = json.loads(str(bus.call_blocking("ru.kelvo.vexa", "/ru/kelvo/vexa", "ru.kelvo.vexa",
                                                "vexaSessionInfoJson", "u", (sid,))))
        report["display"] = info.get("display")
        report["xauthfile"] = info.get("xauthfile")
        env = {"PATH": "/usr/bin:/bin", "DISPLAY": f":{info['display']}", "XAUTHORITY": info["xauthfile"]}
        report["x_status"] = subprocess.run(["xdpyinfo"], env=env, capture_output=True, timeout=20,
                                            check=False).returncode
    except dbus.exceptions.DBusException as error:
        report["bus_error"] = error.get_dbus_name()
    conn.sendall(json.dumps(report).encode() + b"\n")
    conn.close()


if __name__ == "__main__":
    main()
