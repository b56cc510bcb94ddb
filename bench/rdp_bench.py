"""RDP benchmark, run inside the throwaway container by rdp-in-container.sh against the running vexa.service
and vexa-rdp.socket: Debian's xfreerdp in an Xvfb of its own logs in as a bench user, and this script draws on
the session's display (as root, through the session's X authority file) and reads single pixels of the client's
display, both through Xlib (ctypes), so that a look costs a fraction of a millisecond.

Prints figures; asserts nothing. Figures:
  connect     client start to the first full frame (every probe point of a screen-filling pattern shown),
              for the first login (the session starts) and the median of N reconnects to the running session
  latency     a square drawn on the session's screen to the same colour at the client, median and p90
  animation   a full-screen animation at 1024x768 (stripes that change every tile each frame, and a scrolled
              noise picture): frames per second that reached the client, bytes per second and per frame sent
              by the server (the connection's bytes_acked from ss)
  idle        CPU of a connected transport while nothing changes on the screen"""

import ctypes
import json
import os
import pathlib
import pwd
import statistics
import subprocess
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "system"))
import rdp_client  # noqa: E402

import dbus  # noqa: E402

USER, PASSWORD = "vexa-bench-rdp", "Bench-rdp-7Qx2-p9"
WIDTH, HEIGHT = 1024, 768
PORT = 3389
# the eight colours of the patterns: far apart, so that no codec turns one into another
PALETTE = [0xff0000, 0x00ff00, 0x0000ff, 0xffff00, 0x00ffff, 0xff00ff, 0xffffff, 0x202020]


