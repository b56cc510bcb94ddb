"""Child processes started as a user through the probe tool (vexa_probe process ...): identity and groups,
the per-user output logs, the environment, the log lines of the child's steps, standard output capture."""

import json
import os
import pathlib
import pwd
import shutil
import stat
import tempfile

import pytest

from conftest import PROBE, cursor, run

GROUPS = ("e2e-proc-a", "e2e-proc-b")
OUT = pathlib.Path("/e2e/out")


@pytest.fixture(scope="module")
def groups():
    for group in GROUPS:
        run(["groupadd", group])
    yield GROUPS
    for group in GROUPS:
        run(["groupdel", group], check=False)


@pytest.fixture
def user_tmp():
    """A directory under /tmp that test users may write into; also removes the /tmp output logs."""
    made = [pathlib.Path(tempfile.mkdtemp(prefix="vexa-proc-"))]
    made[0].chmod(0o1777)
    yield made
    for path in made:
        shutil.rmtree(path, ignore_errors=True)


def probe_run(user, logfile, *argv, env=(), environ=None):
    """(pid, exit code) of `vexa_probe process run`; `env` is the environment list, `environ` the
    probe's own environment."""
    options = [arg for entry in env for arg in ("-e", entry)]
    proc = run([str(PROBE), "process", "run", *options, user, logfile, *argv], env=environ)
    pid, status = map(int, proc.stdout.split())
    return pid, os.waitstatus_to_exitcode(status)


def probe_messages(after):
    """The probe's own journal lines after a cursor, with their priority."""
    run(["journalctl", "--sync"])
    out = run(["journalctl", "-q", "-o", "json", f"--after-cursor={after}"]).stdout
    return [(e["MESSAGE"], e["PRIORITY"]) for e in map(json.loads, out.splitlines())
            if e.get("SYSLOG_IDENTIFIER") == "vexa_probe"]


def owner_and_mode(path):
    st = os.lstat(path)
    return st.st_uid, stat.S_IMODE(st.st_mode)


def test_program_runs_as_the_user_with_its_groups_and_logs_into_its_home(make_user, groups):
    name = make_user("e2e-proc-ids", groups=groups)
    pw = pwd.getpwnam(name)
    expected_groups = {str(g) for g in os.getgrouplist(name, pw.pw_gid)}
    assert len(expected_groups) == 3

    _, code = probe_run(name, "-", "/bin/sh", "-c",
                        "id -u; id -g; id -G; pwd; grep -E '^(Uid|Gid|Groups):' /proc/self/status")
    assert code == 0

    log = pathlib.Path(pw.pw_dir, ".vexa", "sh.log")
    uid, gid, groups_line, cwd, *status = log.read_text().splitlines()
    assert (uid, gid, cwd) == (str(pw.pw_uid), str(pw.pw_gid), pw.pw_dir)
    assert set(groups_line.split()) == expected_groups
    # real, effective, saved and file-system ids: nothing of root is left
    ids = {line.split(":")[0]: line.split()[1:] for line in status}
    assert ids["Uid"] == [str(pw.pw_uid)] * 4 and ids["Gid"] == [str(pw.pw_gid)] * 4
    assert set(ids["Groups"]) == expected_groups
    # made by the user, not by root
    uid_dir, mode_dir = owner_and_mode(log.parent)
    assert uid_dir == pw.pw_uid and mode_dir & 0o077 == 0, oct(mode_dir)
    assert owner_and_mode(log) == (pw.pw_uid, 0o640)


def test_user_without_home_logs_into_a_private_tmp_directory(make_user, user_tmp):
    name = make_user("e2e-proc-nohome", home=False)
    pw = pwd.getpwnam(name)
    logdir = pathlib.Path(f"/tmp/.vexa_{name}")
    user_tmp.append(logdir)
    shutil.rmtree(logdir, ignore_errors=True)

    _, code = probe_run(name, "-", "/usr/bin/id", "-u")
    assert code == 0
    assert (logdir / "id.log").read_text() == f"{pw.pw_uid}\n"
    assert owner_and_mode(logdir) == (pw.pw_uid, 0o700)
    assert owner_and_mode(logdir / "id.log")[0] == pw.pw_uid


def test_directory_planted_by_someone_else_gets_no_output(make_user, user_tmp):
    name = make_user("e2e-proc-planted", home=False)
    logdir = pathlib.Path(f"/tmp/.vexa_{name}")
    user_tmp.append(logdir)
    shutil.rmtree(logdir, ignore_errors=True)
    logdir.mkdir(mode=0o777)
    logdir.chmod(0o777)  # root's, open to all: another user could swap the log for a link

    _, code = probe_run(name, "-", "/usr/bin/id", "-u")
    assert code == 0
    assert not (logdir / "id.log").exists()


