"""Through vexa_probe: programs started as a user (runChildProcess: ids, groups, environment, output logs) and the
account check against the container's real shells file."""

import os
import pathlib
import pwd
import shutil
import stat

import pytest

from conftest import PROBE, assert_level, cursor, journal, run


def probe_run(user, *argv, env=(), environ=None):
    """The program's exit code; `env` is the environment list, `environ` the probe's own environment."""
    proc = run([PROBE, "process", "run", *[a for entry in env for a in ("-e", entry)], user, *argv], env=environ)
    return os.waitstatus_to_exitcode(int(proc.stdout))


def owner_and_mode(path):
    st = os.lstat(path)
    return st.st_uid, stat.S_IMODE(st.st_mode)


def test_program_runs_as_the_user_with_its_groups_and_environment_and_logs_into_its_home(make_user):
    name = make_user("e2e-proc", groups=("audio", "users"))
    pw = pwd.getpwnam(name)
    inherited = {"PATH": os.environ["PATH"], "KEEP_ME": "1", "HOME": "/root", "USER": "root", "SHELL": "/bin/sh"}
    listed = ["E2E_LIST=yes", "SHELL=/bin/listed-shell"]
    assert probe_run(name, "/bin/cat", "/proc/self/status", "/proc/self/environ", env=listed, environ=inherited) == 0

    log = pathlib.Path(pw.pw_dir, ".vexa", "cat.log")
    *status, environ = log.read_text().split("\n")
    ids = {line.split(":")[0]: line.split()[1:] for line in status if line.startswith(("Uid:", "Gid:", "Groups:"))}
    # real, effective, saved and file-system ids: nothing of root is left
    assert ids["Uid"] == [str(pw.pw_uid)] * 4 and ids["Gid"] == [str(pw.pw_gid)] * 4
    assert set(ids["Groups"]) == {str(g) for g in os.getgrouplist(name, pw.pw_gid)} and len(ids["Groups"]) == 3
    # the inherited environment, the user's own variables over it, the list last and over both
    entries = environ.split("\0")[:-1]
    values = dict(entry.partition("=")[::2] for entry in entries)
    assert len(values) == len(entries) and entries[-2:] == listed
    assert (values["KEEP_ME"], values["USER"], values["HOME"]) == ("1", name, pw.pw_dir)
    # the log is made by the user, not by root
    assert owner_and_mode(log.parent)[0] == pw.pw_uid and owner_and_mode(log.parent)[1] & 0o077 == 0
    assert owner_and_mode(log) == (pw.pw_uid, 0o640)


@pytest.mark.parametrize("planted", [False, True])
def test_user_without_home_logs_only_into_a_private_tmp_directory_of_its_own(make_user, planted):
    name = make_user("e2e-proc-nohome", home=False)
    logdir = pathlib.Path(f"/tmp/.vexa_{name}")
    shutil.rmtree(logdir, ignore_errors=True)
    if planted:  # root's, open to all: another user could swap the log for a link
        logdir.mkdir()
        logdir.chmod(0o777)
    assert probe_run(name, "/usr/bin/id", "-u") == 0
    uid = pwd.getpwnam(name).pw_uid
    assert (logdir / "id.log").exists() != planted
    if not planted:
        assert ((logdir / "id.log").read_text(), owner_and_mode(logdir)) == (f"{uid}\n", (uid, 0o700))
    shutil.rmtree(logdir)


def test_unknown_user_runs_as_root_with_output_discarded_and_a_failed_exec_exits_1(tmp_path):
    where, script = tmp_path / "where", tmp_path / "not-executable"
    script.write_text("#!/bin/sh\n")
    after = cursor()
    assert probe_run("e2e-no-such-user", "/bin/sh", "-c",
                     'echo "$(id -u) $(readlink /proc/$$/fd/1) $(readlink /proc/$$/fd/2)" > "$0"', str(where)) == 0
    assert where.read_text() == "0 /dev/null /dev/null\n"
    assert probe_run("e2e-no-such-user", str(script)) == 1
    # the child reports the failure before the start returns, and the caller logs it
    line = "runOwnerCommand: execv failed, error: Permission denied, code: 13"
    assert_level(journal(after, message=line, idents=("vexa_probe",))[0], "error")


@pytest.mark.parametrize("shell, answer", [
    ("/bin/bash", "allowed"), ("/usr/sbin/nologin", "refused"), ("/bin/bash ", "refused"), ("", "refused")])
def test_shell_must_be_a_whole_line_of_etc_shells(shell, answer):
    assert run([PROBE, "accounts", "shell", shell]).stdout == answer + "\n"
