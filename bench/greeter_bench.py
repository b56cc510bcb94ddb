"""Login screen benchmark, run inside the throwaway container by greeter-in-container.sh against the running
vexa.service and vexa-rdp.socket: Debian's xfreerdp in an Xvfb of its own connects without a password, xdotool
types the bench user's name and password into the login screen, and single pixels of the client's display are
read through Xlib (ctypes) until the user's desktop (a terminal that fills the screen in the user's colour) is
there.

Prints figures; asserts nothing. Figures, median (and min, max) of N runs:
  new session      the Enter key that submits the password to the user's desktop on the client's screen; the
                   login starts the user's session (it is ended between runs)
  running session  the same, the user's session already running (a reconnect through the login screen)
  phases           from the journal of each run: the submit to the service's reply (the password check and the
                   session start), the reply to the transport's switch of displays, the switch to the desktop seen
                   at the client"""

import ctypes
import json
import os
import pathlib
import statistics
import subprocess
import sys
import time

# The client harness of the system tests, wherever this file sits in the source tree.
HERE = pathlib.Path(__file__).resolve()
TOP = pathlib.Path(os.environ.get("E2E_SRC_DIR") or next(p for p in HERE.parents
                                                          if (p / "tests/system/rdp_client.py").exists()))
sys.path.insert(0, str(TOP / "tests" / "system"))
import rdp_client  # noqa: E402

import dbus  # noqa: E402

USER, PASSWORD = "vexa-bench-greet", "Bench-greet-4Rv8-k2"
LOGIN_USER = "vexa-login"
WIDTH, HEIGHT = 1024, 768
DESKTOP = 0x7a1f5c  # the user's terminal (greeter-in-container.sh)
GREETER = 0x14304a  # the top of the login screen's background (src/greeter/greeter_main.cpp)
PROBES = [(20, 20), (WIDTH - 20, 20), (20, HEIGHT - 20), (WIDTH - 20, HEIGHT - 20), (WIDTH // 2, HEIGHT - 40)]


class Pixels:
    """Single pixels of an X display's root window through Xlib."""

    lib = ctypes.CDLL("libX11.so.6")
    lib.XOpenDisplay.restype = ctypes.c_void_p
    lib.XOpenDisplay.argtypes = [ctypes.c_char_p]
    lib.XDefaultRootWindow.restype = ctypes.c_ulong
    lib.XDefaultRootWindow.argtypes = [ctypes.c_void_p]
    lib.XGetImage.restype = ctypes.c_void_p
    lib.XGetImage.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_int, ctypes.c_uint,
                              ctypes.c_uint, ctypes.c_ulong, ctypes.c_int]
    lib.XGetPixel.restype = ctypes.c_ulong
    lib.XGetPixel.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_int]
    lib.XDestroyImage.argtypes = [ctypes.c_void_p]

    def __init__(self, display):
        self.dpy = self.lib.XOpenDisplay(f":{display}".encode())
        if not self.dpy:
            raise RuntimeError(f"cannot open display :{display}")
        self.root = self.lib.XDefaultRootWindow(self.dpy)

    def __call__(self, x, y):
        image = self.lib.XGetImage(self.dpy, self.root, x, y, 1, 1, 0xffffffff, 2)  # ZPixmap
        value = self.lib.XGetPixel(image, 0, 0) & 0xffffff
        self.lib.XDestroyImage(image)
        return value


def near(a, b, tolerance=40):
    return all(abs(((a >> s) & 0xff) - ((b >> s) & 0xff)) <= tolerance for s in (0, 8, 16))


def wait(predicate, timeout, what):
    end = time.monotonic() + timeout
    while not (value := predicate()):
        if time.monotonic() > end:
            raise RuntimeError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.002)
    return value


def vexa(method, signature="", *args):
    return dbus.SystemBus().call_blocking("ru.kelvo.vexa", "/ru/kelvo/vexa", "ru.kelvo.vexa", method, signature, args)


