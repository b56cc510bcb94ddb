"""PAM transactions through the real modules (pam_unix, pam_exec, pam_echo), driven by vexa_probe: what a session
through the daemon does not show."""

import pytest

from conftest import PROBE, cursor, journal, run

PASSWORD = "Vexa-e2e-P4ss-7f3k"  # distinctive, so that a log line holding it is found
MESSAGE = "PAM request msg: `{}', prompt echo: `off'"
PROMPT, HELLO = MESSAGE.format("Password: "), MESSAGE.format("Hello e2e-pam")
EXPIRED = MESSAGE.format("You are required to change your password immediately (administrator enforced).")
UNCHANGED = ("validateAccount: pam_chauthtok failed, current uid: 0, error: Authentication token manipulation error, "
             "code: 20")
OPENED = ["authenticate: ok", "account: ok", "open: ok", "close: done"]


# pam_exec notes each session call; nodelay keeps a refused login from sleeping 2 s
@pytest.mark.parametrize("first_auth, expired, password_stack, closing, steps, logged", [
    ("", False, "pam_unix.so", "twice", OPENED + ["close: done"], [PROMPT]),  # the second close does nothing
    ("", False, "pam_unix.so", "none", OPENED[:3], [PROMPT]),  # the transaction's end closes the session
    # an information text is logged and needs no answer
    ("auth required pam_echo.so Hello %u", False, "pam_unix.so", "once", OPENED, [HELLO, PROMPT]),
    # An expired password makes pam_unix ask for a new one; the conversation can only offer the stored one again,
    # which pam_unix refuses as unchanged: the account check fails unless the password stack takes anything.
    ("", True, "pam_unix.so yescrypt", "once", ["authenticate: ok", "account: failed"], [PROMPT, EXPIRED, UNCHANGED]),
    ("", True, "pam_permit.so", "once", OPENED, [PROMPT, EXPIRED]),
])
def test_login(files, make_user, tmp_path, first_auth, expired, password_stack, closing, steps, logged):
    user = make_user("e2e-pam", password=PASSWORD)
    if expired:
        run(["chage", "-d", "0", user])
    shadow = run(["getent", "shadow", user]).stdout
    hook, calls = tmp_path / "hook.sh", tmp_path / "calls"
    hook.write_text(f'echo "$PAM_TYPE $PAM_USER $PAM_TTY" >> {calls}\n')
    calls.touch()
    files.write("/etc/pam.d/vexa-e2e-pam", f"{first_auth}\nauth required pam_unix.so nodelay\n"
                f"account required pam_unix.so\npassword required {password_stack}\n"
                f"session optional pam_exec.so quiet /bin/sh {hook}\nsession required pam_unix.so\n")
    after = cursor()
    proc = run([PROBE, "pam", "auth", "vexa-e2e-pam", user, closing], check=False, input=PASSWORD + "\n")
    opened = steps[-1] != "account: failed"
    sessions = [f"open_session {user} vexa-probe", f"close_session {user} vexa-probe"] if opened else []
    assert (proc.returncode, proc.stdout.splitlines(), calls.read_text().splitlines()) == (1 - opened, steps, sessions)
    assert run(["getent", "shadow", user]).stdout == shadow  # the password is never changed
    own = [e["MESSAGE"] for e in journal(after, idents=("vexa_probe",))]
    assert [m for m in own if m in logged] == logged and not [m for m in own if PASSWORD in m]
