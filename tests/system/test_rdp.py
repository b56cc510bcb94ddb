"""The RDP front door with a real client: Debian's xfreerdp, in an Xvfb of its own, connects to vexa-rdp.socket
on port 3389 as a user with name and password; the socket starts vexa_rdp_transport for the connection as
vexa-rdp@.service. Compared: the client's screen with the session's own screen (xwd of both), the keys typed
into the client with what the session's program received, and the daemon's sessions and transports.

The units themselves (socket activation, the account, the certificate, the sandbox) are tried first with a
probe in the transport's place; the tests of the transport skip while it is not installed."""

import grp
import json
import os
import pathlib
import pwd
import socket
import stat
import subprocess
import time

import pytest

import rdp_client
from conftest import PASSWORD, WRONG, cursor, processes, run, wait_for, wait_line

TRANSPORT = pathlib.Path("/usr/libexec/vexa/vexa_rdp_transport")
needs_transport = pytest.mark.skipif(not TRANSPORT.exists(),
                                     reason=f"{TRANSPORT} is not installed: the build has no RDP transport yet")
SOCKET = "vexa-rdp.socket"
CERT_DIR = pathlib.Path("/etc/vexa/rdp")
PROBE_DROPIN = pathlib.Path("/run/systemd/system/vexa-rdp@.service.d/probe.conf")

# The transport asks for the default session program, a terminal running the user's shell; the user's own X
# resources (~/.Xdefaults, read by Xlib while the server has no resource database) give the terminal a colour
# of its own and make it fill the screen, so that a screen shows whose session it is.
XDEFAULTS = "XTerm*vt100.background: {colour}\nXTerm*vt100.foreground: #ffff00\nXTerm*vt100.geometry: 400x200+0+0\n"
COLOURS = ["#1f7a3a", "#7a1f5c", "#1f3f7a", "#7a6a1f"]


@pytest.fixture(scope="module")
def rdp_socket():
    """What the package's post-install step does: enable and start the socket and the certificate."""
    run(["systemctl", "enable", "--now", SOCKET, "vexa-rdp-certificate.service"])
    wait_for(lambda: listening(3389), what="port 3389 listening")
    yield SOCKET


@pytest.fixture
def clients(tmp_path):
    keeper = rdp_client.Clients(tmp_path)
    yield keeper
    keeper.stop()


def listening(port):
    """Whether something listens on the TCP port (asked of the kernel: a test connection would start a
    transport)."""
    return bool(run(["ss", "-ltnH", f"( sport = :{port} )"]).stdout.strip())


def transports():
    """{pid: argv} of the running transports (processes of the vexa-rdp account)."""
    return processes(pwd.getpwnam("vexa-rdp").pw_uid)


def session_screen(info):
    return rdp_client.grab(info["display"], info["xauthfile"])


def shows_session(client, info, width, height):
    """Waits until the client's screen shows the session's screen (its top left part of width x height) and
    returns the client's image."""
    def same(image):
        return image.crop(0, 0, width, height).mismatch(session_screen(info)) < 0.01
    return client.wait_screen(same, what=f"the client showing display :{info['display']}")


def rdp_user(new_user, name, colour=COLOURS[0]):
    """A new account whose terminal is painted `colour`: (name, home)."""
    user, uid = new_user(name)
    home = pathlib.Path(pwd.getpwnam(user).pw_dir)
    (home / ".Xdefaults").write_text(XDEFAULTS.format(colour=colour))
    os.chown(home / ".Xdefaults", uid, uid)
    return user, home


def user_session(sessions, user, client, timeout=30):
    def found():
        assert client.alive(), f"xfreerdp exited {client.proc.returncode}: {client.output()[-3000:]}"
        return next((sid for name, sid in sessions.listed() if name == user), None)
    try:
        return wait_for(found, timeout=timeout, what=f"a session of {user}")
    except AssertionError as error:
        raise AssertionError(f"{error}; xfreerdp wrote: {client.output()[-3000:]}") from None


def painted(info, colour):
    """Whether the session's terminal is up in its colour (the session is listed while it still starts)."""
    try:
        return session_screen(info).share(bytes.fromhex(colour[1:])) > 0.5
    except rdp_client.HarnessError:
        return False


