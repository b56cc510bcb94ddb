"""The RDP client side of the system tier: Debian's xfreerdp in an Xvfb of its own, screenshots of X displays
read back as pixels, and keys typed into the client with xdotool.

Nothing here knows the daemon: the same pieces drive a client against any RDP server (the tests, the demo and the
bench use them against vexa_rdp_transport). Every program runs with an argv; user names and passwords reach
xfreerdp as single arguments."""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import time

XFREERDP = "/usr/bin/xfreerdp"
XVFB = "/usr/bin/Xvfb"
# The clients' own displays. The daemon hands out its sessions' displays from "display:start" (101) upwards;
# the clients stay below it, so neither can take the other's number.
CLIENT_DISPLAYS = range(40, 100)


class HarnessError(AssertionError):
    pass


def _x_env(display, xauthority=None):
    env = {k: v for k, v in os.environ.items() if k not in ("DISPLAY", "XAUTHORITY")}
    env["DISPLAY"] = f":{display}"
    if xauthority:
        env["XAUTHORITY"] = str(xauthority)
    return env


def _wait(predicate, timeout, what):
    end = time.monotonic() + timeout
    while True:
        if value := predicate():
            return value
        if time.monotonic() >= end:
            raise HarnessError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.05)


class Image:
    """An RGB picture: width, height and 3 bytes per pixel, rows top to bottom."""

    def __init__(self, width, height, pixels):
        self.width, self.height, self.pixels = width, height, bytes(pixels)
        if len(self.pixels) != width * height * 3:
            raise HarnessError(f"{width}x{height} image with {len(self.pixels)} bytes")

    @classmethod
    def from_ppm(cls, data):
        """A binary PPM (P6, maxval 255) as netpbm writes it."""
        head = re.match(rb"P6\s+(\d+)\s+(\d+)\s+255\s", data)
        if not head:
            raise HarnessError(f"not an 8-bit binary PPM: {data[:20]!r}")
        width, height = int(head[1]), int(head[2])
        return cls(width, height, data[head.end():head.end() + width * height * 3])

    def crop(self, x, y, width, height):
        if x < 0 or y < 0 or x + width > self.width or y + height > self.height:
            raise HarnessError(f"{width}x{height}+{x}+{y} is not inside {self.width}x{self.height}")
        rows = (self.pixels[((y + r) * self.width + x) * 3:((y + r) * self.width + x + width) * 3]
                for r in range(height))
        return Image(width, height, b"".join(rows))

    def mismatch(self, other, tolerance=24):
        """The share of pixels whose colour differs from `other` by more than `tolerance` in some channel
        (lossy codecs move colours a little, never a pixel that belongs to another shape)."""
        if (self.width, self.height) != (other.width, other.height):
            return 1.0
        a, b, row, bad = self.pixels, other.pixels, self.width * 3, 0
        for start in range(0, len(a), row):
            if a[start:start + row] == b[start:start + row]:
                continue
            for i in range(start, start + row, 3):
                if (abs(a[i] - b[i]) > tolerance or abs(a[i + 1] - b[i + 1]) > tolerance
                        or abs(a[i + 2] - b[i + 2]) > tolerance):
                    bad += 1
        return bad / (self.width * self.height)

    def share(self, rgb, tolerance=24):
        """The share of pixels of about that colour."""
        target = bytes(rgb)
        count = 0
        for i in range(0, len(self.pixels), 3):
            px = self.pixels[i:i + 3]
            if all(abs(px[c] - target[c]) <= tolerance for c in range(3)):
                count += 1
        return count / (self.width * self.height)

    def ppm(self):
        return f"P6\n{self.width} {self.height}\n255\n".encode() + self.pixels

    def save_png(self, path):
        with open(path, "wb") as sink:
            proc = subprocess.run(["pnmtopng"], input=self.ppm(), stdout=sink, stderr=subprocess.PIPE, timeout=60,
                                  check=False)
        if proc.returncode:
            raise HarnessError(f"pnmtopng: {proc.stderr.decode(errors='replace').strip()}")
        return pathlib.Path(path)


def grab(display, xauthority=None):
    """The whole screen of an X display (`xwd -root`, through netpbm's xwdtopnm), as an Image."""
    env = _x_env(display, xauthority)
    xwd = subprocess.run(["xwd", "-root", "-silent"], env=env, capture_output=True, timeout=60, check=False)
    if xwd.returncode:
        raise HarnessError(f"xwd of :{display}: {xwd.stderr.decode(errors='replace').strip()}")
    ppm = subprocess.run(["xwdtopnm"], input=xwd.stdout, capture_output=True, timeout=60, check=False)
    if ppm.returncode:
        raise HarnessError(f"xwdtopnm: {ppm.stderr.decode(errors='replace').strip()}")
    return Image.from_ppm(ppm.stdout)


def screen_size(display, xauthority=None):
    out = subprocess.run(["xdpyinfo"], env=_x_env(display, xauthority), capture_output=True, text=True, timeout=30,
                         check=False).stdout
    for line in out.splitlines():
        if line.strip().startswith("dimensions:"):
            width, height = line.split()[1].split("x")
            return int(width), int(height)
    raise HarnessError(f"xdpyinfo of :{display} shows no dimensions")


