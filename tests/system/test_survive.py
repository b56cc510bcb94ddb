"""Sessions that outlive the daemon: a crash, a lost bus and a restart leave them running and the next daemon takes
them back (same ids, displays, transports; ended and handed out as before); a session that ended while the daemon
was away is cleaned up at start; a dead X server ends its session (a stop: test_session.py)."""

import os
import pathlib
import signal

import pytest

from conftest import (PASSWORD, PROGRAM, UNIT, Sessions, connects, cursor, ended, journal, processes, run, system_bus,
                      wait_for, wait_line, x_servers)

RECORDS = pathlib.Path("/run/vexa/sessions")


def record(sid):
    return RECORDS / f"{sid}.json"


def recorded(sid, *words):
    """The session's record file, once it holds every word."""
    return wait_for(lambda: record(sid).exists() and all(w in record(sid).read_text() for w in words),
                    what=f"record of {sid} with {words}")


def live(info):
    """What must not change while the daemon is away: ids, display, session manager, X server."""
    return (info["display"], info["pid2"], info["systemd:sid"], sorted(x_servers(info["display"])))


def restarted(svc, before, bus):
    """Waits until systemd runs a new daemon that answers; a keeper of its signals (their match needs no removal:
    it is for that daemon's own bus name)."""
    def answering():
        pid = int(svc.prop("MainPID", "Service"))
        return pid not in (0, before) and svc.prop("ActiveState") == "active" and pid
    svc.pid = wait_for(answering, timeout=20, what="the daemon restarted")
    wait_for(lambda: svc.value("vexaStatus"), what="the new daemon answers")
    return Sessions(svc, bus)


# How the daemon goes away without a stop: killed (systemd restarts it), the bus restarted (the daemon loses it;
# its unit, which requires the bus, is restarted with it), and an ordinary restart of its unit (a package upgrade).
AWAY = {
    "SIGKILL": lambda svc: os.kill(svc.pid, signal.SIGKILL),
    "bus restart": lambda svc: run(["systemctl", "restart", "dbus"]),
    "systemctl restart": lambda svc: run(["systemctl", "restart", UNIT]),
}


@pytest.mark.parametrize("how", AWAY)
def test_sessions_and_their_transports_outlive_the_daemon(daemon, service, bus, new_user, procs, how):
    sessions = daemon()
    users = {}
    for name in ("e2e-surv-a", "e2e-surv-b"):
        user, uid, sid, info = sessions.new_session(new_user, f"{name}-{how.split()[0].lower()}")
        users[sid] = (user, uid, info)
    first = next(iter(users))
    transport = procs.transport(first, "203.0.113.7")
    sessions.signal("signalSessionConnected", first, transport.pid, transport.addr)
    recorded(first, f'"pid":{transport.registered}')
    for sid in users:
        recorded(sid)
    listed, before = sessions.listed(), {sid: live(info) for sid, (_, _, info) in users.items()}

    after = cursor()
    AWAY[how](service)
    if how == "bus restart":
        # this test's connection went with the bus (the next test's fixture makes one again)
        bus = service.bus = system_bus()
    again = restarted(service, before=service.pid, bus=bus)
    assert again.listed() == listed
    for sid, (user, uid, _) in users.items():
        info = again.info(sid)
        assert live(info) == before[sid]
        running = len(connects(info))
        wait_line(after, f"adoptSessions: session adopted, session id: {sid}, display: {info['display']}, "
                         f"user: {user}, pid: {info['pid2']}, logind session: {info['systemd:sid']}, "
                         f"transports: {running} ({running} running)", service.pid)
    # the transport still runs and keeps its slot; nothing told it to end
    assert connects(again.info(first)) == [(transport.addr, transport.registered)]
    assert transport.terminated() == []

    # the same user logging in again is handed the session it has
    user, uid, info = users[first]
    assert again.request(username=user, password=PASSWORD, **PROGRAM) == first
    assert again.listed() == listed

    # and a taken-back session ends the ordinary way, leaving nothing behind
    for sid, (user, uid, info) in users.items():
        assert again.svc.value("vexaSessionShutdown", "u", sid)
        again.signal("signalSessionShutdown", sid)
        wait_for(lambda: ended(uid, info["display"]), what=f"the processes of session {sid} ended")
        wait_for(lambda: not record(sid).exists(), what=f"the record of session {sid} removed")
        assert not pathlib.Path(info["xauthfile"]).exists()
    transport.wait_terminated()
    assert again.listed() == set()


def test_a_session_that_ends_while_the_daemon_is_away_is_cleaned_up_at_start(sessions, service, bus, new_user):
    user, uid, sid, info = sessions.new_session(new_user, "e2e-surv-gone")
    kept_user, kept_uid, kept_sid, kept_info = sessions.new_session(new_user, "e2e-surv-kept")
    recorded(sid)
    recorded(kept_sid)
    display, manager = info["display"], info["pid2"]
    assert x_servers(display) and processes(uid)

    after = cursor()
    # Killed, the daemon is started again after its unit's RestartSec (2 s); its session manager dies meanwhile,
    # without its own tear-down: the X server and the session's program are left in the session's scope.
    os.kill(service.pid, signal.SIGKILL)
    os.kill(manager, signal.SIGKILL)
    again = restarted(service, before=service.pid, bus=bus)
    wait_line(after, f"adoptSessions: session ended while the service was down, session id: {sid}, "
                     f"display: {display}, user: {user}, reason: session manager ended", service.pid)
    assert again.listed() == {(kept_user, kept_sid)}
    wait_for(lambda: ended(uid, display), what="the processes left in the scope ended")
    assert not record(sid).exists()
    assert not pathlib.Path(info["xauthfile"]).exists()
    wait_for(lambda: not pathlib.Path(f"/tmp/.X11-unix/X{display}").exists(), what="the display's socket gone")
    # the display is free again: the next session may take it
    _, _, reused_sid, reused = again.new_session(new_user, "e2e-surv-next")
    assert reused["display"] == display


def test_a_killed_x_server_ends_its_session(sessions, new_user):
    user, uid, sid, info = sessions.new_session(new_user, "e2e-surv-xdead")
    (server,) = x_servers(info["display"])
    after = cursor()
    os.kill(server, signal.SIGKILL)
    # the session's end is announced within 2 s
    wait_for(lambda: ["signalSessionShutdown", [sid]] in [[m, a] for m, a in sessions.signals], timeout=2.0,
             what="signalSessionShutdown within 2 s")
    message = f"runSessionManager: x server ended, pid: {server}, the session ends"
    wait_for(lambda: journal(after, None, message, ("vexa_session_manager",)), what=message)
    wait_for(lambda: ended(uid, info["display"]), what="the session's processes ended")
    # what the killed server could not remove itself is gone too: the display is free for the next server
    display = info["display"]
    assert not pathlib.Path(f"/tmp/.X11-unix/X{display}").exists()
    assert not pathlib.Path(f"/tmp/.X{display}-lock").exists()
    assert (user, sid) not in sessions.listed()
    assert not record(sid).exists()
