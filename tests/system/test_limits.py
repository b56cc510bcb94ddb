"""Resource limits of sessions and users: set over the bus or by the limits file, applied by systemd to the
session's scope and the user's slice, shown in the session report, and handed to systemctl as plain arguments."""

import pathlib
import subprocess

import pytest

from conftest import LIMITS, PASSWORD, PROGRAM, assert_level, cursor, run, wait_for, wait_line

def show(unit):
    out = run(["systemctl", "show", unit, *[f"--property={row[3]}" for row in SESSION_LIMITS]]).stdout
    shown = dict(line.split("=", 1) for line in out.splitlines())
    # systemd lists addresses in an order of its own
    return {k: " ".join(sorted(v.split())) if k.startswith("IPAddress") else v for k, v in shown.items()}


def scope(info):
    return pathlib.PurePath(info["systemd:cgroup"]).name


def limits(info, level):
    """The report's limits of one level ("user" or "session"), without the level's name."""
    found = [entry for entry in info["resource:limits"] if entry["scope"] == level]
    return {k: v for k, v in found[0].items() if k != "scope"} if found else {}


def start(sessions, new_user, name):
    user, uid, sid, info = sessions.new_session(new_user, name)
    sessions.signal("signalSessionCreated", sid)  # the limits file has been applied by then
    return user, uid, sid, info


@pytest.fixture
def group():
    name = "e2e-lim-group"
    run(["groupadd", name])
    yield name
    run(["groupdel", name], check=False)


# method, signature, value (reset by 0 or ""), the scope's property and the report's key, each as shown
SESSION_LIMITS = [
    ("vexaSessionLimitCpuQuota", "iu", 40, "CPUQuotaPerSecUSec", "400ms", "cpu:quota", "40%"),
    ("vexaSessionLimitCpuWeight", "iu", 10000, "CPUWeight", "10000", "cpu:weight", "10000"),
    ("vexaSessionLimitMemoryHigh", "is", "150M", "MemoryHigh", "157286400", "memory:high", "150M"),
    ("vexaSessionLimitMemoryMax", "is", "200M", "MemoryMax", "209715200", "memory:max", "200M"),
    ("vexaSessionLimitTasksMax", "iu", 50, "TasksMax", "50", "tasks:max", "50"),
    ("vexaSessionNetworkDeny", "is", "10.0.0.0/8 192.168.1.1", "IPAddressDeny", "10.0.0.0/8 192.168.1.1/32",
     "network:deny", "10.0.0.0/8 192.168.1.1"),
    ("vexaSessionNetworkAllow", "is", "10.1.2.0/24", "IPAddressAllow", "10.1.2.0/24", "network:allow", "10.1.2.0/24"),
]


def test_session_limits_reach_the_scope_and_zero_or_empty_resets_them(sessions, new_user):
    svc = sessions.svc
    _, _, sid, info = start(sessions, new_user, "e2e-lim-sess")
    unit, after = scope(info), cursor()
    assert unit == f"session-{info['systemd:sid']}.scope"
    before = show(unit)
    svc.call("vexaSessionLimitCpuWeight", "iu", sid, 10001)  # above the range: refused
    assert_level(wait_line(after, "vexaSessionLimitCpuWeight: incorrect value: 10001")[0], "warning")
    for method, signature, value, *_ in SESSION_LIMITS:
        svc.call(method, signature, sid, value)  # answered once systemctl has run
    assert show(unit) == {prop: shown for *_, prop, shown, _, _ in SESSION_LIMITS}
    assert limits(sessions.info(sid), "session") == {key: shown for *_, key, shown in SESSION_LIMITS}
    wait_line(after, f"systemctlSetProperty: system result: 0, cmd: `/usr/bin/systemctl set-property {unit} "
                     "CPUQuota=\"40%\"'")

    for method, signature, value, *_ in SESSION_LIMITS:
        svc.call(method, signature, sid, type(value)())
    assert show(unit) == before
    assert limits(sessions.info(sid), "session") == {}
    wait_line(after, f"systemctlResetProperty: system result: 0, cmd: `/usr/bin/systemctl set-property {unit} "
                     "TasksMax='")


def test_the_limits_file_and_the_user_setters_reach_the_users_slice(daemon, new_user, files, group):
    user, uid = new_user("e2e-lim-user")
    run(["gpasswd", "--add", user, group])
    files.write(LIMITS, {"default": {}, "groups": [{"name": group, "cpu:quota": 30, "tasks:max": 70}],
                         "users": [{"name": user, "tasks:max": 80}, {"name": user, "tasks:max": 90}]})
    sessions = daemon()
    svc = sessions.svc
    sid = sessions.request(username=user, password=PASSWORD, **PROGRAM)
    sessions.signal("signalSessionCreated", sid)
    slice_ = f"user-{uid}.slice"
    # the group's values, then the user's first entry, which wins where both name a control
    assert (show(slice_)["CPUQuotaPerSecUSec"], show(slice_)["TasksMax"]) == ("300ms", "80")
    assert limits(sessions.info(sid), "user") == {"cpu:quota": "30%", "tasks:max": "80"}

    # A session-level value is replaced by a user-level one for the same control.
    svc.call("vexaSessionLimitMemoryMax", "is", sid, "100M")
    svc.call("vexaUserLimitMemoryMax", "ss", user, "300M")
    svc.call("vexaUserLimitCpuWeight", "su", user, 20000)  # refused
    assert show(slice_)["MemoryMax"] == "314572800"
    info = sessions.info(sid)
    assert limits(info, "user") == {"cpu:quota": "30%", "memory:max": "300M", "tasks:max": "80"}
    assert limits(info, "session") == {}
    svc.call("vexaUserLimitTasksMax", "su", user, 0)
    assert show(slice_)["TasksMax"] != "80" and "tasks:max" not in limits(sessions.info(sid), "user")


def test_a_value_is_one_argument_and_the_all_sessions_setter_sets_the_default(sessions, new_user, tmp_path):
    svc = sessions.svc
    _, _, sid, info = start(sessions, new_user, "e2e-lim-args")
    unit, after = scope(info), cursor()
    marker = tmp_path / "ran"
    hostile = f'50%"; touch {marker}; "'
    svc.call("vexaSessionLimitMemoryHigh", "is", sid, hostile)
    # systemctl got the text as one value and refused it; no shell ever saw it
    line = wait_line(after, f"systemctlSetProperty: system result: 256, cmd: `/usr/bin/systemctl set-property {unit} "
                            f'MemoryHigh="50%\\"; touch {marker}; \\""\'')[0]
    assert_level(line, "error")
    assert not marker.exists()

    # Every session and the default; the call is answered before the runs, which follow in order.
    svc.call("vexaSessionLimitTasksMax", "iu", -1, 60)
    svc.call("vexaSessionLimitTasksMax", "iu", -1, 61)
    assert svc.value("vexaTasksMaxDefault") == 61
    wait_for(lambda: show(unit)["TasksMax"] == "61", what="the last value on the scope")
    assert limits(sessions.info(sid), "session")["tasks:max"] == "61"
    assert subprocess.run(["systemctl", "is-active", unit], capture_output=True).returncode == 0
