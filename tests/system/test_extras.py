"""Messages to a session's user and the remote-assistance program: the notification helper uses the session's
notification service when there is one and its own window when not; remote assistance starts and stops once."""

import json
import os
import subprocess

from conftest import as_user, processes, run, wait_for

# A notification service on the session bus that writes every Notify call as one JSON line and answers id 7.
SERVER = """
import json, sys
import dbus, dbus.service, dbus.mainloop.glib
from gi.repository import GLib
dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.SessionBus()
class Server(dbus.service.Object):
    @dbus.service.method("org.freedesktop.Notifications", in_signature="susssasa{sv}i", out_signature="u")
    def Notify(self, app, replaces, icon, summary, body, actions, hints, timeout):
        print(json.dumps([str(app), str(summary), str(body), int(hints.get("urgency", -1))]), flush=True)
        return 7
name = dbus.service.BusName("org.freedesktop.Notifications", bus)
Server(bus, "/org/freedesktop/Notifications")
print("ready", flush=True)
GLib.MainLoop().run()
"""


def windows(info):
    env = {**os.environ, "XAUTHORITY": info["xauthfile"]}
    return run(["xwininfo", "-root", "-tree", "-display", f":{info['display']}"], env=env).stdout


def test_a_message_reaches_the_users_notification_service_or_a_window_of_its_own(sessions, new_user):
    svc = sessions.svc
    user, _, sid, info = sessions.new_session(new_user, "e2e-notify")

    # No notification service on the session bus: the helper's own window shows the message.
    assert svc.value("vexaSendNotify", "ussy", sid, "Maintenance at 18:00", "Please save your work.", 1)
    wait_for(lambda: '"Maintenance at 18:00"' in windows(info), what="the helper's window")

    # A notification service: it gets the texts as they were sent, and the level as urgency.
    env = {**os.environ, "DBUS_SESSION_BUS_ADDRESS": info["dbus:address"]}
    server = subprocess.Popen(as_user(user, "/usr/bin/python3", "-c", SERVER), stdout=subprocess.PIPE, text=True,
                              env=env)
    try:
        assert server.stdout.readline().strip() == "ready"
        text = 'It\'s 5 o\'clock; "quoted" $(id) `id`'
        assert svc.value("vexaSendNotify", "ussy", sid, "Header", text, 2)
        assert json.loads(server.stdout.readline()) == ["Vexa", "Header", text, 2]
    finally:
        server.kill()
        server.wait()


def test_remote_assistance_starts_once_and_stops(daemon, new_user):
    sessions = daemon(**{"assistance:path": "/usr/bin/sleep", "assistance:args": ["7777"]})
    svc = sessions.svc
    _, uid, sid, _ = sessions.new_session(new_user, "e2e-assist")
    helpers = lambda: [pid for pid, argv in processes(uid, "sleep").items() if argv[1:] == ["7777"]]  # noqa: E731

    answers = [bool(svc.value("vexaSessionRemoteAssistance", "ub", sid, True))]
    program, = wait_for(helpers, what="the remote-assistance program")
    answers.append(bool(svc.value("vexaSessionRemoteAssistance", "ub", sid, True)))  # already running
    assert helpers() == [program] and sessions.info(sid)["assistance"] == program
    answers.append(bool(svc.value("vexaSessionRemoteAssistance", "ub", sid, False)))
    wait_for(lambda: not helpers(), what="the remote-assistance program to end")
    answers.append(bool(svc.value("vexaSessionRemoteAssistance", "ub", sid, False)))  # nothing to stop
    assert answers == [False, True, True, False]
    assert sessions.info(sid)["assistance"] == 0

