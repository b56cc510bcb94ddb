"""The login screen with a real client: Debian's xfreerdp connects to port 3389 without a password, the transport
shows the login screen (vexa_login_helper in a login session of vexa-login), xdotool types name and password into
the client, and the same client process ends up on the user's session. Compared as in test_rdp.py: the client's
screen with the session's own screen (xwd of both)."""

import os
import pathlib
import pwd

import pytest

import rdp_client
from conftest import PASSWORD, WRONG, journal, processes, wait_for
import test_rdp
from test_rdp import COLOURS, connected, gone, painted, rdp_user, session_screen, shows_session, transports, user_session

HELPER = pathlib.Path("/usr/libexec/vexa/vexa_login_helper")
# the RDP socket as the package's post-install step enables it, shared with test_rdp.py
rdp_socket = test_rdp.rdp_socket
pytestmark = [pytest.mark.skipif(not HELPER.exists(), reason=f"{HELPER} is not installed"),
              pytest.mark.usefixtures("rdp_socket")]
LOGIN_USER = "vexa-login"
SIZE = (1024, 768)
# the login screen's card and its refusal text (src/greeter/greeter_main.cpp)
CARD = bytes.fromhex("f3f5f7")
REFUSAL = bytes.fromhex("b3261e")
# xfreerdp's exit status after the server's idle timeout (ERRINFO_IDLE_TIMEOUT)
XF_EXIT_IDLE_TIMEOUT = 3


@pytest.fixture
def clients(tmp_path):
    keeper = rdp_client.Clients(tmp_path)
    yield keeper
    keeper.stop()


def login_sessions(sessions):
    return [sid for user, sid in sessions.listed() if user == LOGIN_USER]


def greeter_drawn(info):
    try:
        return session_screen(info).share(CARD) > 0.05
    except rdp_client.HarnessError:
        return False


def login_screen(sessions, clients, user=None, password=None):
    """A client (without a password unless given) that shows the login screen: (client, login session id, its
    report, the transport's pid)."""
    client = clients.connect(user, password, size=SIZE)

    def started():
        assert client.alive(), f"xfreerdp exited {client.proc.returncode}: {client.output()[-3000:]}"
        return login_sessions(sessions)
    sid = wait_for(started, timeout=30, what="the login screen's session")[-1]
    info = sessions.info(sid)
    assert info["login:mode"] and info["xsession:prog"] == str(HELPER)
    pid = wait_for(lambda: connected(sessions, sid, 0), what="the transport on the login screen")[0]
    wait_for(lambda: greeter_drawn(info), timeout=20, what="the login screen drawn")
    shows_session(client, info, *SIZE)
    return client, sid, info, pid


def log_in(client, user, password):
    client.type(user)
    client.key("Return")
    client.type(password)
    client.key("Return")


def lands(sessions, client, user, colour, pid):
    """The same client shows the user's session, with the same transport registered there: (session id, report)."""
    sid = user_session(sessions, user, client)
    wait_for(lambda: pid in connected(sessions, sid, 0), what=f"transport {pid} moved to session {sid}")
    info = sessions.info(sid)
    wait_for(lambda: painted(info, colour), timeout=20, what=f"the terminal of {user}")
    shows_session(client, info, *SIZE)
    return sid, info


def test_a_client_without_password_logs_in_on_the_login_screen(sessions, new_user, clients):
    user, home = rdp_user(new_user, "greetok", COLOURS[1])
    client, login_sid, login_info, pid = login_screen(sessions, clients)
    image = client.screen.grab()
    out = pathlib.Path("/e2e/out")
    image.save_png((out if out.is_dir() else client.log.parent) / "greeter.png")
    assert image.share(CARD) > 0.05 and pid in transports()

    log_in(client, user, PASSWORD)
    sid, info = lands(sessions, client, user, COLOURS[1], pid)
    assert list(transports()) == [pid] and client.alive()
    # the login screen ends once the transport has moved: its session, its helper and its X server
    sessions.signal("signalSessionShutdown", login_sid)
    wait_for(lambda: not processes(pwd.getpwnam(LOGIN_USER).pw_uid), what="the login screen's processes to end")
    assert sessions.listed() == {(user, sid)}
    # the client's keys go to the user's session now
    client.type("echo typed after the login screen > ~/typed")
    client.key("Return")
    assert wait_for(lambda: (home / "typed").exists() and (home / "typed").read_text(),
                    what="the typed command's output") == "typed after the login screen\n"
    assert info["display"] != login_info["display"]


def replies(after):
    """The login screen's replies from the service, as it logged them."""
    return [e["MESSAGE"] for e in journal(after, idents=("vexa_login_helper",))
            if e["MESSAGE"].startswith("onSessionReply:")]