class X:
    """One Xlib connection to a display: fills, picture puts and single-pixel reads on its root window."""

    lib = ctypes.CDLL("libX11.so.6")
    lib.XOpenDisplay.restype = ctypes.c_void_p
    lib.XOpenDisplay.argtypes = [ctypes.c_char_p]
    lib.XDefaultRootWindow.restype = ctypes.c_ulong
    lib.XDefaultRootWindow.argtypes = [ctypes.c_void_p]
    lib.XDefaultGC.restype = ctypes.c_void_p
    lib.XDefaultGC.argtypes = [ctypes.c_void_p, ctypes.c_int]
    lib.XDefaultVisual.restype = ctypes.c_void_p
    lib.XDefaultVisual.argtypes = [ctypes.c_void_p, ctypes.c_int]
    lib.XSetForeground.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_ulong]
    lib.XFillRectangle.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_void_p, ctypes.c_int, ctypes.c_int,
                                   ctypes.c_uint, ctypes.c_uint]
    lib.XSync.argtypes = [ctypes.c_void_p, ctypes.c_int]
    lib.XGetImage.restype = ctypes.c_void_p
    lib.XGetImage.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_int, ctypes.c_uint,
                              ctypes.c_uint, ctypes.c_ulong, ctypes.c_int]
    lib.XGetPixel.restype = ctypes.c_ulong
    lib.XGetPixel.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_int]
    lib.XDestroyImage.argtypes = [ctypes.c_void_p]
    lib.XCreateImage.restype = ctypes.c_void_p
    lib.XCreateImage.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_uint, ctypes.c_int, ctypes.c_int,
                                 ctypes.c_char_p, ctypes.c_uint, ctypes.c_uint, ctypes.c_int, ctypes.c_int]
    lib.XPutImage.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int,
                              ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_uint, ctypes.c_uint]
    lib.XCreatePixmap.restype = ctypes.c_ulong
    lib.XCreatePixmap.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_uint, ctypes.c_uint, ctypes.c_uint]
    lib.XSetWindowBackgroundPixmap.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_ulong]
    lib.XClearWindow.argtypes = [ctypes.c_void_p, ctypes.c_ulong]
    lib.XFreePixmap.argtypes = [ctypes.c_void_p, ctypes.c_ulong]
    ZPIXMAP, ALL_PLANES = 2, 0xffffffff

    def __init__(self, display, xauthority=None):
        if xauthority:
            os.environ["XAUTHORITY"] = str(xauthority)  # read by XOpenDisplay only
        self.dpy = self.lib.XOpenDisplay(f":{display}".encode())
        os.environ.pop("XAUTHORITY", None)
        if not self.dpy:
            raise RuntimeError(f"cannot open display :{display}")
        self.root = self.lib.XDefaultRootWindow(self.dpy)
        self.gc = self.lib.XDefaultGC(self.dpy, 0)

    def fill(self, x, y, w, h, rgb, sync=True, drawable=None):
        self.lib.XSetForeground(self.dpy, self.gc, rgb)
        self.lib.XFillRectangle(self.dpy, drawable or self.root, self.gc, x, y, w, h)
        if sync:
            self.lib.XSync(self.dpy, 0)

    def background(self, rectangles):
        """Makes the filled rectangles [(x, y, w, h, rgb)] the root window's background picture, which the server
        paints again by itself whenever the screen is cleared (a RandR size change at a reconnect is one)."""
        pixmap = self.lib.XCreatePixmap(self.dpy, self.root, WIDTH, HEIGHT, 24)
        for x, y, w, h, rgb in rectangles:
            self.fill(x, y, w, h, rgb, sync=False, drawable=pixmap)
        self.lib.XSetWindowBackgroundPixmap(self.dpy, self.root, pixmap)
        self.lib.XFreePixmap(self.dpy, pixmap)
        self.lib.XClearWindow(self.dpy, self.root)
        self.lib.XSync(self.dpy, 0)

    def pixel(self, x, y):
        image = self.lib.XGetImage(self.dpy, self.root, x, y, 1, 1, self.ALL_PLANES, self.ZPIXMAP)
        value = self.lib.XGetPixel(image, 0, 0) & 0xffffff
        self.lib.XDestroyImage(image)
        return value

    def picture(self, width, height, data):
        """An XImage of 32-bit pixels; `data` must stay alive as long as it is used (XDestroyImage is never
        called on it, which would free Python's buffer)."""
        visual = self.lib.XDefaultVisual(self.dpy, 0)
        return self.lib.XCreateImage(self.dpy, visual, 24, self.ZPIXMAP, 0, data, width, height, 32, width * 4)

    def put(self, image, src_x, src_y, width, height):
        self.lib.XPutImage(self.dpy, self.root, self.gc, image, src_x, src_y, 0, 0, width, height)


def near(a, b, tolerance=40):
    return all(abs(((a >> s) & 0xff) - ((b >> s) & 0xff)) <= tolerance for s in (0, 8, 16))


def nearest(value):
    return min(range(len(PALETTE)), key=lambda i: sum(abs(((value >> s) & 0xff) - ((PALETTE[i] >> s) & 0xff))
                                                      for s in (0, 8, 16)))


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(share * (len(ordered) - 1))))]


def grid(session, shift=0):
    """A 4x4 grid of palette colours over the whole screen as the root window's background; the probe points are
    near the squares' top left corners, away from the middle of the screen, where the daemon shows its notice of a
    reconnect."""
    w, h = WIDTH // 4, HEIGHT // 4
    squares = [(col * w, row * h, w, h, PALETTE[(row * 4 + col + shift) % len(PALETTE)])
               for row in range(4) for col in range(4)]
    session.background(squares)
    return [(x + 8, y + 8, colour) for x, y, w, h, colour in squares]


def transports():
    uid = pwd.getpwnam("vexa-rdp").pw_uid
    return [int(p.name) for p in pathlib.Path("/proc").iterdir() if p.name.isdigit() and p.stat().st_uid == uid]