def listed():
    return {(str(user), int(sid)) for user, sid in vexa("vexaSessions")}


def journal_since(cursor):
    subprocess.run(["journalctl", "--sync"], check=False)
    out = subprocess.run(["journalctl", "-q", "-o", "json", f"--after-cursor={cursor}"], capture_output=True,
                         text=True, timeout=60, check=False).stdout
    return [json.loads(line) for line in out.splitlines()]


def journal_cursor():
    out = subprocess.run(["journalctl", "-q", "-o", "json", "-n", "1"], capture_output=True, text=True, timeout=60,
                         check=False).stdout
    return json.loads(out)["__CURSOR"]


def first(entries, ident, prefix):
    """The wall-clock second of the first entry of `ident` whose message begins with `prefix`."""
    for entry in entries:
        if entry.get("SYSLOG_IDENTIFIER") == ident and str(entry.get("MESSAGE", "")).startswith(prefix):
            return int(entry["__REALTIME_TIMESTAMP"]) / 1e6
    return None


class Bench:
    def __init__(self, out):
        self.clients = rdp_client.Clients(out)
        self.screen = self.clients.screen(WIDTH, HEIGHT)
        self.pixel = Pixels(self.screen.display)

    def run(self):
        """One login through the login screen: seconds from the submit to the desktop, and the phases."""
        cursor = journal_cursor()
        client = self.clients.connect(None, None, screen=self.screen, size=(WIDTH, HEIGHT))
        wait(lambda: near(self.pixel(20, 20), GREETER, 16) or not client.alive(), 60, "the login screen")
        if not client.alive():
            raise RuntimeError(f"xfreerdp exited {client.proc.returncode}: {client.output()[-1500:]}")
        client.type(USER)
        client.key("Return")
        client.type(PASSWORD)
        submitted, submitted_wall = time.monotonic(), time.time()
        client.key("Return", focus=False)
        wait(lambda: all(near(self.pixel(x, y), DESKTOP) for x, y in PROBES) or not client.alive(), 120,
             "the user's desktop")
        shown, shown_wall = time.monotonic(), time.time()
        if not client.alive():
            raise RuntimeError(f"xfreerdp exited {client.proc.returncode}: {client.output()[-1500:]}")
        entries = journal_since(cursor)
        replied = first(entries, "vexa_login_helper", "onSessionReply:")
        switched = first(entries, "vexa_rdp_transport", "switchDisplay:")
        phases = None
        if replied and switched:
            phases = (replied - submitted_wall, switched - replied, shown_wall - switched)
        client.close()
        wait(lambda: not [u for u, _ in listed() if u == LOGIN_USER], 30, "the login screen's session to end")
        return shown - submitted, phases

    def series(self, runs, new_session):
        times, phases = [], []
        for _ in range(runs):
            if new_session:
                for user, sid in listed():
                    if user == USER:
                        vexa("vexaSessionShutdown", "u", sid)
                wait(lambda: not listed(), 30, "no session left")
            seconds, phase = self.run()
            times.append(seconds)
            if phase:
                phases.append(phase)
        return times, phases


def report(name, times, phases):
    ms = sorted(t * 1000 for t in times)
    print(f"{name}: submit to desktop {statistics.median(ms):.0f} ms median of {len(ms)} "
          f"(min {ms[0]:.0f}, max {ms[-1]:.0f})")
    if phases:
        parts = [statistics.median(p[i] for p in phases) * 1000 for i in range(3)]
        print(f"{name}: phases (median): submit to reply {parts[0]:.0f} ms, reply to switch {parts[1]:.0f} ms, "
              f"switch to desktop {parts[2]:.0f} ms")


def main():
    out, runs = pathlib.Path(sys.argv[1]), int(sys.argv[2])
    bench = Bench(out)
    try:
        report("new session", *bench.series(runs, True))
        report("running session", *bench.series(runs, False))
    finally:
        bench.clients.stop()


if __name__ == "__main__":
    main()
