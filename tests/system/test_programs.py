"""Published programs: the list, the icons, the reload when the programs file changes."""

import base64
import pathlib
import time

from conftest import cursor, journal, wait_line

PROGRAMS = "/etc/vexa/programs.json"
TOOL = pathlib.Path("/usr/local/bin/vexa-e2e-tool")  # a program of our own, so that its icon file is ours too
PNG = base64.b64decode("iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwAD"  # one pixel
                       "hgGAWjR9awAAAABJRU5ErkJggg==")


def test_list_and_icons_follow_the_programs_file_once_the_watcher_has_seen_it_change(service, files):
    files.write(TOOL, "#!/bin/sh\n")
    TOOL.chmod(0o755)
    files.write("/usr/share/icons/hicolor/32x32/apps/vexa-e2e-tool.png", PNG)
    files.write("/usr/share/applications/vexa-e2e.desktop",
                "[Desktop Entry]\nType=application\nName=E2E Desktop\nExec=/bin/sh\n")
    files.write(PROGRAMS, [{"name": "E2E Gone", "path": "/usr/local/bin/vexa-e2e-gone"},
                           {"name": "E2E Shell", "path": "/bin/sh"}])
    service.start()
    ready = time.monotonic()
    names = [str(name) for name in service.value("vexaProgramList")]
    # the desktop applications, then the programs of the file whose binary exists
    assert names[-1] == "E2E Shell" and "E2E Desktop" in names and "E2E Gone" not in names
    assert bytes(service.value("vexaProgramIconPng", "s", "E2E Tool")) == b""  # not registered yet
    # the watcher looks every 3 s; its first look only notes the modification time
    time.sleep(max(0, ready + 3.4 - time.monotonic()))
    changed = cursor()

    files.write(PROGRAMS, [{"name": "E2E Tool", "path": str(TOOL)}])
    wait_line(changed, "reloadProgramsWatcher: success", service.pid)
    # the requests read the list as the watcher left it; they do not reload it themselves
    assert [str(name) for name in service.value("vexaProgramList")] == names[:-1] + ["E2E Tool"]
    assert bytes(service.value("vexaProgramIconPng", "s", "E2E Tool")) == PNG  # the bytes of its icon file
    # and the first look took nothing
    assert [e["MESSAGE"] for e in journal(service.cursor, service.pid)].count("reloadProgramsWatcher: success") == 1
