"""Whole sessions through the daemon: a request as a transport makes it, a real user, PAM with pam_systemd,
logind, an X server and the session script, and their end through the bus or from outside."""

import grp
import json
import os
import pathlib
import re
import signal
import stat

from conftest import PASSWORD, PROGRAM, XVFB, as_user, ended, journal, processes, run, wait_for, wait_line, x_servers

BOTH = ("vexa_service", "vexa_session_manager")


def test_a_request_makes_a_whole_session(sessions, new_user):
    user, uid = new_user("e2e-sess-full")
    sid = sessions.request(username=user, password=PASSWORD, width=1024, height=768, **PROGRAM)
    assert sid > 0
    sessions.signal("signalSessionCreated", sid)
    sessions.signal("signalProxyAllowConnection", sid, uid)
    assert (user, sid) in sessions.listed()

    info = sessions.info(sid)
    display = info["display"]
    # logind follows the session under its numeric id, as an X11 session of the user on that display
    show = run(["loginctl", "show-session", info["systemd:sid"], "-p", "Name", "-p", "Type", "-p", "Display",
                "-p", "Class"]).stdout.split()
    assert sorted(show) == sorted(["Name=" + user, "Type=x11", f"Display=:{display}", "Class=user"])
    assert info["systemd:sid"].isdigit()
    assert info["systemd:slice"] == f"user-{uid}.slice"
    assert info["systemd:cgroup"].endswith(f"/session-{info['systemd:sid']}.scope")

    # the X server as root with the session's authority file, the session program as the user
    (xpid, xargv), = x_servers(display).items()
    assert xargv[xargv.index("-auth") + 1] == info["xauthfile"]
    mode = os.stat(info["xauthfile"])
    assert (stat.S_IMODE(mode.st_mode), mode.st_uid, grp.getgrgid(mode.st_gid).gr_name) == (0o440, uid, "vexa-xauth")
    # only a client with its cookie gets in
    for authority, code in ((info["xauthfile"], 0), ("/dev/null", 1)):
        assert run(as_user(user, "xdpyinfo", "-display", f":{display}"), check=False,
                   env={**os.environ, "XAUTHORITY": authority}).returncode == code, authority
    # the reply comes once the session's bus is up; the program starts right after
    wait_for(lambda: [argv for argv in processes(uid, "sleep").values()] == [["/usr/bin/sleep", "4242"]],
             what="the session program")
    # the session's own bus answers at the address the session script wrote
    address = info["dbus:address"]
    bus_file = pathlib.Path(f"/run/user/{uid}/vexa/dbus_session_{sid}")
    assert bus_file.read_text().strip() == address
    run(as_user(user, "dbus-send", f"--bus={address}", "--dest=org.freedesktop.DBus", "--print-reply",
                "/org/freedesktop/DBus", "org.freedesktop.DBus.ListNames"))

    lines = [e["MESSAGE"] for e in sessions.svc.barrier(sessions.svc.cursor)]
    assert f"startSession: session id: {info['systemd:sid']}, display: {display}" in lines
    assert (f"startSession: depth: 24, width: 1024, height: 768, username: `{user}', session: `DefaultSession'"
            in lines)
    assert f"startSession: session id: {sid}, display: {display}, dbus address: `{address}'" in lines
    run(["journalctl", "--sync"])
    assert PASSWORD not in run(["journalctl", "-o", "json", f"--after-cursor={sessions.svc.cursor}"]).stdout

    # a policy changed for this session is saved for the user's next session when it ends
    saved = pathlib.Path(f"/var/lib/vexa/sessions/{uid}.json")
    sessions.svc.call("vexaSessionPolicyRedirectPrinter", "ib", sid, False)
    policy = sessions.info(sid)
    assert not policy["redirect:printer"] and not saved.exists()

    assert sessions.svc.value("vexaSessionShutdown", "u", sid)
    sessions.signal("signalSessionShutdown", sid)
    state = json.loads(wait_for(lambda: saved.exists() and saved.read_text(), what="the saved state"))
    assert state["redirect:policy"] & 0x4 == 0 and stat.S_IMODE(saved.stat().st_mode) == 0o640
    assert (user, sid) not in sessions.listed()
    wait_for(lambda: ended(uid, display), what="the session's processes to end")
    assert not pathlib.Path(info["xauthfile"]).exists() and not bus_file.exists()
    assert sessions.info(sid) == {}


def test_refused_requests_start_nothing(sessions, new_user):
    user, uid = new_user("e2e-sess-bad")
    cases = [
        ({"password": "Wrong-e2e-9x"}, -4, "runSessionManager: pam checkAuthenticate failed"),
        ({}, -4, f"startSession: no password and no accepted transport token, user: {user}"),
        ({"transport_token": "never-given"}, -4, f"vexaSessionRequest: transport token not accepted, user: {user}"),
    ]
    for extra, reply, line in cases:
        after = sessions.svc.cursor
        assert sessions.request(username=user, **PROGRAM, **extra) == reply, extra
        assert wait_for(lambda: journal(after, message=line, idents=BOTH), what=line)
    assert not sessions.listed()
    wait_for(lambda: not processes(uid) and not x_servers(101) and not x_servers(102), what="nothing left")