class Screen:
    """An Xvfb for one client, on the first free display of CLIENT_DISPLAYS; no access control (only the test's
    processes run in the container)."""

    def __init__(self, width=1024, height=768, log_dir="/tmp"):
        self.width, self.height = width, height
        for number in CLIENT_DISPLAYS:
            if (pathlib.Path(f"/tmp/.X{number}-lock").exists()
                    or pathlib.Path(f"/tmp/.X11-unix/X{number}").exists()):
                continue
            self.display = number
            self.log = pathlib.Path(log_dir) / f"xvfb-{number}.log"
            with open(self.log, "wb") as out:
                self.proc = subprocess.Popen(
                    [XVFB, f":{number}", "-screen", "0", f"{width}x{height}x24", "-nolisten", "tcp", "-noreset",
                     "-ac"], stdout=out, stderr=subprocess.STDOUT, start_new_session=True)
            try:
                _wait(lambda: self.proc.poll() is not None or self._answers(), 10, f"Xvfb :{number}")
            except HarnessError:
                self.stop()
                raise
            if self.proc.poll() is None:
                return
            # another Xvfb took the number between the look and the start: the next one
        raise HarnessError("no free client display")

    def _answers(self):
        return subprocess.run(["xdpyinfo"], env=self.env, capture_output=True, timeout=10,
                              check=False).returncode == 0

    @property
    def env(self):
        return _x_env(self.display)

    def grab(self):
        return grab(self.display)

    def xdotool(self, *args, check=True):
        proc = subprocess.run(["xdotool", *args], env=self.env, capture_output=True, text=True, timeout=30,
                              check=False)
        if check and proc.returncode:
            raise HarnessError(f"xdotool {' '.join(args)}: {proc.stderr.strip()}")
        return proc.stdout

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()


class Client:
    """xfreerdp on a Screen, connected to HOST:PORT as USER with PASSWORD (None: not given); its output goes to a
    log file."""

    def __init__(self, screen, user, password, host="127.0.0.1", port=3389, size=None, extra=(), log=None):
        self.screen = screen
        self.size = size or (screen.width, screen.height)
        self.log = pathlib.Path(log or f"/tmp/xfreerdp-{screen.display}.log")
        # without a user name and password the client logs on with none: the server shows its login screen
        credentials = [f"/u:{user}"] * (user is not None) + [f"/p:{password}"] * (password is not None)
        self.argv = [XFREERDP, f"/v:{host}:{port}", *credentials, "/cert:ignore",
                     f"/size:{self.size[0]}x{self.size[1]}", "-grab-keyboard",
                     "-auto-reconnect", *extra]
        # xfreerdp exits 1 without a word when it has no HOME (as in a unit's job); a home of its own also keeps
        # its list of known certificates out of root's
        home = self.log.with_name(self.log.stem + ".home")
        home.mkdir(exist_ok=True)
        self.started = time.monotonic()
        with open(self.log, "wb") as out:
            self.proc = subprocess.Popen(self.argv, env={**screen.env, "HOME": str(home)}, stdout=out,
                                         stderr=subprocess.STDOUT, start_new_session=True)

    def alive(self):
        return self.proc.poll() is None

    def output(self):
        return self.log.read_text(errors="replace")

    def window(self, timeout=30):
        """The id of the client's mapped window."""
        def find():
            if not self.alive():
                raise HarnessError(f"xfreerdp exited {self.proc.returncode}: {self.output()[-2000:]}")
            ids = self.screen.xdotool("search", "--onlyvisible", "--pid", str(self.proc.pid), check=False).split()
            return ids[0] if ids else None
        return _wait(find, timeout, "the client's window")

    def wait_screen(self, predicate, timeout=30, what="the client's screen"):
        """Grabs the client's display until `predicate(image)` holds; returns that image."""
        last = [None]

        def look():
            if not self.alive():
                raise HarnessError(f"xfreerdp exited {self.proc.returncode} while waiting for {what}: "
                                   f"{self.output()[-2000:]}")
            last[0] = self.screen.grab()
            return last[0] if predicate(last[0]) else None
        return _wait(look, timeout, what)

    def focus(self):
        """The pointer into the client's window: with no window manager the keyboard follows the pointer."""
        window = self.window()
        self.screen.xdotool("mousemove", "--window", window, "5", "5")
        return window

    def point(self, x, y):
        """The pointer to (x, y) of the client's window, which is (x, y) of the remote screen: with no window
        manager in the session either, the session's keyboard follows its pointer too."""
        self.screen.xdotool("mousemove", "--window", self.window(), str(x), str(y))

    def type(self, text, focus=True):
        """Types into the client's window; focus=False leaves the pointer where point() put it."""
        if focus:
            self.focus()
        self.screen.xdotool("type", "--delay", "40", text)

    def key(self, *names, focus=True):
        if focus:
            self.focus()
        self.screen.xdotool("key", "--delay", "40", *names)

    def resize(self, width, height):
        self.screen.xdotool("windowsize", self.window(), str(width), str(height))

    def wait_exit(self, timeout=30):
        try:
            return self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise HarnessError(f"xfreerdp still runs after {timeout} s: {self.output()[-2000:]}") from None

    def close(self):
        """Ends the client as a user closing it would; returns its exit status."""
        if self.alive():
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.proc.pid, signal.SIGTERM)
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait()
        return self.proc.returncode


class Clients:
    """The screens and clients of one test (or one demo or bench run); stop() ends them all."""

    def __init__(self, log_dir):
        self.log_dir, self.screens, self.clients = pathlib.Path(log_dir), [], []

    def screen(self, width=1024, height=768):
        self.screens.append(Screen(width, height, self.log_dir))
        return self.screens[-1]

    def connect(self, user, password, size=(1024, 768), screen=None, **kw):
        screen = screen or self.screen(*size)
        log = self.log_dir / f"xfreerdp-{len(self.clients)}.log"
        self.clients.append(Client(screen, user, password, size=size, log=log, **kw))
        return self.clients[-1]

    def stop(self):
        for client in self.clients:
            client.close()
        for screen in self.screens:
            screen.stop()
