"""PAM transactions through the real modules (pam_unix, pam_env, pam_exec, pam_echo), driven by the
probe tool: authentication, account check, session, PAM environment, the conversation's journal lines."""

import json
import os
import pathlib
import shutil
from types import SimpleNamespace

import pytest

from conftest import PROBE, cursor, run

SERVICE = "vexa-e2e-pam"
PAM_D = pathlib.Path("/etc/pam.d")
# distinctive, so that finding it anywhere in the journal means it was logged
PASSWORD = "Vexa-e2e-P4ss-7f3k"
ENV = "VEXA_E2E_PAM_MARK=from-pam-env"
# pam_exec records each session call; nodelay keeps a refused login from sleeping 2 s
STACK = """\
{first_auth}
auth     required pam_unix.so nodelay
account  required pam_unix.so
password required {password}
session  required pam_env.so conffile={conf} envfile={env}
session  optional pam_exec.so quiet {hook}
session  required pam_unix.so
"""
PASSWORD_PROMPT = "PAM request msg: `Password: ', prompt echo: `off'"
REFUSED = "checkAuthenticate: pam_authenticate failed, current uid: 0, error: {}, code: {}"
ACCOUNT = "validateAccount: {} failed, current uid: 0, error: {}, code: {}"


@pytest.fixture
def pam(tmp_path):
    """The test service in /etc/pam.d; write() puts a line in front of the auth stack or replaces the
    password stack."""
    hook, log = tmp_path / "hook.sh", tmp_path / "sessions.log"
    hook.write_text(f'#!/bin/sh\necho "$PAM_TYPE $PAM_USER $PAM_TTY" >> {log}\n')
    hook.chmod(0o755)
    (tmp_path / "pam_env.conf").write_text("")
    (tmp_path / "pam.env").write_text(ENV + "\n")

    def write(first_auth="", password="pam_unix.so yescrypt"):
        (PAM_D / SERVICE).write_text(STACK.format(first_auth=first_auth, password=password, hook=hook,
                                                  env=tmp_path / "pam.env", conf=tmp_path / "pam_env.conf"))

    write()
    yield SimpleNamespace(write=write,
                          sessions=lambda: log.read_text().splitlines() if log.exists() else [])
    (PAM_D / SERVICE).unlink(missing_ok=True)


def probe_auth(user, password, *closing, service=SERVICE, env=None):
    proc = run([str(PROBE), "pam", "auth", service, user, *closing], check=False, input=password + "\n",
               env=env)
    return proc.returncode, proc.stdout.splitlines()


def probe_journal(after):
    """(the whole journal text after the cursor, the probe's own log entries in it)"""
    run(["journalctl", "--sync"])
    text = run(["journalctl", "-q", "-o", "json", f"--after-cursor={after}"]).stdout
    own = [e for e in map(json.loads, text.splitlines())
           if e.get("SYSLOG_IDENTIFIER") == "vexa_probe" and e.get("CODE_FILE") == "src/common/logger.h"]
    return text, own


def messages(entries, priority=None):
    return [e["MESSAGE"] for e in entries if priority in (None, e["PRIORITY"])]


@pytest.mark.parametrize("closing, closes", [("once", 1), ("twice", 2), ("none", 0)])
def test_good_password_passes_every_step_and_the_session_closes_exactly_once(pam, make_user, closing, closes):
    user = make_user("e2e-pam-good", password=PASSWORD)
    after = cursor()
    rc, lines = probe_auth(user, PASSWORD, closing)
    assert (rc, lines) == (0, ["authenticate: ok", "account: ok", "open: ok", f"env: {ENV}",
                               *["close: done"] * closes])
    # "none": the destructor closes the session the caller left open
    assert pam.sessions() == [f"open_session {user} vexa-probe", f"close_session {user} vexa-probe"]
    text, own = probe_journal(after)
    assert [(e["MESSAGE"], e["PRIORITY"]) for e in own] == [(PASSWORD_PROMPT, "6")]
    assert PASSWORD not in text


