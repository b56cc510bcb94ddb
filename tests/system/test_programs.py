"""Published programs: the list, the icons, the reload when the programs file changes."""

import base64
import pathlib
import time

import pytest

from conftest import cursor, journal, wait_line

PROGRAMS = "/etc/vexa/programs.json"
APPLICATIONS = pathlib.Path("/usr/share/applications")
# a program of our own, so that its icon file is ours too
TOOL = pathlib.Path("/usr/local/bin/vexa-e2e-tool")
# a real PNG image (one pixel)
PNG = base64.b64decode("iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwAD"
                       "hgGAWjR9awAAAABJRU5ErkJggg==")


@pytest.fixture
def placed():
    """The test program, its icon and two desktop entries of our own, removed afterwards."""
    files = {TOOL: b"#!/bin/sh\n", pathlib.Path("/usr/share/icons/hicolor/32x32/apps/vexa-e2e-tool.png"): PNG}
    for name, kind in (("E2E Desktop", "application"), ("E2E Standard", "Application")):
        entry = f"[Desktop Entry]\nType={kind}\nName={name}\nExec=/bin/sh\n"
        files[APPLICATIONS / f"vexa-e2e-{kind}.desktop"] = entry.encode()
    for path, content in files.items():
        path.write_bytes(content)
    TOOL.chmod(0o755)
    yield
    for path in files:
        path.unlink()


def icon(service, name):
    return bytes(service.value("vexaProgramIconPng", "s", name))


def test_list_ends_with_the_programs_file_and_icons_are_its_pngs(service, files, placed):
    files.write(PROGRAMS, [{"name": "E2E Tool", "path": str(TOOL)},
                           {"name": "E2E Gone", "path": "/usr/local/bin/vexa-e2e-gone"},
                           {"name": "E2E Shell", "path": "/bin/sh"}])
    service.start()

    names = [str(name) for name in service.value("vexaProgramList")]
    assert names[-2:] == ["E2E Tool", "E2E Shell"]
    # only "Type=application" entries are published, ahead of the programs file
    assert "E2E Desktop" in names[:-2] and not {"E2E Standard", "E2E Gone"} & set(names)
    assert icon(service, "E2E Tool") == PNG  # the bytes of its icon file
    assert icon(service, "E2E Unknown") == b""


def test_watcher_takes_a_changed_programs_file_after_its_first_look(service, files, placed):
    files.write(PROGRAMS, [{"name": "E2E Shell", "path": "/bin/sh"}])
    service.start()
    ready = time.monotonic()
    assert icon(service, "E2E Tool") == b""  # not registered yet
    # the watcher looks every 3 s; its first look only notes the modification time
    time.sleep(max(0, ready + 3.4 - time.monotonic()))
    changed = cursor()

    files.write(PROGRAMS, [{"name": "E2E Tool", "path": str(TOOL)}])
    wait_line(changed, "reloadProgramsWatcher: success", service.pid)
    # the icon request reads the list as the watcher left it; it does not reload it itself
    assert icon(service, "E2E Tool") == PNG
    # and the first look took nothing
    messages = [e["MESSAGE"] for e in journal(service.cursor, service.pid)]
    assert messages.count("reloadProgramsWatcher: success") == 1
