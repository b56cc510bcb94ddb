"""Child processes started as a user through vexa_probe: identity, output logs, environment, failed exec."""

import json
import os
import pathlib
import pwd
import re
import shutil
import stat

import pytest

from conftest import PROBE, cursor, run

GROUPS = ("audio", "users")  # supplementary groups every Debian system has
OUT = pathlib.Path("/e2e/out")


def probe_run(user, logfile, *argv, env=(), environ=None):
    """Exit code of the program run; `env` is the environment list, `environ` the probe's own environment."""
    options = [arg for entry in env for arg in ("-e", entry)]
    proc = run([str(PROBE), "process", "run", *options, user, logfile, *argv], env=environ)
    return os.waitstatus_to_exitcode(int(proc.stdout.split()[1]))


def owner_and_mode(path):
    st = os.lstat(path)
    return st.st_uid, stat.S_IMODE(st.st_mode)


def test_program_runs_as_the_user_with_its_groups_and_logs_into_its_home(make_user):
    name = make_user("e2e-proc-ids", groups=GROUPS)
    pw = pwd.getpwnam(name)
    expected_groups = {str(g) for g in os.getgrouplist(name, pw.pw_gid)}
    assert len(expected_groups) == 3
    assert probe_run(name, "-", "/bin/sh", "-c", "grep -E '^(Uid|Gid|Groups):' /proc/self/status") == 0

    log = pathlib.Path(pw.pw_dir, ".vexa", "sh.log")
    ids = {line.split(":")[0]: line.split()[1:] for line in log.read_text().splitlines()}
    # real, effective, saved and file-system ids: nothing of root is left
    assert ids["Uid"] == [str(pw.pw_uid)] * 4 and ids["Gid"] == [str(pw.pw_gid)] * 4
    assert set(ids["Groups"]) == expected_groups
    # made by the user, not by root
    uid_dir, mode_dir = owner_and_mode(log.parent)
    assert uid_dir == pw.pw_uid and mode_dir & 0o077 == 0, oct(mode_dir)
    assert owner_and_mode(log) == (pw.pw_uid, 0o640)


@pytest.mark.parametrize("planted", [False, True])
def test_user_without_home_logs_only_into_a_private_tmp_directory_of_its_own(make_user, planted):
    name = make_user("e2e-proc-nohome", home=False)
    logdir = pathlib.Path(f"/tmp/.vexa_{name}")
    shutil.rmtree(logdir, ignore_errors=True)
    if planted:  # root's, open to all: another user could swap the log for a link
        logdir.mkdir()
        logdir.chmod(0o777)
    assert probe_run(name, "-", "/usr/bin/id", "-u") == 0
    uid = pwd.getpwnam(name).pw_uid
    assert (logdir / "id.log").exists() != planted
    if not planted:
        assert ((logdir / "id.log").read_text(), owner_and_mode(logdir)) == (f"{uid}\n", (uid, 0o700))
    shutil.rmtree(logdir)


def test_unknown_user_runs_as_root_with_output_discarded(tmp_path):
    where = tmp_path / "where"
    assert probe_run("e2e-no-such-user", "-", "/bin/sh", "-c",
                     'echo "$(id -u) $(readlink /proc/$$/fd/1) $(readlink /proc/$$/fd/2)" > "$0"', str(where)) == 0
    assert where.read_text() == "0 /dev/null /dev/null\n"


def test_environment_list_overrides_inherited_and_user_variables(make_user):
    name = make_user("e2e-proc-env")
    pw = pwd.getpwnam(name)
    inherited = {"PATH": os.environ["PATH"], "KEEP_ME": "1", "LANG": "C.UTF-8", "HOME": "/root", "USER": "root"}
    listed = ["LANGX=1", "E2E_LIST=yes", "SHELL=/bin/listed-shell"]
    assert probe_run(name, "-", "/usr/bin/env", env=listed, environ=inherited) == 0

    lines = pathlib.Path(pw.pw_dir, ".vexa", "env.log").read_text().splitlines()
    names = [line.partition("=")[0] for line in lines]
    assert len(names) == len(set(names)) and "LANG" not in names, lines  # LANGX=1 starts with its name
    values = dict(line.partition("=")[::2] for line in lines)
    assert (values["KEEP_ME"], values["USER"], values["HOME"]) == ("1", name, pw.pw_dir)
    assert lines[-3:] == listed


def test_failed_exec_is_logged_and_falls_back_to_false(tmp_path):
    script = tmp_path / "not-executable"
    script.write_text("#!/bin/sh\n")
    after = cursor()
    assert probe_run("-", "-", str(script)) == 1
    run(["journalctl", "--sync"])
    out = run(["journalctl", "-q", "-o", "json", f"--after-cursor={after}"]).stdout
    expected = {"SYSLOG_IDENTIFIER": "vexa_probe", "PRIORITY": "3",
                "MESSAGE": "runOwnerCommand: execv failed, error: Permission denied, code: 13"}
    assert any(expected.items() <= json.loads(entry).items() for entry in out.splitlines()), out


def test_bench_start_as_a_user_returns_once_the_child_has_made_its_exec(make_user):
    """A benchmark, its figures in the out directory; checked: each start returned after the exec, no failure."""
    line = run([str(PROBE), "process", "bench-exec", make_user("e2e-proc-bench", groups=GROUPS[:1]), "25"]).stdout
    if OUT.is_dir():
        (OUT / "bench-exec.txt").write_text(line)
    assert re.fullmatch(r"samples 25 median_us \d+ min_us \d+ max_us \d+ not_exec 0 failed 0\n", line), line
