"""X servers and their X authority files as the session manager makes and starts them (through vexa_probe),
checked with the X clients of the distribution: xauth reads the file, xdpyinfo connects with and without it."""

import grp
import os
import pathlib
import pwd
import re
import shutil
import signal
import socket
import stat
import tempfile

import pytest

from conftest import PROBE, as_user, cursor, run, wait_for

XVFB_ARGS = [":%{display}", "-nolisten", "tcp", "-auth", "%{authfile}",
             "-screen", "0", "%{width}x%{height}x%{depth}", "-I"]


@pytest.fixture
def xauth_dir():
    """A run-time directory like /run/vexa: root's, searchable by everybody."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="vexa-e2e-", dir="/run"))
    path.chmod(0o755)
    yield path
    shutil.rmtree(path)


@pytest.fixture
def consoles():
    """The virtual-console nodes a real machine has. The container has tty0 and tty1 only, and an
    Xorg started without -sharevts takes the first free console."""
    if not pathlib.Path("/dev/tty0").exists():
        pytest.skip("no /dev/tty0 in this container")
    made = [pathlib.Path(f"/dev/tty{n}") for n in range(2, 16) if not pathlib.Path(f"/dev/tty{n}").exists()]
    for node in made:
        os.mknod(node, stat.S_IFCHR | 0o620, os.makedev(4, int(node.name[3:])))
    yield
    for node in made:
        node.unlink()


def gone_or_zombie(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().split(") ")[1][0] == "Z"
    except FileNotFoundError:
        return True


def xdpyinfo(user, display, authority):
    return run(as_user(user, "xdpyinfo", "-display", f":{display}"), check=False,
               env={**os.environ, "XAUTHORITY": authority})


@pytest.mark.parametrize("display, depth, xpath, args, dimensions", [
    (110, 24, "/usr/bin/Xorg", [], "1024x768"),  # the built-in template: the dummy screen of /etc/X11/vexa.conf
    (111, 32, "/usr/bin/Xvfb", XVFB_ARGS, "1280x800"),  # an unknown depth runs at 24
])
def test_server_admits_only_clients_with_the_cookie_of_its_xauth_file(make_user, xauth_dir, request, display, depth,
                                                                      xpath, args, dimensions):
    if xpath == "/usr/bin/Xorg":
        request.getfixturevalue("consoles")
    user = make_user("e2e-xserver")
    pid, path = run([PROBE, "xserver", "start", xauth_dir, user, str(display), str(depth), xpath, *args]).stdout.split()
    try:
        assert path == str(xauth_dir / f"xauth_{display}")
        host, kind, cookie = run(["xauth", "-f", path, "list"]).stdout.split()
        assert (host, kind) == (f"{socket.gethostname()}/unix:{display}", "MIT-MAGIC-COOKIE-1")
        assert len(set(bytes.fromhex(cookie))) == 32
        info = os.stat(path)
        assert stat.S_IMODE(info.st_mode) == 0o440
        assert (pwd.getpwuid(info.st_uid).pw_name, grp.getgrgid(info.st_gid).gr_name) == (user, "vexa-xauth")

        with_cookie = xdpyinfo(user, display, path)
        assert with_cookie.returncode == 0, with_cookie.stderr
        assert f"dimensions:    {dimensions} pixels" in with_cookie.stdout
        assert "depth of root window:    24 planes" in with_cookie.stdout
        without = xdpyinfo(user, display, "/dev/null")
        assert without.returncode != 0 and "unable to open display" in without.stderr, without.stderr
    finally:
        os.kill(int(pid), signal.SIGTERM)
        wait_for(lambda: gone_or_zombie(pid), what=f"X server {pid} to end")


def test_server_that_never_opens_its_socket_fails_the_start_and_is_ended(make_user, xauth_dir):
    # Without "-I" Xvfb refuses the "-logfile" that is always added, and exits; the wait gives up after 5 s.
    after = cursor()
    proc = run([PROBE, "xserver", "start", xauth_dir, make_user("e2e-xfail"), "112", "24", "/usr/bin/Xvfb",
                *XVFB_ARGS[:-1]], check=False)
    assert (proc.returncode, proc.stderr) == (1, "vexa_probe: runXorgDisplay failed\n")
    run(["journalctl", "--sync"])
    out = run(["journalctl", "-q", "-o", "cat", f"--after-cursor={after}"]).stdout
    failed = re.findall(r"^runSessionManager: xorg not started, pid: (\d+), socket: /tmp/\.X11-unix/X112$", out, re.M)
    assert len(failed) == 1 and gone_or_zombie(failed[0]), out
