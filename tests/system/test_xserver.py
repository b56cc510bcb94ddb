"""X authority files and X servers as the session manager makes and starts them (through vexa_probe),
checked with the X clients of the distribution: xauth reads the file, xdpyinfo connects with and
without the cookie."""

import grp
import json
import os
import pathlib
import pwd
import shutil
import signal
import socket
import stat
import tempfile

import pytest

from conftest import PROBE, as_user, cursor, run, wait_for

XAUTH_GROUP = "vexa-xauth"
XVFB_ARGS = [":%{display}", "-nolisten", "tcp", "-auth", "%{authfile}",
             "-screen", "0", "%{width}x%{height}x%{depth}", "-I"]
BUILTIN = ["-nolisten", "tcp", "-auth", None, "-config", "vexa.conf", "-depth", "24",
           "+extension", "DAMAGE", "+extension", "MIT-SHM", "+extension", "RANDR",
           "+extension", "XFIXES", "+extension", "XTEST", "-logfile", "/dev/null"]


@pytest.fixture
def xauth_dir():
    """A run-time directory like /run/vexa: root's, searchable by everybody."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="vexa-e2e-", dir="/run"))
    path.chmod(0o755)
    yield path
    shutil.rmtree(path)


@pytest.fixture
def servers():
    """Pids of the X servers a test started; ended (and gone) afterwards."""
    pids = []
    yield pids
    for pid in pids:
        try:
            os.kill(pid, signal.SIGTERM)
        except ProcessLookupError:
            continue
        wait_for(lambda: gone_or_zombie(pid), what=f"X server {pid} to end")


@pytest.fixture
def consoles():
    """The virtual-console nodes a real machine has. The container has tty0 and tty1 only, and an
    Xorg started without -sharevts takes the first free console."""
    if not pathlib.Path("/dev/tty0").exists():
        pytest.skip("no /dev/tty0 in this container")
    made = []
    for n in range(2, 16):
        node = pathlib.Path(f"/dev/tty{n}")
        if not node.exists():
            os.mknod(node, stat.S_IFCHR | 0o620, os.makedev(4, n))
            made.append(node)
    yield
    for node in made:
        node.unlink()


def gone_or_zombie(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().split(") ")[1][0] == "Z"
    except FileNotFoundError:
        return True


def cmdline(pid):
    return [a.decode() for a in pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")[:-1]]


def probe_log(after):
    """MESSAGE of every journal entry vexa_probe wrote after the cursor."""
    run(["journalctl", "--sync"])
    out = run(["journalctl", "-q", "-o", "json", f"--after-cursor={after}",
               "SYSLOG_IDENTIFIER=vexa_probe"]).stdout
    return [json.loads(line)["MESSAGE"] for line in out.splitlines()]


def start_server(servers, directory, user, display, depth, width, height, xpath, *args):
    out = run([PROBE, "xserver", "start", directory, user, str(display), str(depth), str(width),
               str(height), xpath, *args]).stdout.split()
    pid, path = int(out[0]), out[1]
    servers.append(pid)
    assert path == str(directory / f"xauth_{display}")
    return pid, path


def xdpyinfo(user, display, authority):
    return run(as_user(user, "xdpyinfo", "-display", f":{display}"), check=False,
               env={**os.environ, "XAUTHORITY": authority})


def assert_only_the_cookie_connects(user, display, path):
    with_cookie = xdpyinfo(user, display, path)
    assert with_cookie.returncode == 0, with_cookie.stderr
    without = xdpyinfo(user, display, "/dev/null")
    assert without.returncode != 0 and "unable to open display" in without.stderr, without.stderr
    return with_cookie.stdout


def readable_by(user, path):
    return run(as_user(user, "dd", f"if={path}", "of=/dev/null", "status=none"), check=False).returncode == 0


def test_xauth_file_holds_one_local_entry_for_the_owner_and_the_xauth_group(make_user, xauth_dir):
    assert run(["getent", "group", XAUTH_GROUP]).stdout.startswith(f"{XAUTH_GROUP}:")
    owner = make_user("e2e-xa-owner")
    member = make_user("e2e-xa-member", groups=[XAUTH_GROUP])
    stranger = make_user("e2e-xa-other")
    path = xauth_dir / "xauth_105"

    cookies = []
    for _ in range(2):  # the second creation replaces the first file
        out = run([PROBE, "xserver", "xauth", xauth_dir, "105", owner, XAUTH_GROUP]).stdout.split()
        assert out[0] == str(path)
        cookie = out[1]
        assert len(cookie) == 64 and len(set(bytes.fromhex(cookie))) == 32
        listed = run(["xauth", "-f", path, "list"]).stdout.splitlines()
        assert listed == [f"{socket.gethostname()}/unix:105  MIT-MAGIC-COOKIE-1  {cookie}"]
        info = path.stat()
        assert stat.S_IMODE(info.st_mode) == 0o440
        assert pwd.getpwuid(info.st_uid).pw_name == owner
        assert grp.getgrgid(info.st_gid).gr_name == XAUTH_GROUP
        assert sorted(xauth_dir.iterdir()) == [path]
        cookies.append(cookie)
    assert cookies[0] != cookies[1]

    assert [readable_by(u, path) for u in (owner, member, stranger)] == [True, True, False]


def test_xorg_with_the_builtin_template_admits_only_clients_with_the_cookie(
        make_user, xauth_dir, servers, consoles):
    user = make_user("e2e-xorg")
    log = pathlib.Path("/var/log/Xorg.110.log")
    log.unlink(missing_ok=True)

    pid, path = start_server(servers, xauth_dir, user, 110, 24, 1280, 800, "/usr/bin/Xorg")

    expected = BUILTIN.copy()
    expected[expected.index(None)] = path
    assert cmdline(pid) == ["/usr/lib/xorg/Xorg", ":110", *expected]
    info = assert_only_the_cookie_connects(user, 110, path)
    # The screen of /etc/X11/vexa.conf: the dummy driver's first mode.
    assert "dimensions:    1024x768 pixels" in info
    assert "depth of root window:    24 planes" in info
    assert not log.exists(), "the server wrote its own log file"


def test_xvfb_configuration_runs_at_depth_24_with_warnings_for_depth_and_home(
        make_user, xauth_dir, servers):
    user = make_user("e2e-xvfb", home=False)
    after = cursor()

    pid, path = start_server(servers, xauth_dir, user, 111, 32, 1280, 800, "/usr/bin/Xvfb", *XVFB_ARGS)

    assert cmdline(pid)[1:] == [":111", "-nolisten", "tcp", "-auth", path, "-screen", "0",
                                "1280x800x24", "-I", "-logfile", "/dev/null"]
    info = assert_only_the_cookie_connects(user, 111, path)
    assert "dimensions:    1280x800 pixels" in info
    assert "depth of root window:    24 planes" in info
    lines = probe_log(after)
    for line in (f"runXorgDisplay: display: 111, depth: 32, width: 1280, height: 800, xauthfile: {path}",
                 f"runXorgDisplay: user home not found: `/nonexistent/{user}'",
                 "runXorgDisplay: unknown depth: 32"):
        assert line in lines, lines


def test_server_that_never_opens_its_socket_fails_the_start_and_is_ended(make_user, xauth_dir):
    # Without "-I" Xvfb refuses the "-logfile" that is always added, and exits.
    user = make_user("e2e-xfail")
    after = cursor()
    proc = run([PROBE, "xserver", "start", xauth_dir, user, "112", "24", "1024", "768",
                "/usr/bin/Xvfb", *XVFB_ARGS[:-1]], check=False)
    assert proc.returncode == 1
    assert "runXorgDisplay failed" in proc.stderr
    lines = probe_log(after)
    failed = [m for m in lines if m.startswith("runSessionManager: xorg not started, pid: ")]
    assert len(failed) == 1 and failed[0].endswith(", socket: /tmp/.X11-unix/X112"), lines
    pid = int(failed[0].split("pid: ")[1].split(",")[0])
    assert gone_or_zombie(pid)
