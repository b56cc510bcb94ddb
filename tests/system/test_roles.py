"""Who may call what: the bus policy and the daemon's own check per role, polkit for administrators, NT hashes
kept from monitors and administrators, the request rate limits (the login helper's account: test_session.py)."""

import json
import pathlib
import pwd
import re

import pytest

import journal_secrets
from conftest import LEVEL, PASSWORD, PROGRAM, WRONG, as_user, cursor, journal, run
from test_bus_interface import zero_calls

PY = "/usr/bin/python3"
# Run as a test user: makes the calls of a JSON list [[at seconds, method, signature, args], ...] from one
# connection, each sent at its time without waiting for the earlier ones, and prints the outcomes in order:
# {"ok": [values]} or {"error": name}.
CALLER = """
import json, sys, time, dbus, dbus.lowlevel, dbus.mainloop.glib
from gi.repository import GLib
bus = dbus.SystemBus(mainloop=dbus.mainloop.glib.DBusGMainLoop())
calls, out, loop, begin = json.loads(sys.argv[1]), {}, GLib.MainLoop(), time.monotonic()
def done(i, outcome):
    out[i] = outcome
    if len(out) == len(calls): loop.quit()
def send(i):
    at, method, sig, args = calls[i]
    msg = dbus.lowlevel.MethodCallMessage("ru.kelvo.vexa", "/ru/kelvo/vexa", "ru.kelvo.vexa", method)
    if sig: msg.append(*args, signature=sig)
    def reply(m):
        if isinstance(m, dbus.lowlevel.ErrorMessage): done(i, {"error": m.get_error_name()})
        else: done(i, {"ok": m.get_args_list()})  # the D-Bus types are those of JSON
    bus.send_message_with_reply(msg, reply, 60)
    return False
for i, call in enumerate(calls):
    GLib.timeout_add(int(call[0] * 1000), send, i)
loop.run()
print(json.dumps([out[i] for i in range(len(calls))]))
"""
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
ROLES = {"monitor": "vexa-monitor", "transport": "vexa", "admin": "vexa-admin"}
# One call of each group of the role table, with arguments that change nothing that matters, and the roles that
# may make it (root may make every one).
ROWS = [
    ("vexaStatus", "", [], {"monitor", "transport", "admin"}),
    ("vexaPolicyConnectDefault", "", [], {"monitor", "transport", "admin"}),
    ("vexaSessions", "", [], {"monitor", "transport", "admin"}),
    ("vexaProgramList", "", [], {"monitor", "transport", "admin"}),
    ("vexaTransportDisplayInactivity", "u", [0], {"transport", "admin"}),
    ("vexaSessionRequest", "s", ["{}"], {"transport", "admin"}),
    ("vexaCheckAuthCertificate", "s", [""], {"transport", "admin"}),
    ("vexaDisplayResize", "uqq", [0, 800, 600], {"transport", "admin"}),
    ("vexaRdpSecurityPolicy", "ubbb", [0xFFFF, True, True, False], {"transport"}),
    ("vexaLoginHelperStart", "si", ["e2e-nobody", 0], {"transport"}),
    ("vexaLoginHelperStarted", "i", [0], {"transport"}),
    ("vexaSessionShutdown", "u", [0xFFFF], {"admin"}),
    ("vexaSessionPolicyConnect", "iu", [0x7FFF, 2], {"admin"}),
    ("vexaSessionLimitTasksMax", "iu", [0x7FFF, 0], {"admin"}),
    ("vexaSendNotify", "ussy", [0xFFFF, "", "", 0], {"admin"}),
    ("busSetDebugLevel", "s", [LEVEL], {"admin"}),
    ("busServiceShutdown", "", [], set()),
]


def calls_as(user, calls):
    """The outcomes of `calls` ([at, method, signature, args]) made by `user` from one connection."""
    proc = run(as_user(user, PY, "-c", CALLER, json.dumps(calls)))
    return json.loads(proc.stdout)


def role_users(make_user):
    return {role: make_user(f"e2e-role-{role}", groups=[group]) for role, group in ROLES.items()}


@pytest.fixture
def open_bus(make_user):
    """A user in a group that the bus lets call every member, so that only the daemon's own check stands."""
    run(["groupadd", "e2e-open"])
    policy = pathlib.Path("/etc/dbus-1/system.d/e2e-open.conf")
    policy.write_text('<busconfig><policy group="e2e-open"><allow send_destination="ru.kelvo.vexa"/>'
                      '<allow receive_sender="ru.kelvo.vexa"/></policy></busconfig>')
    user = make_user("e2e-open-user", groups=["e2e-open"])
    run(["systemctl", "reload", "dbus.service"])
    yield user
    policy.unlink()
    run(["systemctl", "reload", "dbus.service"])
    run(["userdel", "--remove", user], check=False)
    run(["groupdel", "e2e-open"], check=False)


@pytest.fixture
def polkit_rule():
    """Writes a local polkit rule that sorts before the package's; removed afterwards."""
    path = pathlib.Path("/etc/polkit-1/rules.d/10-e2e-vexa.rules")
    yield path.write_text
    path.unlink(missing_ok=True)


def test_each_role_may_call_the_groups_of_its_role_and_only_transports_see_the_nt_hash(sessions, new_user,
                                                                                      make_user):
    user, _ = new_user("e2e-role-ntlm")
    sid = sessions.request(username=user, password=PASSWORD, **PROGRAM)
    assert sessions.info(sid)["ntlm"]  # root sees it
    reports = [[0, "vexaSessionInfoJson", "u", [sid]], [0, "vexaUserInfoJson", "s", [user]]]
    for role, caller in role_users(make_user).items():
        *outcomes, info, listing = calls_as(caller, [[0, method, sig, args] for method, sig, args, _ in ROWS] + reports)
        for (method, _, _, allowed), outcome in zip(ROWS, outcomes):
            assert "ok" in outcome if role in allowed else outcome == {"error": DENIED}, (role, method, outcome)
        reports_seen = [json.loads(info["ok"][0]), *json.loads(listing["ok"][0])]
        assert [bool(r["ntlm"]) for r in reports_seen] == [role == "transport"] * 2, role
    assert sessions.svc.value("vexaStatus")  # nobody but root may stop the service


