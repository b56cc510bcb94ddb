"""The configuration file reloaded live: the getters, the journal and systemd see it (the limits file: test_limits)."""

import time

from conftest import CONFIG, assert_level, cursor, journal, pump, wait_line

# Differs from the built-in defaults in every value these getters report (which key reaches which value: the
# unit tests of the defaults; here, that a reload reaches the running daemon).
CUSTOM = {"duration:timeout": 77, "connect:policy": "multiallow", "session:disconnected:freeze": True}
CONFIG_GETTERS = {"vexaDurationTimeoutDefault": 77, "vexaPolicyConnectDefault": 3,
                  "vexaSessionDisconnectedFreezeDefault": True}


def answers(service, getters):
    return {name: service.value(name) for name in getters}


def test_getters_follow_the_files_and_a_reload_takes_a_new_file_once_but_not_a_broken_one(
        service, files, unit_states):
    files.write(CONFIG, {})
    service.start()
    ready = time.monotonic()
    before = answers(service, CONFIG_GETTERS)
    assert all(before[name] != value for name, value in CONFIG_GETTERS.items())
    service.call("vexaUsersLimit", "u", 5)
    service.call("vexaSessionsLimit", "u", 7)
    # the watcher looks every 3 s; its first look only notes the modification time
    time.sleep(max(0, ready + 3.4 - time.monotonic()))
    after = cursor()
    pump()
    unit_states.clear()

    files.write(CONFIG, CUSTOM)
    wait_line(after, "reloadConfigWatcher: success", service.pid)
    time.sleep(3.3)  # one more look must not take the same change again
    lines = [e for e in journal(after, service.pid) if e["MESSAGE"].startswith("reloadConfig")]
    assert [e["MESSAGE"] for e in lines] == [
        "reloadConfigWatcher: users limit sets from API (5), skip config users:limit value",
        "reloadConfigWatcher: sessions limit sets from API(7), skip config sessions:limit value",
        "reloadConfigWatcher: success"]
    for entry, level in zip(lines, ["warning", "warning", "notice"]):
        assert_level(entry, level)
    pump()
    assert unit_states == ["reloading", "active"]
    assert answers(service, CONFIG_GETTERS) == CONFIG_GETTERS

    after = cursor()
    unit_states.clear()
    files.write(CONFIG, '["not", "an", "object"]')
    assert_level(wait_line(after, f"reloadConfigWatcher: json not object, file: {CONFIG}", service.pid)[0], "error")
    assert answers(service, CONFIG_GETTERS) == CONFIG_GETTERS
    assert "reloadConfigWatcher: success" not in [e["MESSAGE"] for e in journal(after)]
    pump()
    assert unit_states == []