def test_reuse_and_two_users(sessions, new_user):
    (first, _), (second, _) = new_user("e2e-sess-one"), new_user("e2e-sess-two")
    sid = sessions.request(username=first, password=PASSWORD, **PROGRAM)
    assert sessions.request(username=first, password=PASSWORD, **PROGRAM) == sid
    # the running session goes only to someone who knows the password
    assert sessions.request(username=first, password="Wrong-e2e-9x", **PROGRAM) == -4
    other = sessions.request(username=second, password=PASSWORD, **PROGRAM)
    assert other > 0 and other != sid
    assert sessions.info(sid)["display"] != sessions.info(other)["display"]
    assert sessions.listed() == {(first, sid), (second, other)}

    # by user name: the first session of that user
    assert sessions.svc.value("busSessionShutdown", "s", first)
    sessions.signal("signalSessionShutdown", sid)
    wait_for(lambda: sessions.listed() == {(second, other)}, what="the first user's session to go")


def test_session_ends_when_its_program_is_killed_or_the_service_stops(sessions, new_user):
    _, uid, sid, info = sessions.new_session(new_user, "e2e-sess-kill")
    other, other_uid, other_sid, live = sessions.new_session(new_user, "e2e-sess-stop")
    (pid, _), = wait_for(lambda: processes(uid, "sleep"), what="the session program").items()
    os.kill(pid, signal.SIGKILL)
    sessions.signal("signalSessionShutdown", sid)
    wait_for(lambda: ended(uid, info["display"]), what="the session's processes to end")
    assert sessions.listed() == {(other, other_sid)}
    assert not pathlib.Path(info["xauthfile"]).exists()
    assert not pathlib.Path(f"/var/lib/vexa/sessions/{uid}.json").exists()  # nothing was changed
    # the service stopping (systemctl stop) with a live session leaves nothing of it behind, not even its record
    record = pathlib.Path(f"/run/vexa/sessions/{other_sid}.json")
    wait_for(record.exists, what="the live session's record")
    sessions.svc.stop()
    wait_line(sessions.svc.cursor, "start: shutdown complete")
    wait_for(lambda: ended(other_uid, live["display"]), what="the live session's processes to end")
    assert not record.exists()


def test_logind_never_knowing_the_session_refuses_it(daemon, new_user, files):
    user, uid = new_user("e2e-sess-nologind")
    files.write("/etc/pam.d/vexa-e2e-nologind", "auth required pam_unix.so nodelay\n"
                "account required pam_unix.so\nsession required pam_unix.so\n")
    keeper = daemon(**{"pam:service": "vexa-e2e-nologind", "start:timeout": 2})
    assert keeper.request(username=user, password=PASSWORD, **PROGRAM) == -4
    wait_line(keeper.svc.cursor, "startSession: systemd failed, display: 101, expired start session timeout: u")
    wait_for(lambda: ended(uid, 101), what="the session's processes to end")
    assert not keeper.listed()


def test_an_x_server_that_never_opens_its_socket_ends_the_session(daemon, new_user):
    # Without "-I" Xvfb refuses the "-logfile" that is always added, and exits; the wait gives up after 5 s.
    keeper = daemon(**{"xvfb:args": XVFB["xvfb:args"][:-1]})
    user, _ = new_user("e2e-sess-xfail")
    keeper.request(username=user, password=PASSWORD, **PROGRAM)
    pattern = r"runSessionManager: xorg not started, pid: \d+, socket: /tmp/\.X11-unix/X101"
    assert [e for e in journal(keeper.svc.cursor, idents=BOTH) if re.fullmatch(pattern, e["MESSAGE"])]
    wait_for(lambda: not keeper.listed(), what="the session to go")


def test_login_helper_session(daemon, new_user, files):
    user, uid = new_user("e2e-sess-login")
    helper = pathlib.Path("/usr/local/bin/vexa-e2e-login-helper")  # a stand-in the user may run
    files.write(helper, "#!/bin/sh\nexec sleep 600\n")
    helper.chmod(0o755)
    keeper = daemon(**{"helper:login": str(helper), "login:helper:user": user})  # the login helper's account
    service = keeper.svc
    # only the login helper's own account, not root nor another user
    for name in ("root", new_user("e2e-sess-plain")[0]):
        assert list(service.call("vexaLoginHelperStart", "si", name, 4242).get_args_list()[0]) == [-1, ""]
        wait_line(service.cursor, f"startSession: login helper refused, user: {name}, only for: {user}")
    # the login screen needs no password: the helper's own session, with the fixed limits of a login session
    (display, xauthfile), = service.call("vexaLoginHelperStart", "si", user, 4321).get_args_list()
    sid, = [s for u, s in keeper.listed() if u == user]
    info = keeper.info(sid)
    assert (info["display"], info["xauthfile"], info["login:mode"]) == (display, xauthfile, True)
    assert (info["duration:limit"], info["inactivity:limit"], info["disconnect:limit"]) == (300, 60, 30)
    wait_for(lambda: [argv for argv in processes(uid, "sleep").values()] == [["sleep", "600"]], what="the helper")
    assert service.value("vexaLoginHelperStarted", "i", 4321) == user
    assert service.value("vexaLoginHelperStarted", "i", 4322) == ""
    service.call("vexaLoginHelperAllowConnectForTransportTo", "iis", 4321, 105, "/run/vexa/xauth_105")
    keeper.signal("signalTransportDisplaySwitchTo", 4321, 105, "/run/vexa/xauth_105")
    assert service.value("vexaSessionShutdown", "u", sid)
    keeper.signal("signalSessionShutdown", sid)
    wait_for(lambda: ended(uid, display), what="the helper's session to end")
