"""Display geometry: a session's screen takes the client's size when it starts, when it is handed out again and
when the client resizes, and the client's monitors become RandR monitors, as the X server's own clients (xrandr
with the session's authority file) see them. Xorg with the dummy driver can grow to 8192x4096 and has 16 outputs;
Xvfb cannot grow beyond the size it started with."""

import itertools
import os
import re

import dbus
import pytest

from conftest import PASSWORD, PROGRAM, XVFB, as_user, run, wait_line

XORG = {"xvfb:path": "/usr/bin/Xorg", "xvfb:args": []}
MONITORS = "ua(uiiuuuuuuu)"
NUMBERS = itertools.count()  # accounts outlive a test: each test has users of its own


def xrandr(info, *args):
    return run(["xrandr", "-display", f":{info['display']}", *args],
               env={**os.environ, "XAUTHORITY": info["xauthfile"]}).stdout


def screen(info):
    return tuple(map(int, re.search(r"current (\d+) x (\d+)", xrandr(info)).groups()))


def monitors(info):
    """(x, y, width, height, primary) of each RandR monitor."""
    return sorted((int(x), int(y), int(w), int(h), star == "*") for star, w, h, x, y in re.findall(
        r"^\s*\d+: [+]?(\*?)\S+ (\d+)/\d+x(\d+)/\d+\+(\d+)\+(\d+)", xrandr(info, "--listmonitors"), re.M))


def monitor(left, top, width, height, primary=False):
    return (dbus.UInt32(int(primary)), dbus.Int32(left), dbus.Int32(top), dbus.UInt32(width), dbus.UInt32(height),
            dbus.UInt32(0), dbus.UInt32(0), dbus.UInt32(0), dbus.UInt32(100), dbus.UInt32(100))


@pytest.fixture
def xorg_session(daemon, new_user):
    sessions = daemon(**XORG)
    user, _ = new_user(f"e2e-geom{next(NUMBERS)}")

    def request(width, height):
        return sessions.request(username=user, password=PASSWORD, width=width, height=height, **PROGRAM)

    sid = request(1600, 900)
    assert sid > 0
    return sessions, sid, sessions.info(sid), request


def test_the_screen_follows_the_clients_size_from_start_to_reuse(xorg_session):
    sessions, sid, info, request = xorg_session
    # Xorg's dummy screen starts at 1024x768; the session's programs start at the client's size
    assert screen(info) == (1600, 900)
    # and only a client with the cookie of the session's authority file gets in, not even one of the user
    (user, _), = sessions.listed()
    bare = run(as_user(user, "xdpyinfo", "-display", f":{info['display']}"), check=False,
               env={**os.environ, "XAUTHORITY": "/dev/null"})
    assert bare.returncode != 0 and "unable to open display" in bare.stderr, bare.stderr
    assert request(1366, 768) == sid  # handed out again, at the new size (a width cvt would round to 1368)
    assert screen(info) == (1366, 768)
    assert monitors(info) == [(0, 0, 1366, 768, True)]


def test_resize_requests_are_answered_once_the_server_has_the_size(xorg_session):
    sessions, sid, info, _ = xorg_session
    svc, display = sessions.svc, info["display"]
    svc.call("vexaSessionGeometry", "uqq", sid, 1920, 1080)
    assert screen(info) == (1920, 1080)
    for width, height in ((8192, 4096), (800, 600)):
        assert svc.value("vexaDisplayResize", "uqq", display, width, height)
        assert screen(info) == (width, height)
    # a refused size (the refusals themselves are the layout's unit tests) leaves the screen as it is
    assert not svc.value("vexaDisplayResize", "uqq", display, 9000, 600)
    wait_line(svc.cursor, "vexaDisplayResize: geometry refused, monitor 0: size 9000x600")
    assert screen(info) == (800, 600)


LAYOUTS = [  # (the client's monitors, the screen, the RandR monitors)
    # two side by side, the second to the left of the primary
    ([monitor(0, 0, 1920, 1080, True), monitor(-1280, 0, 1280, 1024)], (3200, 1080),
     [(0, 0, 1280, 1024, False), (1280, 0, 1920, 1080, True)]),
    # three in a row and one below
    ([monitor(0, 0, 1024, 768, True), monitor(1024, 0, 1024, 768), monitor(2048, 0, 1024, 768),
      monitor(0, 768, 1280, 1024)], (3072, 1792),
     [(0, 0, 1024, 768, True), (0, 768, 1280, 1024, False), (1024, 0, 1024, 768, False),
      (2048, 0, 1024, 768, False)]),
]


def test_the_clients_monitors_become_randr_monitors_on_one_screen(xorg_session):
    sessions, _, info, _ = xorg_session
    svc, display = sessions.svc, info["display"]
    for layout, size, shown in LAYOUTS:
        assert svc.value("vexaTransportDisplayMonitorsChanged", MONITORS, display, layout)
        assert (screen(info), monitors(info)) == (size, shown)
    # back to one; a refused layout (two primaries) leaves it
    assert svc.value("vexaTransportDisplayMonitorsChanged", MONITORS, display, [monitor(0, 0, 1280, 720)])
    assert not svc.value("vexaTransportDisplayMonitorsChanged", MONITORS, display,
                         [monitor(0, 0, 800, 600, True), monitor(800, 0, 800, 600, True)])
    assert (screen(info), monitors(info)) == ((1280, 720), [(0, 0, 1280, 720, True)])


def test_xvfb_shrinks_and_splits_but_cannot_grow(daemon, new_user):
    sessions = daemon(**XVFB)
    user, _ = new_user("e2e-geom-xvfb")
    sid = sessions.request(username=user, password=PASSWORD, width=1920, height=1080, **PROGRAM)
    info = sessions.info(sid)
    svc, display = sessions.svc, info["display"]
    assert svc.value("vexaDisplayResize", "uqq", display, 1280, 720)
    assert screen(info) == (1280, 720)
    # one output only: the monitors are RandR monitors over it
    assert svc.value("vexaTransportDisplayMonitorsChanged", MONITORS, display,
                     [monitor(0, 0, 960, 1080, True), monitor(960, 0, 960, 1080)])
    assert monitors(info) == [(0, 0, 960, 1080, True), (960, 0, 960, 1080, False)]
    assert not svc.value("vexaDisplayResize", "uqq", display, 2560, 1440)
    wait_line(svc.cursor, "applyLayout: screen size out of range, size: 2560x1440, max: 1920x1080")
    assert screen(info) == (1920, 1080)
