"""Password checks over the bus: vexaCheckAuthUser (a given PAM service, "vexa" by default) and
vexaTestConnect (the configured "pam:service")."""

import pathlib

import pytest

from conftest import CONFIG, cursor, journal

SERVICE = "vexa-e2e-auth"
STACK = "auth required pam_unix.so nodelay\naccount required pam_unix.so\n"


@pytest.fixture
def pam_service():
    path = pathlib.Path("/etc/pam.d") / SERVICE
    path.write_text(STACK)
    yield SERVICE
    path.unlink()


@pytest.mark.parametrize("user,password,accepted", [
    ("e2e-auth", "Secret-123", True), ("e2e-auth", "wrong", False), ("e2e-nobody", "Secret-123", False)])
def test_password_is_checked_through_the_named_pam_service(service, files, make_user, pam_service,
                                                           user, password, accepted):
    make_user("e2e-auth")
    files.write(CONFIG, {"pam:service": pam_service})
    service.start()
    after = cursor()
    assert service.value("vexaCheckAuthUser", "sss", user, password, pam_service) == accepted
    assert service.value("vexaTestConnect", "sss", user, "WORKGROUP", password) == accepted
    lines = [e["MESSAGE"] for e in journal(after, service.pid)]
    assert f"vexaCheckAuthUser: user: {user}, service: {pam_service}" in lines
    assert f"vexaTestConnect: user: {user}, domain: `WORKGROUP'" in lines
    if not accepted:
        assert any(m.startswith("checkAuthenticate: pam_authenticate failed") for m in lines), lines
    assert not any(password in m for m in lines)