def connected(sessions, sid, count):
    """The transport pids of signalSessionConnected(sid) once there are more than `count` of them."""
    return [s[1][1] for s in sessions.signals if s[0] == "signalSessionConnected" and s[1][0] == sid][count:]


def login(sessions, clients, user, colour=COLOURS[0], size=(1024, 768), password=PASSWORD, **kw):
    """A client logged in as `user` that shows the user's session: (client, session id, report, transport pid)."""
    known = {sid: len(connected(sessions, sid, 0)) for _, sid in sessions.listed()}
    client = clients.connect(user, password, size=size, **kw)
    sid = user_session(sessions, user, client)
    pid = wait_for(lambda: connected(sessions, sid, known.get(sid, 0)), timeout=30,
                   what=f"signalSessionConnected({sid}) of the new transport")[-1]
    info = sessions.info(sid)
    wait_for(lambda: painted(info, colour), timeout=20, what=f"the terminal of {user} on its display")
    shows_session(client, info, *size)
    return client, sid, info, pid


def transport_unit(pid):
    """The unit whose cgroup holds the process."""
    return pathlib.Path(f"/proc/{pid}/cgroup").read_text().strip().rsplit("/", 1)[-1]


def gone(pid):
    return not pathlib.Path(f"/proc/{pid}").exists()


def test_the_socket_starts_a_confined_transport_per_connection(rdp_socket, sessions, new_user, files):
    """A probe in the transport's place: one process per connection as vexa-rdp with its groups, the connection on
    descriptor 3, the certificate readable, the daemon and the session's X server reachable, and nothing more."""
    _, _, sid, info = sessions.new_session(new_user, "rdpunit")
    PROBE_DROPIN.parent.mkdir(parents=True, exist_ok=True)
    PROBE_DROPIN.write_text(f"[Service]\nExecStart=\nExecStart=/usr/bin/python3 "
                            f"{pathlib.Path(__file__).with_name('rdp_unit_probe.py')}\n")
    marker = pathlib.Path("/tmp/vexa-rdp-probe-marker")
    marker.write_text("the host's /tmp")
    try:
        run(["systemctl", "daemon-reload"])
        conns = [socket.create_connection(("127.0.0.1", 3389), timeout=30) for _ in range(2)]
        for conn in conns:
            conn.sendall(f"{sid}\n".encode())
        reports = [json.loads(conn.makefile("r").readline()) for conn in conns]
    finally:
        PROBE_DROPIN.unlink()
        marker.unlink()
        run(["systemctl", "daemon-reload"])
    assert reports[0]["pid"] != reports[1]["pid"]
    # the socket listens on both families: an IPv4 client comes as a mapped IPv6 address
    expected = {"listen_fds": "1", "peer": "::ffff:127.0.0.1", "user": "vexa-rdp", "no_new_privs": "1",
                "cap_eff": "0000000000000000", "certificate": True, "key": True, "config": True,
                "etc_writable": False, "tmp_shared": False, "home_visible": False,
                "display": info["display"], "xauthfile": info["xauthfile"], "x_status": 0}
    for report in reports:
        assert {k: report.get(k) for k in expected} == expected, report
        assert {"vexa", "vexa-xauth"} <= set(report["groups"]) and "root" not in report["groups"]
    # the ended connections' units are collected
    wait_for(lambda: "vexa-rdp@" not in run(["systemctl", "list-units", "--all", "--plain", "vexa-rdp@*"]).stdout,
             what="the connections' units to go")

    # the certificate made at install: root:vexa 0640 in a 0750 directory, a key that belongs to the certificate
    for path, mode in ((CERT_DIR, 0o750), (CERT_DIR / "tls.crt", 0o640), (CERT_DIR / "tls.key", 0o640)):
        st = path.stat()
        assert (stat.S_IMODE(st.st_mode), st.st_uid, st.st_gid) == (mode, 0, grp.getgrnam("vexa").gr_gid), path
    modulus = [run(["openssl", kind, "-noout", "-modulus", "-in", str(CERT_DIR / name)]).stdout
               for kind, name in (("x509", "tls.crt"), ("rsa", "tls.key"))]
    assert modulus[0] == modulus[1] and modulus[0].startswith("Modulus=")
    # an administrator's own pair stays: the unit runs only while the key is missing
    files.write(CERT_DIR / "tls.crt", b"administrator's certificate\n")
    run(["systemctl", "restart", "vexa-rdp-certificate.service"])
    assert (CERT_DIR / "tls.crt").read_bytes() == b"administrator's certificate\n"


