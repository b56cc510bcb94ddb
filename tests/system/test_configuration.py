"""Configuration and limits files: values at start, the live reload, broken files."""

import time

import pytest

from conftest import (CONFIG, LIMITS, WRITES, assert_level_fields, observe_levels)

# A configuration that differs from the defaults in every value the bus reports.
CHANGED = {
    "duration:timeout": 77,
    "seamless:timeout": 61,
    "inactivity:timeout": 5,
    "disconnect:timeout": 9,
    "clipboard:limit": 1024,
    "rdp:keepalive:interval": 30,
    "rdp:keepalive:failures": 4,
    "redirect:print": False,
    "redirect:drive": False,
    "redirect:smartcard": True,
    "redirect:audio": False,
    "redirect:microphone": True,
    "clipboard:server": False,
    "clipboard:client": True,
    "clipboard:file": False,
    "connect:policy": "multiallow",
    "session:disconnected:freeze": True,
    "login:helper": True,
    "login:sessions": False,
    "login:keyboard": True,
}

# getter -> (value with no keys in the file, value with CHANGED)
GETTERS = {
    "vexaDurationTimeoutDefault": (0, 77),
    "vexaSeamlessTimeoutDefault": (60, 61),
    "vexaInactivityTimeoutDefault": (0, 5),
    "vexaDisconnectTimeoutDefault": (0, 9),
    "vexaPolicyRedirectClipboardLimitDefault": (0, 1024),
    "vexaPolicyRdpKeepAliveDefault": (0, (4 << 32) | 30),
    "vexaPolicyRedirectPrinterDefault": (True, False),
    "vexaPolicyRedirectDriveDefault": (True, False),
    "vexaPolicyRedirectSmartcardDefault": (True, True),
    "vexaPolicyRedirectAudioDefault": (True, False),
    "vexaPolicyRedirectMicrophoneDefault": (True, True),
    "vexaPolicyRedirectClipboardDefault": (0x1000000 | 0x2000000, 0x2000000),
    "vexaPolicyRedirectClipboardFileDefault": (True, False),
    "vexaPolicyConnectDefault": (2, 3),
    "vexaSessionDisconnectedFreezeDefault": (False, True),
    "vexaTransportPolicyShowLoginHelper": (False, True),
    "vexaLoginHelperPolicyShowSessions": (False, False),
    "vexaLoginHelperPolicyShowKeyboard": (False, True),
}


def getter_values(service):
    return {name: service.client.value(name) for name in GETTERS}


def expected(column):
    return {name: values[column] for name, values in GETTERS.items()}


@pytest.mark.parametrize("config,column", [({}, 0), (CHANGED, 1)], ids=["defaults", "changed"])
def test_values_at_start(service, files, config, column):
    files.write(CONFIG, config)
    service.start()
    assert getter_values(service) == expected(column)


@pytest.mark.parametrize("name,policy", [
    ("PrevReplace", 2), ("prevreplace", 2), ("MULTIALLOW", 3), ("MultiAllow", 3),
    ("NextDeny", 1), ("nextdeny", 1), ("", 1), ("bogus", 1),
])
def test_connect_policy_names(service, files, name, policy):
    files.write(CONFIG, {"connect:policy": name})
    service.start()
    assert service.client.value("vexaPolicyConnectDefault") == policy


LIMIT_GETTERS = ["vexaCpuQuotaDefault", "vexaCpuWeightDefault", "vexaTasksMaxDefault",
                 "vexaMemoryHighDefault", "vexaMemoryMaxDefault", "vexaNetworkDenyDefault",
                 "vexaNetworkAllowDefault"]
NO_LIMITS = [0, 0, 0, "", "", "", ""]


@pytest.mark.parametrize("content,values", [
    ({"default": {"cpu:quota": 50, "cpu:weight": 200, "tasks:max": 300, "memory:high": "1G",
                  "memory:max": "2G", "network:deny": "10.0.0.0/8",
                  "network:allow": "127.0.0.0/8"}, "groups": [], "users": []},
     [50, 200, 300, "1G", "2G", "10.0.0.0/8", "127.0.0.0/8"]),
    ({"default": {"cpu:weight": 100}}, [0, 100, 0, "", "", "", ""]),
    ({}, NO_LIMITS),
    (None, NO_LIMITS),
], ids=["all", "one", "empty", "missing"])
def test_limit_defaults_from_limits_file(service, files, content, values):
    if content is None:
        files.remove(LIMITS)
    else:
        files.write(LIMITS, content)
    service.start()
    assert [service.client.value(name) for name in LIMIT_GETTERS] == values
    assert service.state() == "active"


# ---------------------------------------------------------------------------------------------
# Live reload: the watcher looks at the file's modification time every 3 s.

RELOADED = "reloadConfigWatcher: success"


def test_touching_the_configuration_reloads_it_once(running, files, journal, unit_states):
    # Limits set through the bus survive a reload, which says so.
    running.client.call("vexaUsersLimit", "u", 5)
    running.client.call("vexaSessionsLimit", "u", 7)
    running.wait_first_config_check()
    # The first pass only noted the modification time.
    assert RELOADED not in journal.messages(running.start_cursor, running.pid)
    assert "reloading" not in unit_states.states()
    cursor = journal.cursor()
    unit_states.seen.clear()

    files.touch(CONFIG)
    success = journal.wait(cursor, RELOADED, pid=running.pid, timeout=8)[0]
    assert_level_fields(success, "notice")
    # Give the watcher one more pass: it must not take the same change twice.
    time.sleep(3.3)

    messages = journal.messages(cursor, running.pid)
    assert messages.count(RELOADED) == 1
    assert unit_states.states() == ["reloading", "active"]
    assert running.state() == "active"

    warnings = {
        "reloadConfigWatcher: users limit sets from API (5), skip config users:limit value",
        "reloadConfigWatcher: sessions limit sets from API(7), skip config sessions:limit value",
    }
    entries = [e for e in journal.entries(cursor, running.pid) if e["MESSAGE"] in warnings]
    assert {e["MESSAGE"] for e in entries} == warnings and len(entries) == 2
    for e in entries:
        assert_level_fields(e, "warning")
        assert messages.index(e["MESSAGE"]) < messages.index(RELOADED)


def test_reload_applies_new_values_and_keeps_them_when_the_file_breaks(
        running, files, journal, unit_states):
    assert getter_values(running) == expected(0)
    running.wait_first_config_check()

    cursor = journal.cursor()
    unit_states.seen.clear()
    files.write(CONFIG, dict(CHANGED, **{"debug:level": "trace"}))
    journal.wait(cursor, RELOADED, pid=running.pid, timeout=8)
    assert unit_states.states() == ["reloading", "active"]
    assert getter_values(running) == expected(1)
    assert observe_levels(running)[:2] == WRITES["trace"]

    # A file that is valid JSON but no object: logged, the values stay, no reload is announced.
    cursor = journal.cursor()
    unit_states.seen.clear()
    files.write(CONFIG, '["not", "an", "object"]')
    error = journal.wait(cursor, f"reloadConfigWatcher: json not object, file: {CONFIG}",
                         pid=running.pid, timeout=8)[0]
    assert_level_fields(error, "error")
    time.sleep(0.2)
    assert unit_states.states() == []
    assert RELOADED not in journal.messages(cursor, running.pid)
    assert getter_values(running) == expected(1)
    assert observe_levels(running)[:2] == WRITES["trace"]
    assert running.state() == "active"
