"""Transports of real sessions: the connect policies, the proxy handshake, a transport that dies, the freezer,
the time limits, a disconnect, and which processes a caller may register (conftest's TRANSPORT stands in for
the RDP transports)."""

import itertools
import os
import pathlib
import re
import signal
import subprocess
import time

import pytest

from conftest import assert_level, connects, cursor, ended, journal, processes, wait_for, wait_line

PYTHON = "/usr/bin/python3"
PROGRAMS = "/etc/vexa/programs.json"

# Reads a pid on its standard input, starts its arguments as a process with exactly that pid (clone3 with
# set_tid: root in the container's pid namespace), writes "took <pid>", then "ended <wait status>" when it ends.
HEIR = r"""
import ctypes, os, sys
libc = ctypes.CDLL(None, use_errno=True)
libc.syscall.restype = ctypes.c_long
wanted = (ctypes.c_int * 1)(int(sys.stdin.readline()))
args = (ctypes.c_uint64 * 11)()  # struct clone_args: exit_signal, then set_tid and set_tid_size
args[4], args[8], args[9] = 17, ctypes.addressof(wanted), 1
pid = libc.syscall(435, ctypes.byref(args), ctypes.c_size_t(ctypes.sizeof(args)))
if pid == 0:
    try:
        os.execv(sys.argv[1], sys.argv[1:])
    finally:
        os._exit(127)
if pid < 0:
    os.write(1, f"failed {os.strerror(ctypes.get_errno())}\n".encode())
    sys.exit(1)
os.write(1, f"took {pid}\n".encode())
os.write(1, f"ended {os.waitpid(pid, 0)[1]}\n".encode())
"""

# A published program that shrugs SIGTERM off: its session outlives a stop request.
DEAF = "import signal; signal.signal(signal.SIGTERM, signal.SIG_IGN); signal.pause()"

FENCES = itertools.count(900001)  # above any listen time-out a test asks for


@pytest.fixture
def cgroups(service):
    """Reports of sessions that may be left frozen: thawed before the daemon stops, so that they can end."""
    infos = []
    yield infos
    for info in infos:
        if (freeze := cgroup(info, "cgroup.freeze")).exists():
            freeze.write_text("0\n")


def cgroup(info, name):
    return pathlib.Path("/sys/fs/cgroup" + info["systemd:cgroup"], name)


def frozen(info):
    return "frozen 1" in cgroup(info, "cgroup.events").read_text().splitlines()


def slots(*transports):
    return [(t.addr, t.registered) for t in transports]


def fence(keeper):
    """Returns once every signal the daemon emitted before has arrived here (a bus connection keeps the order of
    what one sender sends)."""
    value = next(FENCES)
    keeper.svc.call("proxyListenTimeout", "u", value)
    keeper.signal("signalProxyListenTimeout", value)


def emitted(keeper, name, since=0):
    return [args for member, args in keeper.signals[since:] if member == name]


def logged_at(after, message):
    """The journal time (s since the epoch) of a line of the daemon."""
    return int(wait_line(after, message)[0]["__REALTIME_TIMESTAMP"]) / 1e6


POLICIES = {
    # connect:policy: (its number, the answers to five transports asking in a row, the slots given those let in)
    "NextDeny": (1, [True, False, False, False, False], lambda admitted: admitted[:1]),
    "PrevReplace": (2, [True] * 5, lambda admitted: admitted[-1:]),
    "MultiAllow": (3, [True] * 4 + [False], lambda admitted: admitted[:4]),
}
REFUSALS = {
    "NextDeny": ("warning", "sessionCheckPolicyConnection: session id: {sid}, transport also running, connect policy "
                            "- `ConnectPolicy::NextDeny', transport pid: {pid}"),
    "MultiAllow": ("error", "sessionCheckPolicyConnection: session id: {sid}, full house connections, connect policy "
                            "- `ConnectPolicy::MultiAllow', max limit: 4"),
}
LISTEN_TIMEOUTS = [0, 31, 0, 33, 34]  # 0 asks for no listen time-out