def test_a_wrong_password_is_refused_on_the_login_screen_and_throttled(sessions, new_user, clients):
    user, _ = rdp_user(new_user, "greetwrong", COLOURS[3])
    client, login_sid, login_info, pid = login_screen(sessions, clients)
    after = sessions.svc.cursor
    log_in(client, user, WRONG)
    client.wait_screen(lambda image: image.share(REFUSAL, 40) > 0.0003, what="the refusal on the login screen")
    assert replies(after) == [f"onSessionReply: user: `{user}', reply: -4"]
    assert client.alive() and list(transports()) == [pid]
    assert sessions.listed() == {(LOGIN_USER, login_sid)}
    assert not processes(pwd.getpwnam(user).pw_uid)
    assert [s[1][0] for s in sessions.signals if s[0] == "signalSessionCreated"] == [login_sid]

    # two more (the name stays, the emptied password has the focus) engage the throttle of failed logins, which
    # then delays the login screen's next attempt like any other caller's
    for count in (2, 3):
        client.type(WRONG)
        client.key("Return")
        wait_for(lambda: len(replies(after)) == count, timeout=30, what=f"reply {count} of the service")
    assert [e for e in journal(after) if e["MESSAGE"].startswith(f"authThrottle: engaged, user: {user} (3 failures)")]
    client.type(PASSWORD)
    client.key("Return")
    lands(sessions, client, user, COLOURS[3], pid)
    assert [e for e in journal(after) if e["MESSAGE"].startswith(f"vexaSessionRequest: throttled, user: {user},")]


def test_the_login_screen_ends_after_its_idle_limit(sessions, clients):
    client, login_sid, login_info, pid = login_screen(sessions, clients)
    assert login_info["inactivity:limit"] == 60
    # nobody types: the transport reports the idle client after 60 s and ends the connection, the screen follows
    assert client.wait_exit(90) == XF_EXIT_IDLE_TIMEOUT, client.output()
    sessions.signal("signalSessionShutdown", login_sid)
    wait_for(lambda: gone(pid), what="the transport to end")
    wait_for(lambda: not processes(pwd.getpwnam(LOGIN_USER).pw_uid), what="the login screen's processes to end")
    assert sessions.listed() == set()


def test_a_reconnect_with_the_password_goes_to_the_running_session(sessions, new_user, clients):
    user, _ = rdp_user(new_user, "greetback", COLOURS[2])
    client, login_sid, _, pid = login_screen(sessions, clients)
    log_in(client, user, PASSWORD)
    sid, info = lands(sessions, client, user, COLOURS[2], pid)
    client.close()
    wait_for(lambda: gone(pid), what="the transport to end")
    sessions.signal("signalSessionShutdown", login_sid)

    again = clients.connect(user, PASSWORD, size=SIZE)
    assert user_session(sessions, user, again) == sid
    wait_for(lambda: connected(sessions, sid, 1), what="the new transport registered")
    shows_session(again, info, *SIZE)
    # straight there: no second login screen
    assert sessions.listed() == {(user, sid)}
    assert [s[1][0] for s in sessions.signals if s[0] == "signalSessionCreated"] == [login_sid, sid]
    assert os.path.exists(info["xauthfile"])


def bright(image):
    """The share of pixels that are nearly white in every channel: the card and the on-screen keyboard."""
    pixels = image.pixels
    return sum(1 for i in range(0, len(pixels), 3) if min(pixels[i:i + 3]) > 200) / (image.width * image.height)


def test_the_login_screen_for_every_client_with_published_programs_and_a_keyboard(daemon, new_user, clients, files):
    files.write("/etc/vexa/programs.json", [{"name": "E2E Logo", "path": "/usr/bin/xlogo"}])
    sessions = daemon(**{"login:sessions": True, "login:keyboard": True, "login:helper": True})
    user, _ = rdp_user(new_user, "greetprog")
    # with "login:helper" every client logs in on the login screen, also one that sent a password
    client, login_sid, login_info, pid = login_screen(sessions, clients, user, PASSWORD)
    assert sessions.listed() == {(LOGIN_USER, login_sid)}
    assert [e for e in journal(sessions.svc.cursor, idents=("vexa_login_helper",))
            if e["MESSAGE"] == f"main: transport pid: {pid}, display: `:{login_info['display']}', "
                               "sessions: shown, keyboard: shown"]
    # the keyboard under the card: about a third of the screen is light, the card alone is a sixth
    assert bright(client.screen.grab()) > 0.3
    # keys only: past the domain to the choice, whose last entry (End) is the program file's (the desktop
    # applications come first), then the button's Alt+L (the left Alt key reaches the session as Alt)
    client.type(user)
    client.key("Return")
    client.type(PASSWORD)
    client.key("Tab", "Tab", "End", "alt+l")
    sid = user_session(sessions, user, client)
    wait_for(lambda: pid in connected(sessions, sid, 0), what=f"transport {pid} moved to session {sid}")
    info = sessions.info(sid)
    assert (info["xsession:prog"], info["seamless:mode"]) == ("/usr/bin/xlogo", True)
    wait_for(lambda: processes(info["uid"], "xlogo"), what="the published program in the session")
    shows_session(client, info, *SIZE)
    sessions.signal("signalSessionShutdown", login_sid)
