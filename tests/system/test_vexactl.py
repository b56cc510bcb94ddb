"""vexactl against the real daemon: what each subcommand did, seen through the bus, the session document,
systemd and the session's display; its JSON parsed; its refusals and exit statuses."""

import json
import os
import pathlib
import subprocess

from conftest import PASSWORD, PROGRAM, as_user, cursor, journal, run, wait_for

VEXACTL = "/usr/bin/vexactl"
OUT = pathlib.Path("/e2e/out")
# exit statuses
FAILED, UNKNOWN, DENIED, NOT_RUNNING = 1, 3, 4, 5


def ctl(*args, user=None):
    argv = [VEXACTL, *map(str, args)]
    return subprocess.run(as_user(user, *argv) if user else argv, capture_output=True, text=True, timeout=120)


def ok(*args, user=None):
    proc = ctl(*args, user=user)
    assert proc.returncode == 0, f"vexactl {args}: {proc.returncode} {proc.stderr}"
    return proc.stdout


def refused(code, words, *args, user=None):
    proc = ctl(*args, user=user)
    assert (proc.returncode, proc.stdout) == (code, ""), f"vexactl {args}: {proc.returncode} {proc.stderr}"
    assert words in proc.stderr
    return proc.stderr


def test_sessions_are_listed_as_a_table_and_as_json(sessions, new_user):
    made = [sessions.new_session(new_user, f"e2e-ctl{i}")[:3] for i in range(3)]
    # The table the operator reads, kept for the record.
    table = ok("sessions")
    (OUT / "vexactl-sessions.txt").write_text(table)
    header, *rows = table.splitlines()
    assert header.split() == ["ID", "USER", "DISPLAY", "STATE", "TRANSPORTS", "SINCE", "IDLE"]
    listed = sorted((int(words[0]), words[1], words[2], words[3], words[4]) for words in map(str.split, rows))
    expected = sorted((sid, user, f":{sessions.info(sid)['display']}", "disconnected", "0") for user, _, sid in made)
    assert listed == expected

    parsed = json.loads(ok("sessions", "--json"))
    assert {(s["user"], s["id"]) for s in parsed} == sessions.listed()
    for item in parsed:
        info = sessions.info(item["id"])
        assert (item["display"], item["since"], item["state"], item["transports"]) == (
            info["display"], info["started:timepoint"], "disconnected", 0)
        assert item["idle"] >= 0

    sid = made[0][2]
    assert json.loads(ok("show", sid, "--json")) == sessions.info(sid)
    lines = {line.split(None, 1)[0]: line.split(None, 1)[1:] for line in ok("show", sid).splitlines()}
    assert lines["username"] == [made[0][0]] and lines["display"] == [str(sessions.info(sid)["display"])]
    for args in (["show", 999999], ["shutdown", 999999], ["disconnect", 999999], ["notify", 999999, "x"],
                 ["policy", 999999, "printer", "off"], ["limit", 999999, "tasks-max", "50"],
                 ["shutdown", "--user", "e2e-nobody"], ["limit", "--user", "e2e-nobody", "tasks-max", "50"]):
        refused(UNKNOWN, "no session", *args)


def test_policies_and_limits_reach_the_session_and_the_defaults(sessions, new_user):
    svc = sessions.svc
    user, uid, sid, _ = sessions.new_session(new_user, "e2e-ctlpol")
    before = {"printer": svc.value("vexaPolicyRedirectPrinterDefault")}
    for args, key, value in [
        (["printer", "off"], "redirect:printer", False),
        # the interface's names: "server" is the client-to-server flag
        (["clipboard", "to-server"], "redirect:clipboard:server", True),
        (["clipboard", "to-server"], "redirect:clipboard:client", False),
        (["connect", "multi-allow"], "policy:connect", 3),
        (["keepalive", "30", "4"], "rdp:keepalive:interval", 30),
        (["keepalive", "30", "4"], "rdp:keepalive:failures", 4),
        (["freeze", "on"], "disconnected:freeze", True),
        (["duration", "7200"], "duration:limit", 7200),
        (["clipboard-limit", "65536"], "redirect:clipboard:limit", 65536),
    ]:
        ok("policy", sid, *args)
        assert sessions.info(sid)[key] == value, args
    # One session only: the default stays.
    assert svc.value("vexaPolicyRedirectPrinterDefault") == before["printer"]

    ok("policy", "all", "audio", "off")
    ok("policy", "all", "disconnect", "900")
    assert not svc.value("vexaPolicyRedirectAudioDefault") and not sessions.info(sid)["redirect:audio"]
    defaults = json.loads(ok("policy", "--json"))
    assert (defaults["audio"], defaults["disconnect"], defaults["connect"]) == (
        False, 900, {1: "next-deny", 2: "prev-replace", 3: "multi-allow"}[int(svc.value("vexaPolicyConnectDefault"))])
    for args in (["printer", "maybe"], ["connect", "sometimes"], ["keepalive", "30"], ["colour", "on"]):
        refused(2, "", "policy", sid, *args)

    ok("limit", sid, "tasks-max", "50")
    scope = f"session-{sessions.info(sid)['systemd:sid']}.scope"
    assert run(["systemctl", "show", "-p", "TasksMax", "--value", scope]).stdout.strip() == "50"
    ok("limit", "--user", user, "memory-max", "300M")
    assert run(["systemctl", "show", "-p", "MemoryMax", "--value", f"user-{uid}.slice"]).stdout.strip() == "314572800"
    assert json.loads(ok("limit", "--json"))["tasks-max"] == svc.value("vexaTasksMaxDefault")

    # The sessions limit: one more session than there are is refused (-6).
    ok("limit", "sessions", 1)
    other, _ = new_user("e2e-ctlpol2")
    assert sessions.request(username=other, password=PASSWORD, **PROGRAM) == -6
    ok("limit", "sessions", 0)