def test_the_daemon_refuses_every_method_to_a_caller_without_a_role(running, open_bus):
    """With a bus policy that lets the caller through, the daemon's own check answers each method's failure
    value and logs the caller; busServiceShutdown among them, so the service must still run afterwards."""
    calls = [[0, *call] for call in zero_calls()]
    after = cursor()
    outcomes = calls_as(open_bus, calls)
    assert all("ok" in outcome for outcome in outcomes), [c[1] for c, o in zip(calls, outcomes) if "ok" not in o]
    uid = pwd.getpwnam(open_bus).pw_uid
    refused = {e["MESSAGE"].split(":")[0] for e in running.barrier(after)
               if f": access denied, caller uid: {uid}, pid: " in e["MESSAGE"]}
    assert refused == {c[1] for c in calls}
    assert running.value("vexaStatus")


def test_polkit_grants_administrators_their_actions_and_a_local_rule_takes_one_away(running, make_user,
                                                                                      polkit_rule):
    admin = make_user("e2e-role-admin", groups=["vexa-admin"])
    polkit_rule('polkit.addRule(function(action, subject) {\n'
                '  if (action.id == "ru.kelvo.vexa.set-policy" && subject.isInGroup("vexa-admin"))\n'
                '    return polkit.Result.NO;\n});\n')
    run(["systemctl", "restart", "polkit.service"])
    after = cursor()
    calls_as(admin, [[0, "vexaSessionPolicyConnect", "iu", [-1, 1]], [0, "vexaSessionsLimit", "u", [77]],
                     [0, "vexaSessionPolicyConnect", "iu", [-1, 3]]])
    assert running.value("vexaPolicyConnectDefault") == 2  # neither change went through
    lines = [e["MESSAGE"] for e in running.barrier(after)]
    uid = pwd.getpwnam(admin).pw_uid
    denied = f"vexaSessionPolicyConnect: access denied by polkit, action: ru.kelvo.vexa.set-policy, caller uid: {uid}"
    assert sum(line.startswith(denied) for line in lines) == 2, lines
    assert not [line for line in lines if "vexaSessionsLimit: access denied" in line]


def test_request_rate_limits_engage_and_release(daemon, make_user, new_user):
    daemon(**{"requests:caller:inflight": 1, "requests:caller:minute": 0, "auth:throttle:failures": 1,
              "auth:throttle:delay": 3})
    transport = make_user("e2e-role-rate", groups=["vexa"])
    user, _ = new_user("e2e-role-target")
    wrong = json.dumps({"username": user, "password": "not-the-password", **PROGRAM})
    after = cursor()
    # The second wrong password waits for the throttle: while it is under way the third call is refused, and
    # the fourth, after it, is let through again.
    outcomes = calls_as(transport, [[0, "vexaSessionRequest", "s", [wrong]], [3, "vexaSessionRequest", "s", [wrong]],
                                    [4, "vexaSessionRequest", "s", ["{}"]], [12, "vexaSessionRequest", "s", ["{}"]]])
    assert [o["ok"][0] < 0 for o in outcomes] == [True] * 4
    limited = [e["MESSAGE"] for e in journal(after) if "vexaSessionRequest: rate limited" in e["MESSAGE"]]
    assert len(limited) == 1 and "in flight: 1 (limit 1)" in limited[0], limited


def test_no_secret_reaches_the_journal_at_trace_level(daemon, new_user):
    """One session's secrets at trace level; also proves that the tier-wide scan (run-container --trace) looks for
    the NT hash the daemon computes and the cookie it writes."""
    keeper = daemon(**{"debug:level": "trace"})
    user, _ = new_user("e2e-role-secret")
    after = cursor()
    sid = keeper.request(username=user, password=PASSWORD, **PROGRAM)
    assert sid > 0
    info = keeper.info(sid)
    ledger = journal_secrets.Ledger(WRONG)
    ledger.account(user, PASSWORD)
    ledger.cookies.update(journal_secrets.xauth_cookies(pathlib.Path(info["xauthfile"]).read_bytes()))
    # the password checks (the PAM service named, or the configured one) see it too, and a wrong one
    assert keeper.svc.value("vexaCheckAuthUser", "sss", user, PASSWORD, "")
    assert keeper.svc.value("vexaTestConnect", "sss", user, "", PASSWORD)
    assert not keeper.svc.value("vexaTestConnect", "sss", user, "", WRONG)
    keeper.svc.call("vexaSessionShutdown", "u", sid)
    secrets = ledger.secrets()
    texts = {text for _, text in secrets}
    assert len(ledger.cookies) == 1 and re.search(r"[0-9a-f]{32}", info["ntlm"].lower()).group() in texts
    planted = [{"MESSAGE": f"env: XCB_AUTH_COOKIE={cookie.upper()}"} for cookie in ledger.cookies]
    assert [kind for kind, *_ in journal_secrets.leaks(secrets, planted + [{"MESSAGE": f"pw={PASSWORD}"}])] == [
        "cookie", "password"]
    entries = journal(after, idents=("vexa_service", "vexa_session_manager"))
    assert len(entries) > 20 and journal_secrets.leaks(secrets, entries) == []
