"""The secrets a run of the tier hands the daemon (the test accounts' passwords, their NT hashes, the wrong
passwords the tests try, every X cookie the daemon writes) and a scan of journal entries for any of them."""

import hashlib
import hmac
import pathlib
import re
import struct
import subprocess
import threading

# Shorter texts than this are words a log line may hold for other reasons ("wrong").
SHORTEST = 8


def nt_hash(password):
    """MD4 of the UTF-16LE password. Python's hashlib has no MD4 under OpenSSL 3, the CLI's legacy provider does."""
    out = subprocess.run(["openssl", "dgst", "-md4", "-provider", "legacy", "-provider", "default", "-binary"],
                         input=password.encode("utf-16-le"), capture_output=True, check=True).stdout
    assert len(out) == 16, out
    return out


def xauth_cookies(data):
    """The cookies (hex) of an X authority file's entries: family, address, display number, name, data."""
    cookies, pos = [], 0
    try:
        while pos < len(data):
            pos += 2
            fields = []
            for _ in range(4):
                (size,) = struct.unpack_from(">H", data, pos)
                fields.append(data[pos + 2:pos + 2 + size])
                pos += 2 + size
            if fields[2] == b"MIT-MAGIC-COOKIE-1" and len(fields[3]) >= 16:
                cookies.append(fields[3].hex())
    except struct.error:
        pass  # caught while being written: the next look reads it whole
    return cookies


class Ledger:
    def __init__(self, *words):
        self.lock = threading.Lock()
        self.accounts = set()  # (user, password)
        self.words = set(words)
        self.cookies = set()
        self.watching = None

    def account(self, user, password):
        with self.lock:
            self.accounts.add((user, password))

    def secrets(self):
        """(kind, text) of every secret; hex ones in lower case."""
        with self.lock:
            accounts, words, cookies = set(self.accounts), set(self.words), set(self.cookies)
        found = {("cookie", c) for c in cookies}
        for user, password in accounts:
            words.add(password)
            key = nt_hash(password)
            found.add(("NT hash", key.hex()))
            found.add(("NTLMv2 hash", hmac.new(key, user.upper().encode("utf-16-le"), hashlib.md5).hexdigest()))
        found |= {("password", w) for w in words if len(w) >= SHORTEST}
        return sorted(found)

    def watch(self, directory="/run/vexa", period=0.05):
        """Collects the cookie of every X authority file that appears in `directory` until stopped."""
        stop = threading.Event()

        def look():
            while not stop.wait(period):
                for path in pathlib.Path(directory).glob("xauth_*"):
                    try:
                        cookies = xauth_cookies(path.read_bytes())
                    except OSError:
                        continue
                    with self.lock:
                        self.cookies.update(cookies)

        thread = threading.Thread(target=look, daemon=True)
        thread.start()
        self.watching = (stop, thread)

    def stop(self):
        if self.watching:
            self.watching[0].set()
            self.watching[1].join()


def leaks(secrets, entries):
    """(kind, secret, identifier, message) for each secret in an entry's message (hex ones in any case)."""
    kinds = dict((text, kind) for kind, text in secrets)
    exact = re.compile("|".join(re.escape(t) for k, t in secrets if k == "password") or "(?!)")
    hexes = re.compile("|".join(t for k, t in secrets if k != "password") or "(?!)")
    found = []
    for entry in entries:
        message = entry.get("MESSAGE")
        if isinstance(message, list):  # journald's form of a message that is not valid UTF-8
            message = bytes(message).decode("latin-1")
        if not message:
            continue
        for match in [*exact.finditer(message), *hexes.finditer(message.lower())]:
            found.append((kinds[match.group()], match.group(), entry.get("SYSLOG_IDENTIFIER", "?"), message))
    return found