@pytest.mark.parametrize("who, password, error, code", [
    ("known", "Wrong-e2e-P4ss-9q2z", "Authentication failure", 7),
    ("unknown", PASSWORD, "User not known to the underlying authentication module", 10),
])
def test_refused_login_fails_authentication_and_opens_nothing(pam, make_user, who, password, error, code):
    user = make_user("e2e-pam-refused", password=PASSWORD) if who == "known" else "e2e-pam-nobody"
    after = cursor()
    assert probe_auth(user, password) == (1, ["authenticate: failed"])
    assert pam.sessions() == []
    text, own = probe_journal(after)
    assert messages(own, "3") == [REFUSED.format(error, code)]
    assert password not in text


def test_information_text_from_a_module_is_logged_and_does_not_fail_authentication(pam, make_user):
    pam.write(first_auth="auth required pam_echo.so Welcome %u")
    user = make_user("e2e-pam-info", password=PASSWORD)
    after = cursor()
    rc, lines = probe_auth(user, PASSWORD)
    assert (rc, lines[:3]) == (0, ["authenticate: ok", "account: ok", "open: ok"])
    _, own = probe_journal(after)
    assert messages(own) == [f"PAM request msg: `Welcome {user}', prompt echo: `off'", PASSWORD_PROMPT]


def shadow(user):
    return run(["getent", "shadow", user]).stdout.split(":")


# With an expired password pam_unix asks for the current and a new password; the non-interactive
# conversation can only offer the stored password again, which pam_unix refuses as unchanged (three
# tries), so the account check fails and the password stays as it was.
@pytest.mark.parametrize("expire, call, error, code", [
    (["-d", "0"], "pam_chauthtok", "Authentication token manipulation error", 20),
    (["-E", "0"], "pam_acct_mgmt", "User account has expired", 13),
])
def test_expired_password_or_account_fails_the_account_check(pam, make_user, expire, call, error, code):
    user = make_user("e2e-pam-expired", password=PASSWORD)
    run(["chage", *expire, user])
    before = shadow(user)
    after = cursor()
    assert probe_auth(user, PASSWORD) == (1, ["authenticate: ok", "account: failed"])
    assert shadow(user) == before
    assert pam.sessions() == []
    text, own = probe_journal(after)
    assert messages(own, "3") == [ACCOUNT.format(call, error, code)]
    assert PASSWORD not in text
    if call == "pam_chauthtok":
        prompts = messages(own, "6")
        for prompt in ("Current password: ", "New password: ", "Retype new password: "):
            assert f"PAM request msg: `{prompt}', prompt echo: `off'" in prompts


def test_expired_password_is_accepted_when_the_password_stack_allows_the_change(pam, make_user):
    pam.write(password="pam_permit.so")
    user = make_user("e2e-pam-renewed", password=PASSWORD)
    run(["chage", "-d", "0", user])
    after = cursor()
    rc, lines = probe_auth(user, PASSWORD)
    assert (rc, lines[:3]) == (0, ["authenticate: ok", "account: ok", "open: ok"])
    _, own = probe_journal(after)
    assert messages(own, "3") == []
    assert ("PAM request msg: `You are required to change your password immediately (administrator enforced).', "
            "prompt echo: `off'") in messages(own, "6")


@pytest.fixture
def without_other():
    """/etc/pam.d/other moved away for one test."""
    other, kept = PAM_D / "other", PAM_D / ".other.vexa-e2e"
    shutil.move(other, kept)
    yield
    shutil.move(kept, other)


def test_unknown_service_uses_the_other_stack(make_user):
    user = make_user("e2e-pam-other", password=PASSWORD)
    rc, lines = probe_auth(user, PASSWORD, service="vexa-e2e-no-such-service")
    assert (rc, lines[:3]) == (0, ["authenticate: ok", "account: ok", "open: ok"])


def test_unknown_service_without_other_stack_refuses_to_start(make_user, without_other, tmp_path):
    user = make_user("e2e-pam-nostack", password=PASSWORD)
    # for sanitizer builds: libpam itself leaks 96 bytes when pam_start fails, before any handle is ours
    (tmp_path / "lsan.supp").write_text("leak:libpam.so\n")
    env = {**os.environ, "LSAN_OPTIONS": f"suppressions={tmp_path / 'lsan.supp'}:print_suppressions=0"}
    after = cursor()
    assert probe_auth(user, PASSWORD, service="vexa-e2e-no-such-service", env=env) == (
        3, ["start: pam_error PamService"])
    # pam_start leaves no handle here, so there is nothing to log through
    _, own = probe_journal(after)
    assert messages(own) == []