@needs_transport
def test_a_login_shows_the_session_and_runs_what_is_typed(rdp_socket, sessions, new_user, clients):
    user, home = rdp_user(new_user, "rdplogin")
    client, sid, info, pid = login(sessions, clients, user)
    assert pid in transports() and transport_unit(pid).startswith("vexa-rdp@")
    assert sessions.signal("signalProxyAllowConnection", sid)
    # letters of both cases, digits, shifted and unshifted punctuation, through the user's shell in the session
    client.type("echo Vexa-typed 42 ./x_Y:Z > ~/typed")
    client.key("Return")
    assert wait_for(lambda: (home / "typed").exists() and (home / "typed").read_text(),
                    what="the typed command's output") == "Vexa-typed 42 ./x_Y:Z\n"
    shows_session(client, info, 1024, 768)  # the echoed command is on both screens


@needs_transport
def test_a_disconnect_keeps_the_session_and_a_reconnect_finds_it(rdp_socket, sessions, new_user, clients):
    user, home = rdp_user(new_user, "rdpback")
    client, sid, info, pid = login(sessions, clients, user)
    client.type("echo before > ~/typed")
    client.key("Return")
    wait_for(lambda: (home / "typed").exists(), what="the first command")
    client.close()
    sessions.signal("signalSessionDisconnected", sid)
    wait_for(lambda: gone(pid), what="the transport to end")
    assert sessions.listed() == {(user, sid)}
    before = session_screen(info)

    mark = cursor()
    again, sid_again, info_again, pid_again = login(sessions, clients, user)
    # the knock reported for the running session, with the client's address as administrators write it
    for line in (f"proxyListenStarted: session id: {sid}, status: success",
                 f"proxyClientConnected: session id: {sid}, ipaddr: 127.0.0.1"):
        wait_line(mark, line)
    assert (sid_again, info_again["display"], sessions.listed()) == (sid, info["display"], {(user, sid)})
    assert pid_again != pid
    # the same screen: the terminal with the first command still on it (the middle of the screen now shows the
    # daemon's notice of the new connection)
    assert again.screen.grab().crop(0, 0, 1024, 120).mismatch(before.crop(0, 0, 1024, 120)) < 0.01
    again.type("echo after >> ~/typed")
    again.key("Return")
    wait_for(lambda: (home / "typed").read_text() == "before\nafter\n", what="the second command")


@needs_transport
@pytest.mark.parametrize("case", ["wrong password", "unknown user"])
def test_a_refused_login_leaves_nothing(rdp_socket, sessions, new_user, clients, case):
    user, _ = rdp_user(new_user, "rdpwrong" + case.split()[0])
    name, password = {"wrong password": (user, WRONG), "unknown user": ("rdp-nosuchuser", PASSWORD)}[case]
    client = clients.connect(name, password)
    status = client.wait_exit(60)
    assert status != 0, client.output()
    wait_for(lambda: not transports(), what="no transport left")
    assert sessions.listed() == set()
    assert not processes(pwd.getpwnam(user).pw_uid)
    assert not [s for s in sessions.signals if s[0] in ("signalSessionCreated", "signalSessionConnected")]


