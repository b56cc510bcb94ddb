#!/usr/bin/python3
"""Talks to the running vexa.service as a management client would: asks a few questions, prints the
answers, then stops the service over the bus and shows the signal that announces it."""

import subprocess
import sys
import time

import dbus
import dbus.mainloop.glib
from gi.repository import GLib

BUS_NAME = "ru.kelvo.vexa"
OBJECT_PATH = "/ru/kelvo/vexa"


def main():
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.SystemBus()
    vexa = dbus.Interface(bus.get_object(BUS_NAME, OBJECT_PATH), BUS_NAME)

    print("vexa.service:", subprocess.run(["systemctl", "is-active", "vexa.service"],
                                          capture_output=True, text=True).stdout.strip())
    questions = [
        ("vexaTest", ()), ("vexaApiVersion", ()), ("vexaStatus", ()), ("vexaSessions", ()),
        ("zabbixSessionsTotal", ()), ("vexaPolicyConnectDefault", ()),
        ("vexaPolicyRedirectClipboardDefault", ()), ("vexaSeamlessTimeoutDefault", ()),
        ("vexaCheckProxyListen", ()), ("vexaLoadAverage", ()), ("vexaProgramList", ()),
    ]
    for method, args in questions:
        answer = getattr(vexa, method)(*args)
        print(f"  {method:38} -> {answer!r}")

    stopped = []
    loop = GLib.MainLoop()

    def on_stopped():
        stopped.append(time.monotonic())
        loop.quit()

    bus.add_signal_receiver(on_stopped, signal_name="signalVexaStopped", dbus_interface=BUS_NAME)
    print("calling busServiceShutdown ...")
    vexa.busServiceShutdown()
    GLib.timeout_add_seconds(5, loop.quit)
    loop.run()
    print("  signalVexaStopped received" if stopped else "  signalVexaStopped NOT received")

    for _ in range(50):
        state = subprocess.run(["systemctl", "is-active", "vexa.service"],
                               capture_output=True, text=True).stdout.strip()
        if state in ("inactive", "failed"):
            break
        time.sleep(0.1)
    print("vexa.service:", state)
    print("\njournal of vexa.service:")
    sys.stdout.flush()
    subprocess.run(["journalctl", "-u", "vexa.service", "-o", "short-monotonic", "--no-pager"])
    return 0 if stopped and state == "inactive" else 1


if __name__ == "__main__":
    sys.exit(main())
