#!/usr/bin/python3
"""The demo's client: talks to the running vexa.service on the system bus as a transport and a management
client would.

    client.py --out DIR [--host]

It makes (or reuses) the demo user, asks for a session with vexaSessionRequest, prints what the service
and logind know about it, waits for the session's window, saves a screenshot of the session's display as
DIR/session.png and checks it. Then a real RDP client (xfreerdp in an Xvfb of its own) logs in to port 3389
as the demo user and is handed the same session: its screen is saved as DIR/rdp-connect.png, a command typed
into it runs in the session, it disconnects, connects again to the same session and its screen is saved as
DIR/rdp-reconnect.png (skipped with a message while /usr/libexec/vexa/vexa_rdp_transport is not installed).
Then it ends the session, stops the service over the bus and prints the signals it
heard and the daemon's journal lines. --host means a real machine rather than the throwaway container:
an existing demo user is then only reused when it is the one an earlier run made, and its password is
locked again at the end. Exit status 0 when every step succeeded, 1 otherwise."""

import argparse
import json
import os
import pathlib
import pwd
import secrets
import struct
import subprocess
import sys
import time
import traceback

import dbus
import dbus.mainloop.glib
from gi.repository import GLib

# the RDP client harness of the system tests
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests/system"))
import rdp_client  # noqa: E402  pylint: disable=wrong-import-position

BUS_NAME = INTERFACE = "ru.kelvo.vexa"
OBJECT_PATH = "/ru/kelvo/vexa"
UNIT = "vexa.service"

USER = "vexa-demo"
USER_COMMENT = "vexa_service demo user"
WIDTH, HEIGHT = 1024, 768
TITLE = "vexa demo"
# What the session's terminal runs: a constant of this script, run by the user's own shell in the session.
SESSION_SCRIPT = (
    "echo 'vexa_service demo session'; echo; "
    "echo \"user:    $(id -un)\"; "
    "echo \"id:      $(id)\"; "
    "echo \"display: $DISPLAY\"; "
    "echo \"logind:  session ${XDG_SESSION_ID:-?}\"; "
    "echo \"date:    $(date)\"; "
    "echo; echo 'an interactive shell of the session follows: what an RDP client types runs here'; "
    "exec /bin/sh -i"
)
SESSION = {
    "session:path": "/usr/bin/xterm",
    "session:args": ["-T", TITLE, "-geometry", "80x24+40+40", "-e", "/bin/sh", "-c", SESSION_SCRIPT],
}
TRANSPORT = pathlib.Path("/usr/libexec/vexa/vexa_rdp_transport")
RDP_PORT = 3389
WATCHED = ("signalSessionCreated", "signalProxyAllowConnection", "signalSessionShutdown",
           "signalSessionConnected", "signalSessionDisconnected", "signalVexaStopped")


def heading(text):
    print(f"\n== {text}")
    sys.stdout.flush()


def run(argv, **kw):
    return subprocess.run(argv, capture_output=True, text=True, timeout=60, **kw)


def show(argv, **kw):
    """Runs a command, prints its output indented; returns the completed process."""
    proc = run(argv, **kw)
    for line in (proc.stdout + proc.stderr).splitlines():
        if line.strip():
            print("  " + line)
    return proc


class Failed(Exception):
    pass