@pytest.mark.parametrize("policy", POLICIES)
def test_the_connect_policy_decides_which_transports_attach(daemon, new_user, procs, policy):
    number, answers, kept = POLICIES[policy]
    sessions = daemon(**{"connect:policy": policy})
    svc = sessions.svc
    _, uid, sid, info = sessions.new_session(new_user, f"e2e-conn-{policy.lower()}")
    assert svc.value("vexaPolicyConnectDefault") == number and info["policy:connect"] == number
    sessions.signal("signalProxyAllowConnection", sid, uid)  # of the request itself
    fence(sessions)
    mark = len(sessions.signals)

    admitted, handshake = [], []
    for n, (timeout, admit) in enumerate(zip(LISTEN_TIMEOUTS, answers)):
        after = cursor()
        assert bool(svc.value("vexaConnectRdpTransport", "uu", sid, timeout)) == admit, f"transport {n + 1}"
        if admit:
            handshake += [("signalProxyListenTimeout", [timeout])] * bool(timeout)
            handshake.append(("signalProxyAllowConnection", [sid, uid]))
        else:
            level, text = REFUSALS[policy]
            assert_level(wait_line(after, text.format(sid=sid, pid=admitted[0].pid))[0], level)
            if n != answers.index(False):
                continue
            # The first one refused registers all the same, as a broken transport might: it is not taken.
            procs.transport(sid, f"198.51.100.{n + 1}")
            wait_line(after, f"proxySessionConnected: session id: {sid}, abnormal situation, connect policy - "
                             f"`ConnectPolicy::{policy}'")
            assert connects(sessions.info(sid)) == slots(*kept(admitted)), f"transport {n + 1}"
            continue
        transport = procs.transport(sid, f"198.51.100.{n + 1}")
        sessions.signal("signalSessionConnected", sid, transport.pid, transport.addr)
        admitted.append(transport)
        if policy == "PrevReplace" and n:
            # the one it replaces was told to end, and given 100 ms to do so, before the new one was answered
            previous = admitted[-2]
            assert previous.terminated() == [previous.pid], f"transport {n}"
            wait_line(after, f"reset: kill pid: {previous.pid}, remoteaddr: `{previous.addr}'")
        info = sessions.info(sid)
        assert connects(info) == slots(*kept(admitted)) and info["remote:connected"], f"transport {n + 1}"

    fence(sessions)
    assert [(member, args) for member, args in sessions.signals[mark:]
            if member == "signalProxyAllowConnection" or member == "signalProxyListenTimeout" and args[0] < 900001
            ] == handshake
    assert emitted(sessions, "signalSessionConnected", mark) == [[sid, t.pid, t.addr] for t in admitted]
    assert [t for t in procs.started if t.terminated()] == (admitted[:-1] if policy == "PrevReplace" else [])