def test_unknown_user_runs_as_root_with_output_discarded(tmp_path):
    where = tmp_path / "where"
    _, code = probe_run("e2e-no-such-user", "-", "/bin/sh", "-c",
                        'echo "$(id -u) $(readlink /proc/$$/fd/1) $(readlink /proc/$$/fd/2)" > "$0"',
                        str(where))
    assert code == 0
    assert where.read_text() == "0 /dev/null /dev/null\n"
    assert not os.path.exists("/tmp/.vexa_e2e-no-such-user")


def test_environment_list_overrides_inherited_and_user_variables(make_user, user_tmp):
    name = make_user("e2e-proc-env")
    pw = pwd.getpwnam(name)
    logfile = user_tmp[0] / "env.out"
    inherited = {"PATH": os.environ["PATH"], "KEEP_ME": "1", "LANG": "C.UTF-8", "HOME": "/root",
                 "USER": "root", "TERM": "xterm"}
    listed = ["LANGX=1", "E2E_LIST=yes", "SHELL=/bin/listed-shell"]

    _, code = probe_run(name, str(logfile), "/usr/bin/env", env=listed, environ=inherited)
    assert code == 0

    lines = logfile.read_text().splitlines()
    names = [line.partition("=")[0] for line in lines]
    assert len(names) == len(set(names)), lines
    assert "LANG" not in names  # LANGX=1 starts with its name
    values = dict(line.partition("=")[::2] for line in lines)
    assert values["KEEP_ME"] == "1"
    assert (values["USER"], values["LOGNAME"], values["HOME"], values["TERM"]) == (name, name, pw.pw_dir, "linux")
    assert values["SHELL"] == "/bin/listed-shell"
    assert lines[-3:] == listed
    # opened after the switch: the user's file
    assert owner_and_mode(logfile)[0] == pw.pw_uid


def test_child_steps_are_logged_in_order_and_a_failed_exec_is_reported(make_user, user_tmp):
    name = make_user("e2e-proc-log")
    pw = pwd.getpwnam(name)
    after = cursor()
    pid, code = probe_run(name, "-", "/bin/true", env=("A=1", "B=2"),
                          environ={**os.environ, "VEXA_PROBE_LEVEL": "debug"})
    assert code == 0
    child = [(m, p) for m, p in probe_messages(after) if m.startswith(("runOwnerCommand:", "switchToUser:"))]
    assert child == [
        (f"runOwnerCommand: cmd: `/bin/true', owner: `{name}', pid: {pid}, process uid: 0", "7"),
        (f"switchToUser: user: {name}, uid: {pw.pw_uid}, gid: {pw.pw_gid}, home: {pw.pw_dir}", "7"),
        (f"runOwnerCommand: switched user: {name}, current uid: {pw.pw_uid}, gid: {pw.pw_gid}", "7"),
        ("runOwnerCommand: add session envs: [ A=1, B=2 ]", "7"),
    ]

    after = cursor()
    script = user_tmp[0] / "not-executable"
    script.write_text("#!/bin/sh\n")
    script.chmod(0o644)
    _, code = probe_run(name, "-", str(script))
    assert code == 1  # the fallback to /bin/false
    assert ("runOwnerCommand: execv failed, error: Permission denied, code: 13", "3") in probe_messages(after)


@pytest.mark.parametrize("argv,expected", [
    (["/usr/bin/id", "-un"], "root"),
    (["/usr/bin/getent", "passwd", "root", "nobody"],
     "root:x:0:0:root:/root:/bin/bash\nnobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin"),
    # arguments reach the program as they are: no shell ever sees them
    (["/usr/bin/printf", "%s|", "$(id)", ";", "`id`", "a b"], "$(id)|;|`id`|a b|"),
])
def test_stdout_command_captures_the_program_output(argv, expected):
    assert run([str(PROBE), "process", "stdout", *argv]).stdout == expected


def test_stdout_command_of_a_missing_program_throws():
    proc = run([str(PROBE), "process", "stdout", "/nonexistent/cvt", "1024"], check=False)
    assert (proc.returncode, proc.stdout, proc.stderr) == (1, "", "vexa_error: runStdoutCommand\n")


def test_start_as_a_user_returns_once_the_child_has_made_its_exec(make_user, groups):
    name = make_user("e2e-proc-bench", groups=groups[:1])
    line = run([str(PROBE), "process", "bench-exec", name, "25"]).stdout.strip()
    fields = line.split()
    result = dict(zip(fields[::2], map(int, fields[1::2])))
    if OUT.is_dir():
        (OUT / "bench-exec.txt").write_text(line + "\n")
    # every start returned with the child already running the program; the timing is a figure in the out dir
    assert (result["samples"], result["failed"], result["not_exec"]) == (25, 0, 0), line