def test_disconnect_notify_and_shutdown_act_on_the_session(sessions, new_user, procs):
    user, _, sid, info = sessions.new_session(new_user, "e2e-ctlend")
    transport = procs.transport(sid, "192.0.2.7")
    wait_for(lambda: json.loads(ok("sessions", "--json"))[0]["state"] == "connected", what="a connected session")
    assert json.loads(ok("sessions", "--json"))[0]["transports"] == 1
    ok("disconnect", sid)
    transport.wait_terminated()
    assert (sessions.info(sid)["remote:connects"], json.loads(ok("sessions", "--json"))[0]["state"]) == (
        [], "disconnected")
    refused(FAILED, "no transport", "disconnect", sid)

    ok("notify", sid, "Please save your work.", "--title", "Maintenance at 18:00")
    env = {**os.environ, "XAUTHORITY": info["xauthfile"]}
    wait_for(lambda: '"Maintenance at 18:00"' in run(["xwininfo", "-root", "-tree", "-display",
                                                       f":{info['display']}"], env=env).stdout,
             what="the message's window")

    ok("shutdown", sid)
    sessions.signal("signalSessionShutdown", sid)
    wait_for(lambda: sid not in {s for _, s in sessions.listed()}, what="the session to go")
    _, _, other, _ = sessions.new_session(lambda name: (user, info["uid"]), "unused")
    ok("shutdown", "--user", user)
    sessions.signal("signalSessionShutdown", other)


def test_status_programs_and_log_level_answer_from_the_daemon(sessions):
    svc = sessions.svc
    status = json.loads(ok("status", "--json"))
    assert (status["api"], status["version"], status["sessions"]) == (
        svc.value("vexaApiVersion"), svc.value("vexaTest"), svc.value("zabbixSessionsTotal"))
    assert "interface: 20240620" in ok("status")
    assert json.loads(ok("programs", "--json")) == [str(p) for p in svc.value("vexaProgramList")]

    ok("log-level", "info")
    mark = cursor()
    svc.value("vexaStatus")  # logs at debug level
    ok("log-level", "debug")
    svc.value("vexaStatus")
    said = [e for e in journal(mark) if e["MESSAGE"] == "vexaStatus"]
    assert len(said) == 1
    refused(2, "unknown level", "log-level", "loud")


def test_roles_and_a_stopped_daemon_are_told_apart(sessions, make_user):
    monitor = make_user("e2e-ctlmon", groups=["vexa-monitor"])
    nobody = make_user("e2e-ctlnone")
    admin = make_user("e2e-ctladm", groups=["vexa-admin"])
    assert json.loads(ok("sessions", "--json", user=monitor)) == []
    text = refused(DENIED, "access denied", "shutdown", "5", user=monitor)
    assert "vexa-admin" in text
    refused(DENIED, "access denied", "log-level", "debug", user=monitor)
    refused(DENIED, "access denied", "status", user=nobody)
    # An administrator passes the role check; the daemon's answer (polkit grants the group) is its own.
    assert json.loads(ok("status", "--json", user=admin))["alive"] is True

    sessions.svc.stop()
    refused(NOT_RUNNING, "not running", "status")
    refused(NOT_RUNNING, "not running", "sessions", user=monitor)