def test_a_dead_transport_is_announced_and_a_session_left_without_one_is_frozen(sessions, new_user, procs, cgroups):
    svc = sessions.svc
    _, uid, sid, info = sessions.new_session(new_user, "e2e-conn-dead")
    cgroups.append(info)
    svc.call("vexaSessionPolicyConnect", "iu", sid, 3)
    assert (info["disconnected:freeze"], info["session:frozen"], info["disconnected:timepoint"]) == (False, False, 0)

    # Without the freeze setting the session runs on.
    first = procs.transport(sid, "198.51.100.1")
    killed = time.time()
    first.kill()
    sessions.signal("signalSessionDisconnected", sid, first.pid, first.addr)
    # the time is set last in the watcher's pass
    info = wait_for(lambda: (i := sessions.info(sid))["disconnected:timepoint"] and i, what="the disconnect time")
    assert killed - 1 <= info["disconnected:timepoint"] <= time.time()
    assert (connects(info), info["remote:connected"], info["session:frozen"]) == ([], False, False)
    assert cgroup(info, "cgroup.freeze").read_text() == "0\n" and not frozen(info)

    svc.call("vexaSessionDisconnectedFreeze", "ib", sid, True)
    second, third = procs.transport(sid, "198.51.100.2"), procs.transport(sid, "198.51.100.3")
    info = sessions.info(sid)
    assert (info["disconnected:freeze"], info["disconnected:timepoint"]) == (True, 0)
    assert connects(info) == slots(second, third)

    # One of two gone: announced and the time noted, but the other one still runs, so nothing is frozen.
    third.kill()
    sessions.signal("signalSessionDisconnected", sid, third.pid, third.addr)
    info = wait_for(lambda: (i := sessions.info(sid))["disconnected:timepoint"] and i, what="the disconnect time")
    assert (connects(info), info["remote:connected"], info["session:frozen"]) == (slots(second), True, False)
    assert not frozen(info)

    # The last one gone: the whole session stops.
    second.kill()
    sessions.signal("signalSessionDisconnected", sid, second.pid, second.addr)
    wait_for(lambda: frozen(info), what="the session's cgroup to freeze")
    assert sessions.info(sid)["session:frozen"]
    program, = processes(uid, "sleep")
    assert pathlib.Path(f"/proc/{program}/cgroup").read_text().strip().endswith(info["systemd:cgroup"])

    # A transport that registers thaws it before it is answered.
    fourth = procs.transport(sid, "198.51.100.4")
    assert cgroup(info, "cgroup.freeze").read_text() == "0\n"
    wait_for(lambda: not frozen(info), what="the session's cgroup to thaw")
    info = sessions.info(sid)
    assert (info["session:frozen"], info["disconnected:timepoint"], connects(info)) == (False, 0, slots(fourth))
    assert emitted(sessions, "signalSessionDisconnected") == [[sid, t.pid, t.addr] for t in (first, third, second)]


def test_time_limits_end_only_the_sessions_of_checked_users(daemon, new_user, procs, cgroups):
    sessions = daemon()
    svc = sessions.svc
    # name: (limit, the user's sessions checked, frozen when disconnected, transport killed)
    cases = {
        "gone": ("disconnect", True, False, True),
        "cold": ("disconnect", True, True, True),
        "kept": ("disconnect", False, False, True),
        "long": ("duration", True, False, False),
    }
    live, after = {}, cursor()
    for name, (limit, checked, freeze, _) in cases.items():
        user, uid, sid, info = sessions.new_session(new_user, f"e2e-conn-{name}")
        cgroups.append(info)
        svc.call(f"vexaSession{limit.capitalize()}Limit", "iu", sid, 2)
        svc.call("vexaSessionDisconnectedFreeze", "ib", sid, freeze)
        if checked:
            svc.call("vexaUserSessionsCheckTimeouts", "sb", user, True)
        assert sessions.info(sid)[f"{limit}:limit"] == 2
        live[name] = (user, uid, sid, info, procs.transport(sid, f"198.51.100.{len(live) + 1}"))

    for name, (*_, transport) in live.items():
        if cases[name][3]:
            transport.kill()
    for name, (_, _, sid, _, transport) in live.items():
        if cases[name][3]:
            sessions.signal("signalSessionDisconnected", sid, transport.pid, transport.addr)
    wait_for(lambda: frozen(live["cold"][3]), what="the cold session to freeze")

    for name, (limit, checked, _, dropped) in cases.items():
        _, uid, sid, info, transport = live[name]
        if not checked:
            continue
        sessions.signal("signalSessionShutdown", sid)
        stopped = logged_at(after, f"timeLimitSessionsWatcher: stopped, session id: {sid}, display: {info['display']}")
        began = logged_at(after, f"stoppedTransportWatcher: transport ended, session id: {sid}, pid: {transport.pid}, "
                                 f"remoteaddr: `{transport.addr}'" if dropped else
                          f"proxySessionConnected: session id: {sid}, transport pid: {transport.pid}, "
                          f"ipaddr: {transport.addr}")
        # Past the limit is more than 2 whole seconds: 3 s after the disconnect (or the registration) at the
        # earliest, as the journal dates the lines (0.1 s for its own delays), and within a look (1 s) after that.
        assert 2.9 <= stopped - began < 5, name
        wait_line(after, f"timeLimitSessionsWatcher: session id: {sid}, {limit} limit trigger: 2")
        wait_for(lambda: ended(uid, info["display"]), what=f"the {name} session's processes to end")
        if not dropped:  # ended with its transport still there: that one is told to go, and announced
            transport.wait_terminated()
            assert [sid, transport.pid, transport.addr] in emitted(sessions, "signalSessionDisconnected")

    # Not checked: the limit is passed every second, only said, and the session lives.
    user, uid, sid, info, _ = live["kept"]
    trigger, stop = (f"timeLimitSessionsWatcher: session id: {sid}, disconnect limit trigger: 2",
                     f"timeLimitSessionsWatcher: stopped, session id: {sid}, display: {info['display']}")
    lines = wait_for(lambda: ((m := [e["MESSAGE"] for e in journal(after)]).count(trigger) >= 2 or stop in m) and m,
                     what="the trigger twice")
    assert stop not in lines
    assert sessions.listed() == {(user, sid)} and processes(uid, "sleep")
    assert [sid] not in emitted(sessions, "signalSessionShutdown")


