"""Password checks over the bus: vexaCheckAuthUser (through the PAM service it names) and vexaTestConnect (through
the configured "pam:service"). PAM runs in a process of its own (the session manager program's checking mode),
which logs PAM's refusals."""

import pytest

from conftest import CONFIG, journal

SERVICE = "vexa-e2e-auth"


@pytest.mark.parametrize("user, password, accepted", [
    ("e2e-auth", "Secret-123", True), ("e2e-auth", "wrong", False), ("e2e-nobody", "Secret-123", False)])
def test_password_is_checked_through_the_named_pam_service(service, files, make_user, user, password, accepted):
    make_user("e2e-auth", password="Secret-123")
    files.write(f"/etc/pam.d/{SERVICE}", "auth required pam_unix.so nodelay\naccount required pam_unix.so\n")
    files.write(CONFIG, {"pam:service": SERVICE})
    service.start()
    assert service.value("vexaCheckAuthUser", "sss", user, password, SERVICE) == accepted
    assert service.value("vexaTestConnect", "sss", user, "WORKGROUP", password) == accepted
    lines = [e["MESSAGE"] for e in journal(service.cursor, idents=("vexa_service", "vexa_session_manager"))]
    assert f"vexaCheckAuthUser: user: {user}, service: {SERVICE}" in lines
    assert f"vexaTestConnect: user: {user}, domain: `WORKGROUP'" in lines
    assert accepted or any(m.startswith("checkAuthenticate: pam_authenticate failed") for m in lines), lines
    assert not any(password in m for m in lines)
