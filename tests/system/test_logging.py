"""What the service writes to the journal, with which fields, at which level."""

import pytest

from conftest import CONFIG, VERSION, WRITES, assert_level_fields, observe_levels

# Lines of the D-Bus thread and the level each is logged at.
LINE_CASES = [
    ("vexaTest", "", (), "vexaTest send ping version success", "info"),
    ("busSetDebugLevel", "s", ("info",), "busSetDebugLevel: level: info", "info"),
    ("busSetDebugLevel", "s", ("info",), "setDebugLevel: level: info", "info"),
    ("busSetDebugLevel", "s", ("Info",), "setDebugLevel: unknown level: Info", "error"),
]


@pytest.mark.parametrize("method,signature,args,message,level", LINE_CASES,
                         ids=[c[3] for c in LINE_CASES])
def test_line_fields(shared_service, journal, method, signature, args, message, level):
    cursor = journal.cursor()
    shared_service.client.call(method, signature, *args)
    entries = [e for e in shared_service.barrier(cursor) if e["MESSAGE"] == message]
    assert len(entries) == 1
    assert_level_fields(entries[0], level)
    assert entries[0]["SYSLOG_IDENTIFIER"] == "vexa_service"
    assert entries[0]["_PID"] == str(shared_service.pid)


def test_vexa_test_reports_the_version(shared_service):
    assert shared_service.client.value("vexaTest") == VERSION
    assert shared_service.client.value("vexaStatus") == True  # noqa: E712 (a dbus.Boolean)


@pytest.mark.parametrize("configured,requested", [
    (None, "debug"),
    ("info", "trace"),
    ("info", "none"),
    ("none", "info"),
    ("trace", "info"),
    ("debug", "none"),
])
def test_debug_level_from_configuration_and_bus(service, files, configured, requested):
    files.write(CONFIG, {} if configured is None else {"debug:level": configured})
    service.start()
    assert observe_levels(service)[:2] == WRITES[configured]

    cursor = service.journal.cursor()
    assert service.client.call("busSetDebugLevel", "s", requested).get_args_list() == []
    announced = [e["MESSAGE"] for e in service.barrier(cursor)
                 if e["MESSAGE"].endswith(f"level: {requested}")]
    # The change is announced at the old level, before it takes effect.
    if WRITES[configured][1]:
        assert announced == [f"busSetDebugLevel: level: {requested}",
                             f"setDebugLevel: level: {requested}"]
    else:
        assert announced == []
    assert observe_levels(service)[:2] == WRITES[requested]


@pytest.mark.parametrize("name", ["Debug", "TRACE", "verbose", ""])
def test_unknown_level_is_refused_and_changes_nothing(running, journal, name):
    cursor = journal.cursor()
    running.client.call("busSetDebugLevel", "s", name)
    messages = [e["MESSAGE"] for e in running.barrier(cursor)
                if e["MESSAGE"].startswith(("busSetDebugLevel:", "setDebugLevel:"))]
    # (the journal library drops the trailing blank of the lines for the empty name)
    assert messages == [f"busSetDebugLevel: level: {name}".rstrip(),
                        f"setDebugLevel: level: {name}".rstrip(),
                        f"setDebugLevel: unknown level: {name}".rstrip()]
    assert observe_levels(running)[:2] == WRITES["info"]