def test_a_seamless_session_is_stopped_once_after_its_limit(daemon, new_user, files, procs):
    files.write(PROGRAMS, [{"name": "E2E Deaf", "path": PYTHON, "args": ["-c", DEAF]}])
    sessions = daemon()
    svc = sessions.svc
    user, uid, sid, info = sessions.new_session(new_user, "e2e-conn-seamless", program="E2E Deaf")
    svc.call("vexaSessionSeamlessLimit", "iu", sid, 2)
    svc.call("vexaUserSessionsCheckTimeouts", "sb", user, True)
    info = sessions.info(sid)
    assert (info["seamless:mode"], info["seamless:limit"]) == (True, 2)
    program, = wait_for(lambda: processes(uid, "python3"), what="the published program")

    transport = procs.transport(sid, "198.51.100.1")
    after = cursor()
    transport.kill()
    sessions.signal("signalSessionDisconnected", sid, transport.pid, transport.addr)
    dropped = logged_at(after, f"stoppedTransportWatcher: transport ended, session id: {sid}, pid: {transport.pid}, "
                               f"remoteaddr: `{transport.addr}'")
    pattern = rf"seamlessTimeoutWatcher: stopped, session id: {sid}, display: {info['display']}, time pass: (\d+) sec"

    def stops():
        return [e for e in journal(after) if re.fullmatch(pattern, e["MESSAGE"])]

    first, = wait_for(stops, what="the seamless stop")
    stopped = int(first["__REALTIME_TIMESTAMP"]) / 1e6
    # more than 2 whole seconds, seen by a watcher that looks every 2.5 s
    assert int(re.fullmatch(pattern, first["MESSAGE"])[1]) > 2 and 2.9 <= stopped - dropped < 6.5
    # The program ignores the SIGTERM, so the session is still there when the watcher looks again (every 2.5 s):
    # it is not stopped a second time. Nothing announces that look, hence the wait.
    time.sleep(max(0.0, stopped + 2.7 - time.time()))
    assert len(stops()) == 1 and (user, sid) in sessions.listed() and not sessions.info(sid)["seamless:mode"]

    os.kill(program, signal.SIGKILL)
    sessions.signal("signalSessionShutdown", sid)
    wait_for(lambda: ended(uid, info["display"]), what="the session's processes to end")