def sent_bytes():
    """bytes_acked of the server side of the RDP connections (ss -ti)."""
    out = subprocess.run(["ss", "-tinH", "state", "established", f"( sport = :{PORT} )"], capture_output=True,
                         text=True, timeout=10, check=False).stdout
    return sum(int(word.split(":")[1]) for word in out.split() if word.startswith("bytes_acked:"))


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(") ", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def wait(predicate, timeout, what):
    end = time.monotonic() + timeout
    while not (value := predicate()):
        if time.monotonic() > end:
            raise RuntimeError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.002)
    return value


class Bench:
    def __init__(self, out, reconnects):
        self.out, self.reconnects = pathlib.Path(out), reconnects
        self.clients = rdp_client.Clients(self.out)
        self.screen = self.clients.screen(WIDTH, HEIGHT)
        self.viewer = X(self.screen.display)
        self.session = None

    @staticmethod
    def vexa(method, signature="", *args):
        return dbus.SystemBus().call_blocking("ru.kelvo.vexa", "/ru/kelvo/vexa", "ru.kelvo.vexa", method, signature, args)

    def connect(self, probes):
        """Starts a client; seconds until every probe point shows its colour at the client."""
        started = time.monotonic()
        client = self.clients.connect(USER, PASSWORD, screen=self.screen, size=(WIDTH, HEIGHT), port=PORT)
        self.full_frame(client, probes)
        if not client.alive():
            raise RuntimeError(f"xfreerdp exited {client.proc.returncode}: {client.output()[-1500:]}")
        return client, time.monotonic() - started

    def full_frame(self, client, probes):
        try:
            wait(lambda: all(near(self.viewer.pixel(x, y), c) for x, y, c in probes) or not client.alive(), 60,
                 "the first full frame")
        except RuntimeError as error:
            looks = [(hex(c), hex(self.session.pixel(x, y)), hex(self.viewer.pixel(x, y))) for x, y, c in probes]
            raise RuntimeError(f"{error}; (wanted, session, client) at the probe points: {looks}") from None

    def first_login(self):
        """The first login starts the session; its screen is the grid once the session exists."""
        started = time.monotonic()
        client = self.clients.connect(USER, PASSWORD, screen=self.screen, size=(WIDTH, HEIGHT), port=PORT)
        sid = wait(lambda: [int(s) for u, s in self.vexa("vexaSessions") if str(u) == USER], 60, "the session")[0]
        info = json.loads(str(self.vexa("vexaSessionInfoJson", "u", sid)))
        self.session = wait(lambda: self._open(info), 30, "the session's display")
        probes = grid(self.session)
        self.full_frame(client, probes)
        elapsed = time.monotonic() - started
        if not client.alive():
            raise RuntimeError(f"xfreerdp exited {client.proc.returncode}: {client.output()[-1500:]}")
        return client, elapsed, probes

    @staticmethod
    def _open(info):
        try:
            return X(info["display"], info["xauthfile"])
        except RuntimeError:
            return None

    def close(self, client):
        pids = transports()
        client.close()
        wait(lambda: not set(pids) & set(transports()), 15, "the transport to end")

    def reconnect_times(self):
        times = []
        for i in range(self.reconnects):
            probes = grid(self.session, shift=i + 1)  # a screen the client cannot have from before
            client, elapsed = self.connect(probes)
            times.append(elapsed)
            self.close(client)
        print(f"connect   reconnect to the running session, {len(times)} runs: median "
              f"{statistics.median(times) * 1000:6.0f} ms, min {min(times) * 1000:6.0f} ms, max {max(times) * 1000:6.0f} ms")

    def latency(self, client, rounds=40):
        samples = []
        for i in range(rounds):
            colour = PALETTE[i % 7]
            self.session.fill(480, 360, 64, 64, colour)
            drawn = time.monotonic()
            wait(lambda: near(self.viewer.pixel(512, 392), colour), 10, "the square at the client")
            samples.append(time.monotonic() - drawn)
            time.sleep(0.1)
        print(f"latency   64x64 square, {rounds} changes: median {statistics.median(samples) * 1000:6.1f} ms, "
              f"p90 {percentile(samples, 0.9) * 1000:6.1f} ms, max {max(samples) * 1000:6.1f} ms")

    def animation(self, name, seconds, frame):
        """Draws `frame(k)` as fast as 60 per second for `seconds`, the marker square (0,0) in palette colour
        k % 8; counts the marker's changes seen at the client."""
        stop = threading.Event()
        seen = [0]

        def watch():
            last = None
            while not stop.is_set():
                index = nearest(self.viewer.pixel(24, 24))
                if index != last:
                    seen[0] += last is not None
                    last = index
                time.sleep(0.001)  # a look costs about 0.1 ms: leave the two cores to the server and client

        watcher = threading.Thread(target=watch)
        before, started, drawn = sent_bytes(), time.monotonic(), 0
        watcher.start()
        while time.monotonic() - started < seconds:
            tick = time.monotonic()
            frame(drawn)
            self.session.fill(0, 0, 48, 48, PALETTE[drawn % len(PALETTE)])
            drawn += 1
            time.sleep(max(0.0, 1 / 60 - (time.monotonic() - tick)))
        elapsed = time.monotonic() - started
        time.sleep(0.5)
        stop.set()
        watcher.join()
        sent = sent_bytes() - before
        print(f"animation {name:22} {drawn / elapsed:5.1f} frames/s drawn, {seen[0] / elapsed:5.1f} frames/s at the "
              f"client, {sent / elapsed / 1e6:6.2f} MB/s, {sent / max(seen[0], 1) / 1e3:7.1f} kB/frame sent")

    def animations(self, seconds):
        stripes = 32

        def stripe_frame(k):
            w = WIDTH // stripes
            for i in range(stripes):
                shade = (i * 8 + k * 4) % 256
                self.session.fill(i * w, 0, w, HEIGHT, (shade << 16) | ((255 - shade) << 8) | (k * 3 % 256),
                                  sync=False)

        self.animation("stripes (every tile)", seconds, stripe_frame)
        noise_w = WIDTH + 256
        data = ctypes.create_string_buffer(os.urandom(noise_w * HEIGHT * 4), noise_w * HEIGHT * 4)
        image = self.session.picture(noise_w, HEIGHT, data)

        def noise_frame(k):
            self.session.put(image, (k * 16) % 256, 0, WIDTH, HEIGHT)

        self.animation("scrolled noise (worst)", seconds, noise_frame)

    def idle(self, seconds):
        pids = transports()
        time.sleep(2)
        before = {p: cpu_seconds(p) for p in pids}
        time.sleep(seconds)
        for pid in pids:
            used = cpu_seconds(pid) - before[pid]
            print(f"idle      transport pid {pid}: {used / seconds * 100:5.2f} % of a core over {seconds} s "
                  f"({used * 1000:.0f} ms CPU)")

    def run(self, seconds):
        print(f"RDP bench: xfreerdp {WIDTH}x{HEIGHT} over 127.0.0.1:{PORT}, {os.cpu_count()} cores")
        # the first connection measures everything but the reconnects: each reconnect leaves the daemon's notice of
        # it in the middle of the screen
        client, first, _ = self.first_login()
        print(f"connect   first login (session start, PAM, X server): {first * 1000:7.0f} ms")
        said = subprocess.run(["journalctl", "-q", "-o", "cat", "-t", "vexa_rdp_transport", "-g", "codec:", "-n", "1"],
                              capture_output=True, text=True, timeout=30, check=False).stdout.strip()
        print(f"          the transport: {said or '(no word on its codec)'}")
        self.latency(client)
        self.animations(seconds)
        grid(self.session)
        self.idle(seconds)
        self.close(client)
        self.reconnect_times()
        self.clients.stop()


def main():
    out, reconnects, seconds = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    Bench(out, reconnects).run(seconds)


if __name__ == "__main__":
    main()
