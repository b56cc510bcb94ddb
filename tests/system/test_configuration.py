"""The configuration and limits files: what the getters answer, the live reload."""

import time

import pytest

from conftest import CONFIG, LIMITS, Files, Service, assert_level, cursor, journal, pump, wait_line

# Differs from the built-in defaults in every value a getter reports.
CUSTOM = {
    "duration:timeout": 77, "seamless:timeout": 61, "inactivity:timeout": 5,
    "disconnect:timeout": 9, "clipboard:limit": 1024, "rdp:keepalive:interval": 30,
    "rdp:keepalive:failures": 4, "redirect:print": False, "redirect:drive": False,
    "redirect:smartcard": False, "redirect:audio": False, "redirect:microphone": False,
    "clipboard:server": False, "clipboard:client": True, "clipboard:file": False,
    "connect:policy": "multiallow", "session:disconnected:freeze": True, "login:helper": True,
    "login:sessions": True, "login:keyboard": True,
}
CONFIG_GETTERS = {
    "vexaDurationTimeoutDefault": 77, "vexaSeamlessTimeoutDefault": 61,
    "vexaInactivityTimeoutDefault": 5, "vexaDisconnectTimeoutDefault": 9,
    "vexaPolicyRedirectClipboardLimitDefault": 1024,
    "vexaPolicyRdpKeepAliveDefault": (4 << 32) | 30,  # failures in the high half
    "vexaPolicyRedirectPrinterDefault": False, "vexaPolicyRedirectDriveDefault": False,
    "vexaPolicyRedirectSmartcardDefault": False, "vexaPolicyRedirectAudioDefault": False,
    "vexaPolicyRedirectMicrophoneDefault": False,
    "vexaPolicyRedirectClipboardDefault": 0x2000000,  # the client's direction only
    "vexaPolicyRedirectClipboardFileDefault": False, "vexaPolicyConnectDefault": 3,
    "vexaSessionDisconnectedFreezeDefault": True, "vexaTransportPolicyShowLoginHelper": True,
    "vexaLoginHelperPolicyShowSessions": True, "vexaLoginHelperPolicyShowKeyboard": True,
}
LIMITS_DEFAULT = {"cpu:quota": 50, "cpu:weight": 200, "tasks:max": 300, "memory:high": "1G",
                  "memory:max": "2G", "network:deny": "10.0.0.0/8", "network:allow": "127.0.0.0/8"}
# "cpu:quota" -> vexaCpuQuotaDefault
LIMIT_GETTERS = {f"vexa{k.title().replace(':', '')}Default": v for k, v in LIMITS_DEFAULT.items()}


@pytest.fixture(scope="module")
def configured(bus):
    files, svc = Files(), Service(bus)
    files.write(CONFIG, CUSTOM)
    files.write(LIMITS, {"default": LIMITS_DEFAULT, "groups": [], "users": []})
    svc.start()
    yield svc
    svc.stop()
    files.restore()


@pytest.mark.parametrize("getter,expected", {**CONFIG_GETTERS, **LIMIT_GETTERS}.items())
def test_default_getters(configured, getter, expected):
    assert configured.value(getter) == expected


def config_getters(service):
    return {name: service.value(name) for name in CONFIG_GETTERS}


def test_reload_takes_a_new_file_once_and_keeps_its_values_when_the_file_breaks(
        service, files, unit_states):
    files.write(CONFIG, {})
    service.start()
    ready = time.monotonic()
    before = config_getters(service)
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
    assert config_getters(service) == CONFIG_GETTERS

    after = cursor()
    pump()
    unit_states.clear()
    files.write(CONFIG, '["not", "an", "object"]')
    error = wait_line(after, f"reloadConfigWatcher: json not object, file: {CONFIG}", service.pid)
    assert_level(error[0], "error")
    assert config_getters(service) == CONFIG_GETTERS
    assert "reloadConfigWatcher: success" not in [e["MESSAGE"] for e in journal(after)]
    pump()
    assert unit_states == []