def test_a_member_registers_only_itself_or_its_descendants_and_a_disconnect_ends_those(sessions, new_user,
                                                                                      make_user, procs):
    svc = sessions.svc
    user, uid, sid, info = sessions.new_session(new_user, "e2e-conn-owner")
    member, other = make_user("e2e-conn-member", groups=["vexa"]), make_user("e2e-conn-other")
    svc.call("vexaSessionPolicyConnect", "iu", sid, 3)
    stranger = procs.recorder(other)

    # The init process and a process of another user are refused, with who asked.
    refused = []
    for n, target in enumerate((1, stranger.pid)):
        after = cursor()
        caller = procs.transport(sid, f"198.51.100.{n + 1}", str(target), member)
        wait_line(after, f"proxySessionConnected: session id: {sid}, transport pid: {target}, refused: not the caller "
                         f"or its descendant, caller: {caller.bus_name}, caller pid: {caller.pid}")
        refused.append(caller)
    # Itself and a child of its own are taken; root may name any process.
    itself = procs.transport(sid, "198.51.100.3", "self", member)
    parent = procs.transport(sid, "198.51.100.4", "child", member)
    named = procs.recorder(other)
    svc.call("proxySessionConnected", "uus", sid, named.pid, "198.51.100.5")
    named.addr, named.registered = "198.51.100.5", named.pid
    fence(sessions)
    taken = (itself, parent, named)
    assert emitted(sessions, "signalSessionConnected") == [[sid, t.registered, t.addr] for t in taken]
    assert connects(sessions.info(sid)) == slots(*taken)

    # A disconnect ends what was registered (the child, not the transport that named it) and the session lives on.
    assert svc.value("vexaDisconnect", "u", sid)
    for transport in taken:
        transport.wait_terminated(transport.registered)
    assert parent.terminated() == [parent.registered]
    info = sessions.info(sid)
    assert (connects(info), info["remote:connected"]) == ([], False)
    assert (user, sid) in sessions.listed() and processes(uid, "sleep")
    assert not svc.value("vexaDisconnect", "u", sid)  # nothing left to end
    # a transport on its way out says so
    svc.call("vexaTransportDisplayShutdown", "u", info["display"])
    assert sessions.info(sid)["disconnected:timepoint"] >= int(time.time()) - 1
    # The slots were emptied at once: the watcher announces only a transport that died on its own, which it
    # would find after any slot still holding one of those.
    last = procs.transport(sid, "198.51.100.6")
    last.kill()
    sessions.signal("signalSessionDisconnected", sid, last.pid, last.addr)
    assert emitted(sessions, "signalSessionDisconnected") == [[sid, last.pid, last.addr]]

    # What was refused is never signalled, not even at the end of the session.
    assert svc.value("vexaSessionShutdown", "u", sid)
    sessions.signal("signalSessionShutdown", sid)
    wait_for(lambda: ended(uid, info["display"]), what="the session's processes to end")
    for bystander in (stranger, *refused):
        assert bystander.terminated() == [] and bystander.popen.poll() is None


def test_a_pid_taken_over_after_its_transport_died_is_never_signalled(sessions, new_user, procs):
    svc = sessions.svc
    _, uid, sid, info = sessions.new_session(new_user, "e2e-conn-reuse")
    svc.call("vexaSessionPolicyConnect", "iu", sid, 3)
    first, second = procs.transport(sid, "198.51.100.1"), procs.transport(sid, "198.51.100.2")
    svc.call("vexaSessionPolicyConnect", "iu", sid, 1)  # from now on one running transport turns the next away
    assert not svc.value("vexaConnectRdpTransport", "uu", sid, 0)
    heir = procs.start([PYTHON, "-c", HEIR, "/usr/bin/sleep", "600"], stdin=subprocess.PIPE)

    first.kill()
    sessions.signal("signalSessionDisconnected", sid, first.pid, first.addr)
    # The watcher has just been; before it comes again (750 ms) the second one dies and its pid is taken over.
    second.kill()
    heir.popen.stdin.write(f"{second.pid}\n".encode())
    heir.popen.stdin.close()
    assert heir.said("took") == [str(second.pid)]
    info = sessions.info(sid)
    assert connects(info) == slots(second), "the watcher came before the pid was taken over: nothing was tried"
    assert not info["remote:connected"]
    assert svc.value("vexaConnectRdpTransport", "uu", sid, 0)  # the dead one turns nobody away
    assert not svc.value("vexaDisconnect", "u", sid)  # and there is nothing to end
    sessions.signal("signalSessionDisconnected", sid, second.pid, second.addr)
    assert connects(sessions.info(sid)) == []

    assert svc.value("vexaSessionShutdown", "u", sid)
    sessions.signal("signalSessionShutdown", sid)
    wait_for(lambda: ended(uid, info["display"]), what="the session's processes to end")
    assert "ended" not in [line[0] for line in heir.lines()], heir.lines()