@needs_transport
@pytest.mark.parametrize("policy", ["NextDeny", "PrevReplace"])
def test_a_second_client_under_the_connect_policy(rdp_socket, daemon, new_user, clients, policy):
    sessions = daemon(**{"connect:policy": policy})
    user, home = rdp_user(new_user, "rdptwice" + policy.lower()[:4])
    first, sid, info, first_pid = login(sessions, clients, user)
    second = clients.connect(user, PASSWORD)
    if policy == "NextDeny":
        assert second.wait_exit(60) != 0, second.output()
        wait_for(lambda: list(transports()) == [first_pid], what="the refused connection's transport to end")
        assert first.alive()
        stays = first
    else:
        second_pid = wait_for(lambda: [p for p in transports() if p != first_pid], what="the second transport")[0]
        sessions.signal("signalSessionConnected", sid, second_pid)
        wait_for(lambda: gone(first_pid), what="the first transport to end")
        first.wait_exit(30)
        shows_session(second, info, 1024, 768)
        stays = second
    assert sessions.listed() == {(user, sid)}
    stays.type("echo still here > ~/typed")
    stays.key("Return")
    wait_for(lambda: (home / "typed").exists() and (home / "typed").read_text() == "still here\n",
             what="input of the client that stayed")


@needs_transport
def test_resizing_the_clients_window_resizes_the_session(rdp_socket, sessions, new_user, clients):
    user, _ = rdp_user(new_user, "rdpsize")
    client, sid, info, _ = login(sessions, clients, user, extra=["/dynamic-resolution"])
    assert rdp_client.screen_size(info["display"], info["xauthfile"]) == (1024, 768)
    client.resize(800, 600)
    wait_for(lambda: rdp_client.screen_size(info["display"], info["xauthfile"]) == (800, 600),
             what="the session's screen at 800x600")
    shows_session(client, info, 800, 600)


@needs_transport
@pytest.mark.parametrize("to_session,to_client", [(True, True), (False, True), (True, False)])
def test_the_clipboard_follows_the_redirect_policy(rdp_socket, daemon, new_user, clients, procs, to_session,
                                                   to_client):
    """Each direction is tried in every case: the allowed one shows that the channel works, so the forbidden one
    fails for the policy and not for a dead channel."""
    sessions = daemon(**{"clipboard:client": to_session, "clipboard:server": to_client})
    user, _ = rdp_user(new_user, f"rdpclip{int(to_session)}{int(to_client)}")
    client, sid, info, _ = login(sessions, clients, user)
    session_env = {**os.environ, "DISPLAY": f":{info['display']}", "XAUTHORITY": info["xauthfile"]}

    def offer(env, text):
        proc = procs.start(["xclip", "-quiet", "-selection", "clipboard", "-i"], env=env, stdin=subprocess.PIPE)
        proc.popen.stdin.write(text.encode())
        proc.popen.stdin.close()

    def clipboard(env):
        return subprocess.run(["xclip", "-o", "-selection", "clipboard"], env=env, capture_output=True, text=True,
                              timeout=10, check=False).stdout

    for allowed, source, target, text in ((to_session, client.screen.env, session_env, "from the client 1"),
                                          (to_client, session_env, client.screen.env, "from the session 2")):
        offer(source, text)
        if allowed:
            wait_for(lambda: clipboard(target) == text, timeout=15, what=f"{text!r} on the other side")
        else:
            time.sleep(5)
            assert clipboard(target) != text
    assert sid in [s for _, s in sessions.listed()]


@needs_transport
def test_four_clients_for_four_users_at_once(rdp_socket, sessions, new_user, clients):
    users = [rdp_user(new_user, f"rdpfour{i}", colour) for i, colour in enumerate(COLOURS)]
    started = [clients.connect(user, PASSWORD, size=(800, 600)) for user, _ in users]
    seen = {}
    for (user, home), colour, client in zip(users, COLOURS, started):
        sid = user_session(sessions, user, client, timeout=60)
        info = sessions.info(sid)
        wait_for(lambda: painted(info, colour), timeout=30, what=f"the terminal of {user}")
        image = shows_session(client, info, 800, 600)
        seen[user] = (sid, info["display"], round(image.share(bytes.fromhex(colour[1:])), 1))
        client.type(f"echo {user} > ~/typed")
        client.key("Return")
    assert len({sid for sid, _, _ in seen.values()}) == len({d for _, d, _ in seen.values()}) == 4
    assert all(share >= 0.5 for _, _, share in seen.values()), seen
    for user, home in users:
        wait_for(lambda: (home / "typed").exists() and (home / "typed").read_text() == f"{user}\n",
                 what=f"the command typed by {user}'s client")
    assert len(transports()) == 4