class Skipped(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failed(message)


def pump():
    while GLib.MainContext.default().iteration(False):
        pass


def wait_for(predicate, timeout, what):
    end = time.monotonic() + timeout
    while True:
        pump()
        value = predicate()
        if value:
            return value
        if time.monotonic() >= end:
            raise Failed(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.05)


class Demo:
    def __init__(self, out, host):
        self.out, self.host = out, host
        self.started = time.time()
        last = run(["journalctl", "-q", "-o", "json", "-n", "1"]).stdout.strip()
        self.cursor = json.loads(last)["__CURSOR"] if last else None
        self.t0 = time.monotonic()
        self.results = []
        self.signals = []
        self.password = secrets.token_urlsafe(18)
        self.sid = None
        self.rdp = self.client = self.socket_was = None
        self.replied = None
        self.user_made = False  # the demo user is ours: made or reused by this run, its password set
        self.info = {}
        dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
        self.bus = dbus.SystemBus()
        self.bus.add_signal_receiver(self.on_signal, None, INTERFACE, None, OBJECT_PATH, member_keyword="member")
        self.vexa = dbus.Interface(self.bus.get_object(BUS_NAME, OBJECT_PATH, introspect=False,
                                                        follow_name_owner_changes=True), INTERFACE)

    def on_signal(self, *args, member=None):
        self.signals.append((time.monotonic() - self.t0, str(member),
                             [int(a) if isinstance(a, (int, dbus.Boolean)) else str(a) for a in args]))

    def heard(self, name, *args):
        return [s for s in self.signals if s[1] == name and s[2][:len(args)] == list(args)]

    def step(self, title, function):
        heading(title)
        try:
            function()
            ok = True
        except Failed as error:
            print(f"  FAILED: {error}")
            ok = False
        except Skipped as reason:
            print(f"  SKIPPED: {reason}")
            ok = None
        except rdp_client.HarnessError as error:
            print(f"  FAILED: {error}")
            ok = False
        except dbus.exceptions.DBusException as error:
            print(f"  FAILED: {error.get_dbus_name()}: {error.get_dbus_message()}")
            ok = False
        except Exception:  # pylint: disable=broad-except
            print("  FAILED:")
            print("    " + traceback.format_exc().replace("\n", "\n    ").rstrip())
            ok = False
        self.results.append((title, ok))
        sys.stdout.flush()
        return ok

    # --- the steps ------------------------------------------------------------------------------------
    def service(self):
        state = run(["systemctl", "is-active", UNIT]).stdout.strip()
        print(f"  {UNIT}: {state}")
        check(state == "active", f"{UNIT} is {state}")
        print(f"  vexaTest       -> {str(self.vexa.vexaTest())}")
        print(f"  vexaApiVersion -> {int(self.vexa.vexaApiVersion())}")
        print(f"  vexaSessions   -> {[(str(u), int(s)) for u, s in self.vexa.vexaSessions()]}")

    def user(self):
        try:
            entry = pwd.getpwnam(USER)
        except KeyError:
            entry = None
        if entry is None:
            print(f"  creating user {USER} (useradd -m)")
            proc = run(["useradd", "-m", "-s", "/bin/sh", "-c", USER_COMMENT, USER])
            check(proc.returncode == 0, f"useradd: {proc.stderr.strip()}")
            entry = pwd.getpwnam(USER)
        elif entry.pw_gecos != USER_COMMENT and self.host:
            raise Failed(f"a user {USER} exists that an earlier demo did not make (comment {entry.pw_gecos!r}); "
                         "not touching it")
        else:
            print(f"  user {USER} exists already (made by an earlier demo run): reusing it")
        print(f"  setting a fresh random password for {USER} (chpasswd)")
        proc = run(["chpasswd"], input=f"{USER}:{self.password}\n")
        self.user_made = True
        check(proc.returncode == 0, f"chpasswd: {proc.stderr.strip()}")
        print(f"  {USER}: uid {entry.pw_uid}, home {entry.pw_dir}")

    def request(self):
        params = {"username": USER, "password": self.password, "width": WIDTH, "height": HEIGHT, **SESSION}
        shown = json.dumps({**params, "password": "********"}, indent=2)
        print("  vexaSessionRequest(" + shown.replace("\n", "\n  ") + ")")
        started = time.monotonic()
        reply = int(self.vexa.vexaSessionRequest(json.dumps(params), timeout=90))
        print(f"  -> {reply}   ({time.monotonic() - started:.2f} s)")
        check(reply > 0, f"the service refused the request: {reply}")
        self.sid, self.replied = reply, time.monotonic()
        wait_for(lambda: self.heard("signalSessionCreated", reply), 15, f"signalSessionCreated({reply})")
        wait_for(lambda: self.heard("signalProxyAllowConnection", reply), 15, f"signalProxyAllowConnection({reply})")
        print(f"  heard signalSessionCreated({reply}) and signalProxyAllowConnection({reply}, ...)")

    def session_info(self):
        check(self.sid, "no session")
        self.info = json.loads(str(self.vexa.vexaSessionInfoJson(dbus.UInt32(self.sid))))
        print("  vexaSessionInfoJson(%d):" % self.sid)
        # "ntlm" carries a hash of the password (for the transport's network level authentication)
        shown = {**self.info, **({"ntlm": "(hidden)"} if "ntlm" in self.info else {})}
        print("    " + json.dumps(shown, indent=2, sort_keys=True).replace("\n", "\n    "))
        check(self.info.get("display") and self.info.get("xauthfile"), "no display or X authority file in the answer")
        logind = str(self.info.get("systemd:sid", ""))
        check(logind, "no systemd:sid in the answer")
        print(f"  loginctl show-session {logind}:")
        proc = run(["loginctl", "show-session", logind])
        print("    " + proc.stdout.strip().replace("\n", "\n    "))
        check(proc.returncode == 0, f"loginctl: {proc.stderr.strip()}")

    def x_env(self):
        return {**os.environ, "DISPLAY": f":{self.info['display']}", "XAUTHORITY": str(self.info["xauthfile"])}

    def window(self):
        """The terminal's window once mapped: {x, y, width, height}."""
        found = {}

        def mapped():
            proc = run(["xwininfo", "-name", TITLE], env=self.x_env())
            if proc.returncode != 0 or "Map State: IsViewable" not in proc.stdout:
                return None
            for line in proc.stdout.splitlines():
                key, _, value = line.strip().partition(":")
                if key in ("Absolute upper-left X", "Absolute upper-left Y", "Width", "Height"):
                    found[key.split()[-1].lower()] = int(value)
            return found

        return wait_for(mapped, 20, f"the window {TITLE!r} to be mapped")

    def screenshot(self):
        check(self.info.get("display"), "no session display")
        env = self.x_env()
        print(f"  DISPLAY={env['DISPLAY']} XAUTHORITY={env['XAUTHORITY']}")
        for pid, argv in x_servers(self.info["display"]).items():
            print(f"  X server (pid {pid}): {' '.join(argv)}")
        win = self.window()
        print(f"  window {TITLE!r} mapped ({time.monotonic() - self.replied:.2f} s after the reply): "
              f"{win['width']}x{win['height']} at +{win['x']}+{win['y']}")
        show(["xwininfo", "-root", "-tree"], env=env)
        png = self.out / "session.png"
        # The terminal draws its text shortly after mapping: shoot until the text is there, then once more.
        verdict = None
        for _ in range(20):
            grab(env, png)
            verdict = inspect(png, win)
            if verdict["text"]:
                break
            time.sleep(0.25)
        time.sleep(0.5)
        grab(env, png)
        verdict = inspect(png, win)
        print(f"  saved {png} ({png.stat().st_size} bytes)")
        print(f"  check: PNG {verdict['width']}x{verdict['height']}, {verdict['colours']} colours; "
              f"window area: background {verdict['background']}, "
              f"{verdict['ink']} pixels of other colours ({verdict['share']:.1%})")
        check((verdict["width"], verdict["height"]) == (WIDTH, HEIGHT),
              f"the screenshot is {verdict['width']}x{verdict['height']}, not {WIDTH}x{HEIGHT}")
        check(verdict["colours"] > 1, "the screenshot is a single colour")
        check(verdict["text"], "no text in the terminal's window")
        print("  the screenshot is a real PNG of the session's screen with text in the terminal's window")

    # --- the RDP client -------------------------------------------------------------------------------
    def rdp_socket(self):
        if not TRANSPORT.exists():
            raise Skipped(f"{TRANSPORT} is not installed: this build has no RDP transport yet, so no RDP client "
                          "can connect (the session above was asked for over the bus as a transport would)")
        if self.host:
            # on a real machine the demo leaves the socket as it found it (see socket_back)
            self.socket_was = run(["systemctl", "is-enabled", "vexa-rdp.socket"]).stdout.strip()
        # what the package's post-install step does
        proc = show(["systemctl", "enable", "--now", "vexa-rdp.socket", "vexa-rdp-certificate.service"])
        check(proc.returncode == 0, "systemctl enable --now vexa-rdp.socket failed")
        show(["systemctl", "--no-pager", "status", "vexa-rdp.socket"])
        wait_for(lambda: port_open(RDP_PORT), 10, f"port {RDP_PORT} to listen")
        show(["ls", "-l", "/etc/vexa/rdp"])
        show(["openssl", "x509", "-noout", "-subject", "-enddate", "-in", "/etc/vexa/rdp/tls.crt"])

    def rdp_login(self, png):
        """xfreerdp logs in; waits until its screen shows the session's screen, saves it as `png`."""
        before = len(self.heard("signalSessionConnected", self.sid))
        started = time.monotonic()
        client = self.rdp.connect(USER, self.password, size=(WIDTH, HEIGHT))
        print(f"  xfreerdp /v:127.0.0.1:{RDP_PORT} /u:{USER} /p:******** /cert:ignore /size:{WIDTH}x{HEIGHT} "
              f"on display :{client.screen.display} (pid {client.proc.pid})")
        wait_for(lambda: len(self.heard("signalSessionConnected", self.sid)) > before or not client.alive(), 30,
                 f"signalSessionConnected({self.sid}, ...)")
        check(client.alive(), f"xfreerdp exited {client.proc.returncode}: {client.output()[-1500:]}")
        _, pid, addr = self.heard("signalSessionConnected", self.sid)[-1][2]
        print(f"  heard signalSessionConnected({self.sid}, transport pid {pid}, {addr})")
        sessions = [(str(u), int(s)) for u, s in self.vexa.vexaSessions()]
        print(f"  vexaSessions -> {sessions}")
        check(sessions == [(USER, self.sid)], f"not the demo's one session {self.sid}")
        session = rdp_client.grab(self.info["display"], self.info["xauthfile"])
        image = client.wait_screen(lambda img: img.crop(0, 0, WIDTH, HEIGHT).mismatch(
            rdp_client.grab(self.info["display"], self.info["xauthfile"])) < 0.01, 30,
            "the client's screen to show the session's")
        print(f"  the client's screen matches the session's display :{self.info['display']} "
              f"({time.monotonic() - started:.2f} s after the client started; "
              f"{image.crop(0, 0, WIDTH, HEIGHT).mismatch(session):.2%} pixels off the first look)")
        image.save_png(self.out / png)
        print(f"  saved {self.out / png}")
        return client

    def rdp_connect(self):
        self.client = self.rdp_login("rdp-connect.png")

    def rdp_type(self):
        home = pathlib.Path(pwd.getpwnam(USER).pw_dir)
        result = home / "rdp-typed.txt"
        result.unlink(missing_ok=True)
        command = "id -un > ~/rdp-typed.txt; echo typed over RDP >> ~/rdp-typed.txt"
        win = self.window()
        print(f"  the pointer over the session's terminal (+{win['x'] + 20}+{win['y'] + 20}): the session has no window "
              "manager, its keyboard goes to the window under its pointer")
        self.client.focus()
        self.client.point(win["x"] + 20, win["y"] + 20)
        print(f"  xdotool type on the client's display: {command!r}, then Return")
        self.client.type(command, focus=False)
        self.client.key("Return", focus=False)
        text = wait_for(lambda: result.exists() and result.read_text().endswith("RDP\n") and result.read_text(), 15,
                        f"{result}")
        print(f"  {result}: {text.strip()!r}")
        check(text == f"{USER}\ntyped over RDP\n", "the command did not run as the demo user")

    def rdp_disconnect(self):
        before = len(self.heard("signalSessionDisconnected", self.sid))
        status = self.client.close()
        print(f"  xfreerdp closed (status {status})")
        wait_for(lambda: len(self.heard("signalSessionDisconnected", self.sid)) > before, 15,
                 f"signalSessionDisconnected({self.sid})")
        print(f"  heard signalSessionDisconnected({self.sid}); the session goes on:")
        sessions = [(str(u), int(s)) for u, s in self.vexa.vexaSessions()]
        print(f"  vexaSessions -> {sessions}")
        check(sessions == [(USER, self.sid)], "the session did not stay")

    def rdp_reconnect(self):
        self.client = self.rdp_login("rdp-reconnect.png")
        print(f"  the same session {self.sid}, with the typed command still on its screen")
        self.client.close()

    def socket_back(self):
        """On a real machine: a socket that the demo enabled is disabled and stopped again, so that the demo leaves
        no port open."""
        if self.socket_was == "enabled":
            print("  vexa-rdp.socket was enabled before the demo: left as it is")
            return
        proc = show(["systemctl", "disable", "--now", "vexa-rdp.socket"])
        check(proc.returncode == 0, "systemctl disable --now vexa-rdp.socket failed")
        print(f"  port {RDP_PORT} closed again; enable it for good with: systemctl enable --now vexa-rdp.socket")

    def shutdown(self):
        check(self.sid, "no session")
        reply = bool(self.vexa.vexaSessionShutdown(dbus.UInt32(self.sid)))
        print(f"  vexaSessionShutdown({self.sid}) -> {reply}")
        check(reply, "the service refused the shutdown")
        wait_for(lambda: self.heard("signalSessionShutdown", self.sid), 15, f"signalSessionShutdown({self.sid})")
        print(f"  heard signalSessionShutdown({self.sid})")
        wait_for(lambda: not list(self.vexa.vexaSessions()), 10, "the session list to empty")
        print("  vexaSessions -> []")
        if self.info.get("xauthfile"):
            wait_for(lambda: not pathlib.Path(self.info["xauthfile"]).exists(), 10, "the X authority file to go")
            print(f"  {self.info['xauthfile']} removed")

    def stop(self):
        print("  busServiceShutdown()")
        self.vexa.busServiceShutdown()
        wait_for(lambda: self.heard("signalVexaStopped"), 10, "signalVexaStopped")
        print("  heard signalVexaStopped")
        state = wait_for(lambda: (s := run(["systemctl", "is-active", UNIT]).stdout.strip()) in ("inactive", "failed")
                         and s, 15, f"{UNIT} to stop")
        print(f"  {UNIT}: {state}")
        check(state == "inactive", f"{UNIT} is {state}")

    def signal_list(self):
        pump()
        for at, name, args in self.signals:
            print(f"  {at:7.2f} s  {name}({', '.join(map(str, args))})")
        missing = [n for n in ("signalSessionCreated", "signalProxyAllowConnection", "signalSessionShutdown",
                               "signalVexaStopped") if not self.heard(n)]
        check(not missing, "not heard: " + ", ".join(missing))

    def journal(self):
        run(["journalctl", "--sync"])
        # the unit's processes, systemd's lines about the unit, and the session manager (the daemon's child in
        # the session's scope)
        since = f"--after-cursor={self.cursor}" if self.cursor else f"--since=@{int(self.started) - 1}"
        proc = show(["journalctl", "--no-pager", "-o", "short-monotonic", since,
                     f"_SYSTEMD_UNIT={UNIT}", "+", f"UNIT={UNIT}", "+", "SYSLOG_IDENTIFIER=vexa_session_manager"])
        check(proc.returncode == 0, "journalctl failed")

    def lock_user(self):
        proc = run(["usermod", "-L", USER])
        check(proc.returncode == 0, f"usermod -L: {proc.stderr.strip()}")
        print(f"  password of {USER} locked again (usermod -L); remove the user with: userdel -r {USER}")

    def main(self):
        self.out.mkdir(parents=True, exist_ok=True)
        for name in ("session.png", "rdp-connect.png", "rdp-reconnect.png"):
            (self.out / name).unlink(missing_ok=True)
        self.step("1. the service", self.service)
        if self.step(f"2. demo user {USER}", self.user):
            self.step("3. session request", self.request)
        if self.sid:
            self.step("4. what the service and logind know", self.session_info)
            self.step("5. the session's screen", self.screenshot)
            self.rdp = rdp_client.Clients(self.out)
            try:
                if self.step("6a. RDP: the socket on port 3389", self.rdp_socket):
                    if self.step("6b. RDP: xfreerdp logs in as the demo user", self.rdp_connect):
                        self.step("6c. RDP: a command typed into the client", self.rdp_type)
                        if self.step("6d. RDP: disconnect", self.rdp_disconnect):
                            self.step("6e. RDP: reconnect to the same session", self.rdp_reconnect)
            finally:
                self.rdp.stop()
            if self.host and self.socket_was is not None:
                self.step("6f. RDP: the socket as it was", self.socket_back)
            self.step("7. session shutdown", self.shutdown)
        self.step("8. stopping the service over the bus", self.stop)
        self.step("9. signals heard", self.signal_list)
        self.step(f"10. journal: {UNIT} and vexa_session_manager", self.journal)
        if self.host and self.user_made:
            self.step("11. demo user", self.lock_user)
        heading("summary")
        for title, ok in self.results:
            print(f"  {'skipped' if ok is None else 'ok     ' if ok else 'FAILED '}  {title}")
        if (self.out / "session.png").exists():
            print(f"  screenshot: {self.out / 'session.png'}")
        for name in ("rdp-connect.png", "rdp-reconnect.png"):
            if (self.out / name).exists():
                print(f"  RDP client's screen: {self.out / name}")
        return 0 if all(ok is not False for _, ok in self.results) else 1


def port_open(port):
    """Whether something listens on the TCP port (asked of the kernel: a test connection would start a
    transport)."""
    return bool(run(["ss", "-ltnH", f"( sport = :{port} )"]).stdout.strip())


def x_servers(display):
    """{pid: argv} of the X servers of a display."""
    found = {}
    for entry in pathlib.Path("/proc").iterdir():
        try:
            argv = [a.decode(errors="replace") for a in (entry / "cmdline").read_bytes().split(b"\0")[:-1]]
        except (OSError, ValueError):
            continue
        if argv and os.path.basename(argv[0]) in ("Xorg", "Xvfb") and f":{display}" in argv:
            found[int(entry.name)] = argv
    return found


def grab(env, png):
    """xwd of the whole screen, through netpbm into a PNG file."""
    with open(png, "wb") as sink:
        xwd = subprocess.Popen(["xwd", "-root", "-silent", "-display", env["DISPLAY"]], env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        to_pnm = subprocess.Popen(["xwdtopnm"], stdin=xwd.stdout, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        xwd.stdout.close()
        to_png = subprocess.Popen(["pnmtopng"], stdin=to_pnm.stdout, stdout=sink, stderr=subprocess.PIPE)
        to_pnm.stdout.close()
        errors = [p.communicate(timeout=30)[1].decode(errors="replace").strip() for p in (to_png, to_pnm, xwd)]
    failed = [(name, p.returncode, err) for name, p, err in zip(("pnmtopng", "xwdtopnm", "xwd"),
                                                               (to_png, to_pnm, xwd), errors) if p.returncode]
    check(not failed, f"screenshot pipeline failed: {failed}")


def inspect(png, win):
    """Reads the PNG back: its header directly, its pixels through netpbm (pngtopnm, ppmtoppm) as binary PPM.
    Inside the window: the most common colour is the terminal's background, the other pixels its text."""
    data = png.read_bytes()
    check(data[:8] == b"\x89PNG\r\n\x1a\n" and data[12:16] == b"IHDR", f"{png} is no PNG file")
    width, height = struct.unpack(">II", data[16:24])
    to_pnm = subprocess.Popen(["pngtopnm", str(png)], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    ppm = subprocess.run(["ppmtoppm"], stdin=to_pnm.stdout, capture_output=True, timeout=30, check=False).stdout
    to_pnm.stdout.close()
    to_pnm.wait(timeout=30)
    fields = ppm.split(maxsplit=4)
    check(len(fields) == 5 and fields[0] == b"P6" and fields[3] == b"255", "pngtopnm | ppmtoppm gave no 8-bit PPM")
    w, h = int(fields[1]), int(fields[2])
    pixels = fields[4]
    check((w, h) == (width, height) and len(pixels) == w * h * 3, "the PNG's pixels do not match its header")
    colours = {pixels[i:i + 3] for i in range(0, len(pixels), 3 * 97)}  # a sample suffices for "more than one"
    counts = {}
    x0, y0 = max(win["x"], 0), max(win["y"], 0)
    x1, y1 = min(win["x"] + win["width"], w), min(win["y"] + win["height"], h)
    for y in range(y0, y1):
        row = pixels[(y * w + x0) * 3:(y * w + x1) * 3]
        for i in range(0, len(row), 3):
            counts[row[i:i + 3]] = counts.get(row[i:i + 3], 0) + 1
    total = sum(counts.values()) or 1
    background = max(counts, key=counts.get) if counts else b"\0\0\0"
    ink = total - counts.get(background, 0)
    return {"width": width, "height": height, "colours": len(colours), "background": "#" + background.hex(),
            "ink": ink, "share": ink / total, "text": 200 <= ink <= total // 2}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--out", required=True, type=pathlib.Path, help="where session.png goes")
    parser.add_argument("--host", action="store_true", help="a real machine, not the throwaway container")
    options = parser.parse_args()
    return Demo(options.out.resolve(), options.host).main()


if __name__ == "__main__":
    sys.exit(main())
