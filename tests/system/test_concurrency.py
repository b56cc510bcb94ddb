"""Session starts at the same time: queries while starts wait, users side by side, racing requests, a wrong
password, the throttle, a stop during starts. Replies are compared by their order, never by milliseconds."""

import pathlib
import re

import dbus

from conftest import PASSWORD, PROGRAM, WRONG, Calls, cursor, ended, processes, pump, wait_for, wait_line, x_servers

# A PAM service whose authentication takes two seconds before it even asks for the password: a start held up.
SLOW_PAM = "vexa-e2e-slow"
SLOW_STACK = "auth optional pam_exec.so quiet /usr/bin/sleep 2\n@include vexa\n"


def test_racing_requests_of_one_user_make_one_session_beside_other_users(daemon, new_user, bus):
    keeper = daemon()
    user, uid = new_user("e2e-conc-race")
    others = [new_user(f"e2e-conc-{i}") for i in range(3)]
    # Two good requests of one user among those of three others: one session each, on displays of their own.
    calls = Calls(bus)
    calls.request("a", username=user, password=PASSWORD, **PROGRAM)
    calls.request("b", username=user, password=PASSWORD, **PROGRAM)
    for name, _ in others:
        calls.request(name, username=name, password=PASSWORD, **PROGRAM)
    first, second, *sids = calls.wait("a", "b", *[name for name, _ in others])
    assert first == second > 0 and all(s > 0 for s in sids) and len({first, *sids}) == 4, (first, second, sids)
    assert keeper.listed() == {(user, first), *((name, sid) for (name, _), sid in zip(others, sids))}
    displays = [keeper.info(sid)["display"] for sid in (first, *sids)]
    assert len(set(displays)) == 4 and all(len(x_servers(d)) == 1 for d in displays)
    for sid in (first, *sids):
        assert keeper.svc.value("vexaSessionShutdown", "u", sid)
    for (_, owner), display in zip([(user, uid), *others], displays):
        wait_for(lambda: ended(owner, display), what="the sessions to end")
    wait_for(lambda: not keeper.listed(), what="no session listed")

    # A good one racing a wrong one: whichever registers first, there is one session and one X server.
    calls.request("wrong", username=user, password=WRONG, **PROGRAM)
    calls.request("good", username=user, password=PASSWORD, **PROGRAM)
    wrong, good = calls.wait("wrong", "good")
    assert (wrong, keeper.listed()) == (-4, {(user, good)})
    assert len(x_servers(keeper.info(good)["display"])) == 1
    assert len(wait_for(lambda: processes(uid, "sleep"), what="the session program")) == 1


def test_a_wrong_password_delays_nobody_else(daemon, new_user, bus):
    keeper = daemon()  # the installed PAM service: pam_unix, about 2 s for a refused password
    good, _ = new_user("e2e-conc-good")
    wrong = [new_user(f"e2e-conc-bad{i}")[0] for i in range(3)]
    calls = Calls(bus)
    for name in wrong:
        calls.request(name, username=name, password=WRONG, **PROGRAM)
    calls.request(good, username=good, password=PASSWORD, **PROGRAM)
    assert calls.wait(*wrong, good)[:3] == [-4, -4, -4]
    assert calls.order[0] == good, calls.order
    assert keeper.listed() == {(good, calls.replies[good])}


def test_repeated_failures_are_throttled_per_user_and_caller(daemon, new_user, bus, files):
    files.write("/etc/pam.d/vexa-e2e-fast", "auth required pam_unix.so nodelay\naccount required pam_unix.so\n")
    svc = daemon(**{"auth:throttle:failures": 2, "auth:throttle:delay": 2}).svc
    (user, _), (other, _) = new_user("e2e-thr-user"), new_user("e2e-thr-other")
    second = dbus.bus.BusConnection(dbus.bus.BUS_SYSTEM)
    me, you = bus.get_unique_name(), second.get_unique_name()
    mine, yours = Calls(bus), Calls(second)

    def check(calls, name, password):
        calls.call(name + password, "vexaCheckAuthUser", "sss", name, password, "vexa-e2e-fast")
        return lambda: bool(calls.wait(name + password)[0])

    def delayed(after):
        """(user, caller) of the checks the daemon delayed after a cursor"""
        found = [re.fullmatch(r"vexaCheckAuthUser: throttled, user: (\S+), caller: (\S+), failures: 2, delayed: \d+ ms",
                              e["MESSAGE"]) for e in svc.barrier(after)]
        return {m.groups() for m in found if m}

    after = cursor()
    assert not check(mine, user, WRONG)() and not check(mine, user, "2" + WRONG)()
    wait_line(after, f"authThrottle: engaged, user: {user} (2 failures), caller: {me} (2 failures), further logins "
                     "delayed by 2 s, doubling up to 30 s")
    assert not delayed(after)
    # The throttled user asked for by another caller, and the throttled caller asking for another user, at once:
    # both wait, both succeed, and each success releases its user and caller.
    after = cursor()
    answers = [check(yours, user, PASSWORD), check(mine, other, PASSWORD)]
    assert [answer() for answer in answers] == [True, True]
    assert delayed(after) == {(user, you), (other, me)}
    for name, caller in [(user, you), (other, me)]:
        wait_line(after, f"authThrottle: released, user: {name}, caller: {caller}")
    after = cursor()
    assert not check(mine, user, "3" + WRONG)() and not delayed(after)
    second.close()


def test_queries_are_answered_while_starts_wait_and_a_stop_answers_everyone_and_leaves_nothing(daemon, new_user,
                                                                                             bus, files):
    files.write(f"/etc/pam.d/{SLOW_PAM}", SLOW_STACK)
    keeper = daemon(**{"pam:service": SLOW_PAM})
    users = [new_user(f"e2e-conc-stop{i}") for i in range(3)]
    calls = Calls(bus)
    for name, _ in users:
        calls.request(name, username=name, password=PASSWORD, **PROGRAM)
    for name, _ in users:
        wait_line(keeper.svc.cursor, f"startSession: depth: 24, width: 1280, height: 1024, username: `{name}', "
                                     "session: `DefaultSession'")
    for _ in range(5):  # the sessions are listed from their registration on
        assert keeper.svc.value("vexaStatus") and {u for u, _ in keeper.listed()} == {name for name, _ in users}
    pump()
    assert not calls.replies  # every query was answered while the starts still waited
    keeper.svc.stop()
    assert calls.wait(*[name for name, _ in users], timeout=10) == [-4, -4, -4]
    for _, uid in users:
        wait_for(lambda: not processes(uid), what="the users' processes to end")
    assert not processes(0, "vexa_session_manager") and not any(x_servers(d) for d in range(101, 105))
    assert not list(pathlib.Path("/run/vexa").glob("xauth_*"))
