"""Account lookups against the container's real user, group and shells databases."""

import grp

import pytest

from conftest import PROBE, run


@pytest.mark.parametrize("shell,answer", [
    ("/bin/bash", "allowed"), ("/usr/sbin/nologin", "refused"), ("/bin/bash ", "refused"), ("", "refused")])
def test_shell_must_be_a_whole_line_of_etc_shells(shell, answer):
    assert run([PROBE, "accounts", "shell", shell]).stdout.strip() == answer


def test_user_lookup_reports_ids_home_and_supplementary_groups(make_user):
    name = make_user("e2e-lookup", groups=("vexa", "vexa-admin"))
    uid, gid, home, shell, *groups = run([PROBE, "accounts", "user", name]).stdout.split()
    assert (home, shell) == (f"/home/{name}", "/bin/bash")
    expected = {grp.getgrnam(g).gr_gid for g in (name, "vexa", "vexa-admin")}
    assert {int(g) for g in groups} == expected and int(gid) == grp.getgrnam(name).gr_gid
    assert run([PROBE, "accounts", "user", "e2e-nobody-here"], check=False).returncode == 1
