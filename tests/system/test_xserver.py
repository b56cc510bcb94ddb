"""The X server of a session as the daemon starts it, checked with the distribution's X clients: only a client with
the cookie of the session's authority file gets in; a server that never opens its socket ends the session."""

import json
import os
import pathlib
import re

import pytest

from conftest import CONFIG, PASSWORD, XVFB, as_user, journal, run, wait_for


def start_session(service, files, user, xserver):
    files.write(CONFIG, {**json.loads(pathlib.Path(CONFIG).read_text()), **xserver})
    service.start()
    return int(service.value("vexaSessionRequest", "s", json.dumps({  # an unknown depth runs at 24
        "username": user, "password": PASSWORD, "width": 1280, "height": 800, "depth": 32,
        "session:path": "/usr/bin/sleep", "session:args": ["4242"]})))


# a user of its own per session: logind ends the user's manager only some seconds after the session
@pytest.mark.parametrize("user, xserver, dimensions", [
    ("e2e-xorg", {}, "1280x800"),  # the installed Xorg with the dummy screen of /etc/X11/vexa.conf, resized
    ("e2e-xvfb", XVFB, "1280x800"),
])
def test_server_admits_only_clients_with_the_cookie_of_the_session(service, files, make_user, user, xserver,
                                                                   dimensions):
    make_user(user, PASSWORD)
    sid = start_session(service, files, user, xserver)
    info = json.loads(str(service.value("vexaSessionInfoJson", "u", sid)))
    with_cookie, without = (run(as_user(user, "xdpyinfo", "-display", f":{info['display']}"), check=False,
                                env={**os.environ, "XAUTHORITY": authority})
                            for authority in (info["xauthfile"], "/dev/null"))
    assert with_cookie.returncode == 0, with_cookie.stderr
    assert f"dimensions:    {dimensions} pixels" in with_cookie.stdout
    assert "depth of root window:    24 planes" in with_cookie.stdout
    assert without.returncode != 0 and "unable to open display" in without.stderr, without.stderr
    assert service.value("vexaSessionShutdown", "u", sid)
    wait_for(lambda: not pathlib.Path(f"/tmp/.X11-unix/X{info['display']}").exists(), what="the X server to end")


def test_server_that_never_opens_its_socket_ends_the_session(service, files, make_user):
    # Without "-I" Xvfb refuses the "-logfile" that is always added, and exits; the wait gives up after 5 s.
    start_session(service, files, make_user("e2e-xfail", PASSWORD), {**XVFB, "xvfb:args": XVFB["xvfb:args"][:-1]})
    pattern = r"runSessionManager: xorg not started, pid: \d+, socket: /tmp/\.X11-unix/X101"
    assert [e for e in journal(service.cursor, idents=("vexa_session_manager",)) if re.fullmatch(pattern, e["MESSAGE"])]
    wait_for(lambda: not service.value("vexaSessions"), what="the session to go")
