"""PAM transactions through the real modules (pam_unix, pam_exec, pam_echo), driven by vexa_probe."""

import json
import os
import pathlib

import pytest

from conftest import PROBE, cursor, run

SERVICE = "vexa-e2e-pam"
PAM_D = pathlib.Path("/etc/pam.d")
# distinctive, so that finding it anywhere in the journal means it was logged
PASSWORD = "Vexa-e2e-P4ss-7f3k"
# pam_exec records each session call; nodelay keeps a refused login from sleeping 2 s
STACK = """\
{first_auth}
auth     required pam_unix.so nodelay
account  required pam_unix.so
password required {password}
session  optional pam_exec.so quiet /bin/sh {hook}
session  required pam_unix.so
"""
PROMPT = "PAM request msg: `Password: ', prompt echo: `off'"
OPENED = ["authenticate: ok", "account: ok", "open: ok", "close: done"]
FAILED = "{}: {} failed, current uid: 0, error: {}, code: {}"


@pytest.fixture
def login(tmp_path):
    """login(user, password, ...) through the test service: (exit code, probe's lines, pam_exec's sessions)"""
    hook, log = tmp_path / "hook.sh", tmp_path / "sessions.log"
    hook.write_text(f'#!/bin/sh\necho "$PAM_TYPE $PAM_USER $PAM_TTY" >> {log}\n')

    def login(user, password, closing="once", first_auth="", stack="pam_unix.so yescrypt", service=SERVICE, env=None):
        (PAM_D / SERVICE).write_text(STACK.format(first_auth=first_auth, password=stack, hook=hook))
        proc = run([str(PROBE), "pam", "auth", service, user, closing], check=False, input=password + "\n", env=env)
        return proc.returncode, proc.stdout.splitlines(), log.read_text().splitlines() if log.exists() else []

    yield login
    (PAM_D / SERVICE).unlink(missing_ok=True)


def probe_journal(after, priority=None):
    """(the whole journal text after the cursor, the messages the probe logged in it)"""
    run(["journalctl", "--sync"])
    text = run(["journalctl", "-q", "-o", "json", f"--after-cursor={after}"]).stdout
    return text, [e["MESSAGE"] for e in map(json.loads, text.splitlines()) if e.get("SYSLOG_IDENTIFIER") == "vexa_probe"
                  and e.get("CODE_FILE") == "src/common/logger.h" and priority in (None, e["PRIORITY"])]


# The user is made unless it is "e2e-pam-nobody"; a session is opened and closed once when no step fails.
@pytest.mark.parametrize("user, password, first_auth, closing, steps, logged", [
    ("e2e-pam-good", PASSWORD, "", "once", OPENED, [PROMPT]),
    ("e2e-pam-good", PASSWORD, "", "twice", OPENED + OPENED[3:], [PROMPT]),
    ("e2e-pam-good", PASSWORD, "", "none", OPENED[:3], [PROMPT]),  # the destructor closes the session
    ("e2e-pam-good", PASSWORD, "auth required pam_echo.so Hello %u", "once", OPENED,
     ["PAM request msg: `Hello e2e-pam-good', prompt echo: `off'", PROMPT]),  # information text only
    ("e2e-pam-good", "Wrong-e2e-P4ss-9q2z", "", "once", ["authenticate: failed"],
     [PROMPT, FAILED.format("checkAuthenticate", "pam_authenticate", "Authentication failure", 7)]),
    ("e2e-pam-nobody", PASSWORD, "", "once", ["authenticate: failed"], [PROMPT, FAILED.format(
        "checkAuthenticate", "pam_authenticate", "User not known to the underlying authentication module", 10)]),
])
def test_login(login, make_user, user, password, first_auth, closing, steps, logged):
    if user != "e2e-pam-nobody":
        make_user(user, password=PASSWORD)
    opened = not steps[-1].endswith("failed")
    sessions = [f"open_session {user} vexa-probe", f"close_session {user} vexa-probe"] if opened else []
    after = cursor()
    assert login(user, password, closing, first_auth) == (0 if opened else 1, steps, sessions)
    text, own = probe_journal(after)
    assert own == logged and password not in text


# An expired password makes pam_unix ask for a new one; the conversation can only offer the stored one again,
# which pam_unix refuses as unchanged: the account check fails unless the password stack takes anything.
@pytest.mark.parametrize("stack, steps", [
    ("pam_unix.so yescrypt", ["authenticate: ok", "account: failed"]), ("pam_permit.so", OPENED)])
def test_expired_password_is_renewed_only_when_the_password_stack_allows_it(login, make_user, stack, steps):
    user = make_user("e2e-pam-expired", password=PASSWORD)
    run(["chage", "-d", "0", user])
    shadow = run(["getent", "shadow", user]).stdout
    after = cursor()
    assert login(user, PASSWORD, stack=stack)[:2] == (int(steps != OPENED), steps)
    assert run(["getent", "shadow", user]).stdout == shadow
    errors = [FAILED.format("validateAccount", "pam_chauthtok", "Authentication token manipulation error", 20)]
    assert probe_journal(after, "3")[1] == (errors if steps != OPENED else [])


@pytest.mark.parametrize("other, outcome", [(True, (0, OPENED)), (False, (3, ["start: pam_error PamService"]))])
def test_unknown_service_runs_the_other_stack_and_cannot_start_without_it(login, make_user, tmp_path, other, outcome):
    user = make_user("e2e-pam-other", password=PASSWORD) if other else "e2e-pam-nobody"  # no stack: no user lookup
    # for sanitizer builds: libpam itself leaks 96 bytes when pam_start fails, before any handle is ours
    (tmp_path / "lsan.supp").write_text("leak:libpam.so\n")
    env = {**os.environ, "LSAN_OPTIONS": f"suppressions={tmp_path / 'lsan.supp'}:print_suppressions=0"}
    if not other:
        (PAM_D / "other").rename(PAM_D / ".other.vexa-e2e")
    try:
        assert login(user, PASSWORD, service="vexa-e2e-no-such-service", env=env)[:2] == outcome
    finally:
        if not other:
            (PAM_D / ".other.vexa-e2e").rename(PAM_D / "other")
