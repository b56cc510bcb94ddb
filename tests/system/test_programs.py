"""Published programs: the list from the desktop entries and the programs file, the icons, the reload
when the programs file changes."""

import base64
import json
import pathlib
import time

import pytest

from conftest import CONFIG, assert_level, cursor, journal, wait_line

PROGRAMS = "/etc/vexa/programs.json"
APPLICATIONS = pathlib.Path("/usr/share/applications")
ICONS = pathlib.Path("/usr/share/icons/hicolor/32x32/apps")
# a program of our own, so that its icon file is ours too
TOOL = pathlib.Path("/usr/local/bin/vexa-e2e-tool")
TOOL_ICON = ICONS / "vexa-e2e-tool.png"
# a real PNG image (one pixel)
PNG = base64.b64decode("iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwAD"
                       "hgGAWjR9awAAAABJRU5ErkJggg==")


def entry(**keys):
    return "[Desktop Entry]\n" + "".join(f"{k.replace('_ru', '[ru]')}={v}\n" for k, v in keys.items())


@pytest.fixture
def placed():
    """Files put into the system's directories for one test, removed afterwards."""
    made = []

    def place(path, content, mode=0o644):
        path = pathlib.Path(path)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        path.chmod(mode)
        made.append(path)
        return path

    yield place
    for path in made:
        path.unlink(missing_ok=True)


@pytest.fixture
def tool(placed):
    """The test program with its icon; returns the icon's bytes."""
    placed(TOOL, "#!/bin/sh\n", 0o755)
    placed(TOOL_ICON, PNG)
    return PNG


def program_list(service):
    return [str(name) for name in service.value("vexaProgramList")]


def icon(service, name):
    return bytes(service.value("vexaProgramIconPng", "s", name))


def test_list_holds_the_desktop_entries_then_the_programs_file(running, placed):
    placed(APPLICATIONS / "vexa-e2e-a.desktop",
           entry(Type="Application", Name="E2E Editor", Name_ru="Редактор E2E", Exec="env --x %U"))
    placed(APPLICATIONS / "vexa-e2e-b.desktop",
           entry(Type="Application", Name="E2E Hidden", Exec="env", Hidden="true"))
    placed(APPLICATIONS / "vexa-e2e-c.desktop", entry(Type="Link", Name="E2E Link", Exec="env"))
    placed(APPLICATIONS / "vexa-e2e-d.desktop",
           entry(Type="Application", Name="E2E Missing", Exec="vexa-e2e-no-such-program"))
    installed = [p["name"] for p in json.loads(pathlib.Path(PROGRAMS).read_text())]
    after = cursor()

    names = program_list(running)
    assert installed == ["xterm"]
    assert names[-len(installed):] == installed  # the programs file comes after the desktop entries
    assert "Редактор E2E" in names  # the localized name is the published one
    assert not {"E2E Editor", "E2E Hidden", "E2E Link", "E2E Missing"} & set(names)
    if (APPLICATIONS / "debian-xterm.desktop").exists():
        assert "XTerm" in names
    missing = APPLICATIONS / "vexa-e2e-d.desktop"
    warning = wait_line(after, "ProgramListReload: exec not found: `vexa-e2e-no-such-program', "
                               f"skipped app: `{missing}'", running.pid)
    assert_level(warning[0], "warning")


def test_configuration_names_the_programs_file_and_the_entries_to_skip(service, files, placed, tool):
    placed(APPLICATIONS / "vexa-e2e-a.desktop",
           entry(Type="Application", Name="E2E Skipped", Exec="env"))
    own = placed("/etc/vexa/vexa-e2e-programs.json", json.dumps([
        {"name": "E2E Tool", "path": str(TOOL), "args": ["-x"]},
        {"name": "E2E Gone", "path": "/usr/local/bin/vexa-e2e-gone"},
        {"name": "E2E Shell", "path": "/bin/sh"}]))
    files.write(CONFIG, {"session:programs": str(own),
                         "applications:skip": ["vexa-e2e-a.desktop", "debian-xterm.desktop"]})
    service.start()

    names = program_list(service)
    assert names[-2:] == ["E2E Tool", "E2E Shell"]
    assert not {"E2E Skipped", "XTerm", "xterm", "E2E Gone"} & set(names)
    assert icon(service, "E2E Tool") == tool
    warning = wait_line(service.cursor, "ProgramListReload: binary not found: "
                                        "/usr/local/bin/vexa-e2e-gone for name: E2E Gone", service.pid)
    assert_level(warning[0], "warning")


def test_icon_is_the_png_of_the_program_or_empty(service, files, tool):
    files.write(PROGRAMS, [{"name": "E2E Tool", "path": str(TOOL)},
                           {"name": "E2E Shell", "path": "/bin/sh"}])
    service.start()  # the list is loaded at start: no list request before the icons
    after = cursor()

    got = icon(service, "E2E Tool")
    assert got[:4] == b"\x89PNG" and got == tool
    assert icon(service, "E2E Unknown") == b""
    assert icon(service, "E2E Shell") == b""
    lines = {e["MESSAGE"]: e for e in service.barrier(after)}
    assert_level(lines["vexaProgramIconPng: program not registered, name: `E2E Unknown'"], "error")
    assert_level(lines[f"vexaProgramIconPng: file not found: {ICONS}/sh.png"], "error")


def test_watcher_reloads_a_changed_programs_file_once_but_not_at_its_first_look(service, files, tool):
    files.write(PROGRAMS, [{"name": "xterm", "path": "/usr/bin/xterm"}])
    service.start()
    ready = time.monotonic()
    assert icon(service, "E2E Tool") == b""  # not registered yet
    # the watcher looks every 3 s; its first look only notes the modification time
    time.sleep(max(0, ready + 3.4 - time.monotonic()))
    changed = cursor()

    files.write(PROGRAMS, [{"name": "E2E Tool", "path": str(TOOL)}])
    notice = wait_line(changed, "reloadProgramsWatcher: success", service.pid)
    assert_level(notice[0], "notice")
    # the icon request reads the list as the watcher left it; it does not reload it itself
    assert icon(service, "E2E Tool") == tool
    time.sleep(3.3)  # one more look must not take the same change again
    messages = [e["MESSAGE"] for e in journal(service.cursor, service.pid)]
    assert messages.count("reloadProgramsWatcher: success") == 1
