"""The account check against the container's real shells file (through vexa_probe)."""

import pytest

from conftest import PROBE, run


@pytest.mark.parametrize("shell, answer", [
    ("/bin/bash", "allowed"), ("/usr/sbin/nologin", "refused"), ("/bin/bash ", "refused"), ("", "refused")])
def test_shell_must_be_a_whole_line_of_etc_shells(shell, answer):
    assert run([PROBE, "accounts", "shell", shell]).stdout == answer + "\n"
