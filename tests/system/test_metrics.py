"""The metrics: scraped over HTTP from the loopback socket unit as Prometheus would, checked with promtool, and
moving as sessions start, fail and end; the same text from vexactl; nothing served off loopback."""

import pathlib
import subprocess
import urllib.error
import urllib.request

from conftest import PASSWORD, PROGRAM, WRONG, as_user, run, wait_for

URL = "http://127.0.0.1:9466/metrics"


def scrape():
    with urllib.request.urlopen(URL, timeout=10) as reply:
        assert reply.headers["Content-Type"].startswith("text/plain; version=0.0.4")
        return reply.read().decode()


def samples(text):
    """{series: value} of the sample lines."""
    return {line.rsplit(" ", 1)[0]: float(line.rsplit(" ", 1)[1])
            for line in text.splitlines() if line and not line.startswith("#")}


def starts(values, outcome):
    return values[f'vexa_session_starts_total{{outcome="{outcome}"}}']


def test_counters_move_as_sessions_start_fail_and_end(sessions, new_user, make_user, procs):
    run(["systemctl", "start", "vexa-metrics.socket"])
    text = scrape()
    check = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)
    assert check.returncode == 0, check.stdout + check.stderr
    first = samples(text)
    assert first["vexa_sessions"] == 0 and first["vexa_session_start_duration_seconds_count"] == 0
    assert first["vexa_uptime_seconds"] > 0
    version = sessions.svc.value("vexaTest")
    assert first[f'vexa_build_info{{version="{version}"}}'] == 1

    user, _, sid, _ = sessions.new_session(new_user, "e2e-metrics")
    other, _ = new_user("e2e-metrics2")
    assert sessions.request(username=other, password=WRONG, **PROGRAM) < 0
    sessions.svc.call("vexaSessionsLimit", "u", 1)
    third, _ = new_user("e2e-metrics3")
    assert sessions.request(username=third, password=PASSWORD, **PROGRAM) == -6
    procs.transport(sid, "192.0.2.9")

    text = scrape()
    pathlib.Path("/e2e/out/metrics.txt").write_text(text)  # kept for the record
    now = samples(text)
    assert (starts(now, "success"), starts(now, "wrong_password"), starts(now, "refused")) == (1, 1, 1)
    assert now["vexa_session_start_duration_seconds_count"] == 1
    assert 0 < now["vexa_session_start_duration_seconds_sum"] < 30
    assert (now["vexa_sessions"], now["vexa_sessions_connected"], now["vexa_users"], now["vexa_transports"]) == (
        1, 1, 1, 1)
    assert now["vexa_uptime_seconds"] > first["vexa_uptime_seconds"]

    # vexactl prints the same families, for a monitoring account too.
    monitor = make_user("e2e-metmon", groups=["vexa-monitor"])
    printed = samples(run(as_user(monitor, "/usr/bin/vexactl", "metrics")).stdout)
    assert starts(printed, "success") == 1 and printed["vexa_sessions"] == 1

    sessions.svc.call("vexaSessionShutdown", "u", sid)
    sessions.signal("signalSessionShutdown", sid)
    ended = wait_for(lambda: (lambda v: v if v["vexa_sessions"] == 0 else None)(samples(scrape())),
                     what="the session to leave the metrics")
    assert (ended["vexa_transports"], starts(ended, "success")) == (0, 1)

    # Only loopback listens; anything but GET /metrics is turned away.
    listening = run(["ss", "-Hltn", "sport = :9466"]).stdout.split()
    assert "127.0.0.1:9466" in listening and "0.0.0.0:9466" not in listening and "*:9466" not in listening
    try:
        urllib.request.urlopen("http://127.0.0.1:9466/", timeout=10)
        raise AssertionError("/ answered")
    except urllib.error.HTTPError as e:
        assert e.code == 404


def test_a_stopped_daemon_is_reported_as_unavailable(service):
    run(["systemctl", "start", "vexa-metrics.socket"])
    try:
        urllib.request.urlopen(URL, timeout=10)
        raise AssertionError("answered without the daemon")
    except urllib.error.HTTPError as e:
        assert e.code == 503
