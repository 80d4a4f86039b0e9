"""Runs the real binary (MEDIAWALK_BIN, behind MEDIAWALK_LAUNCHER, e.g. "qemu-mipsel -L /sysroot") in
a private mount namespace with its own /etc overlay, /tmp and /run (sandbox.sh), in a folder under
MEDIAWALK_E2E_WORK, and looks at what it left. Samples and case tables: MEDIAWALK_FIXTURES."""

import json
import os
import shlex
import shutil
import socket
import sqlite3
import struct
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.parse

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))


def _hidden(path):  # under /tmp or /run, which the sandbox replaces
    return any((os.path.realpath(path) + "/").startswith(d + "/") for d in ("/tmp", os.path.realpath("/run")))


BIN = os.path.abspath(os.environ.get("MEDIAWALK_BIN") or os.path.join(REPO, "build", "mediawalk"))
LAUNCHER = os.environ.get("MEDIAWALK_LAUNCHER", "").split()
WORK_ROOT = os.path.realpath(os.environ.get("MEDIAWALK_E2E_WORK") or os.path.join(REPO, "build", "tests", "e2e-work"))
if _hidden(WORK_ROOT):
    WORK_ROOT = "/var/tmp/mediawalk-e2e-%d" % os.getuid()
FIXTURES = os.environ.get("MEDIAWALK_FIXTURES") or os.path.join(REPO, "tests", "data")
CASES = os.path.join(FIXTURES, "e2e")
DB_SUFFIX = ".systemfile/.upnpav-db/upnpav.db"
SYSTEM_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
NODE = "/runtime/scan_media/"
_problem = None


def _unshare():
    return ["unshare", "--mount"] + ([] if os.geteuid() == 0 else ["--map-root-user"])


def sandbox_problem():
    """None when a sandboxed run works here, else why not."""
    global _problem
    if _problem is None and not shutil.which("unshare"):
        _problem = "unshare (util-linux) is not installed"
    if _problem is None:
        os.makedirs(WORK_ROOT, exist_ok=True)
        probe = tempfile.mkdtemp(prefix="probe", dir=WORK_ROOT)
        for sub in ("etc", "ovl", "tmp", "run"):
            os.mkdir(os.path.join(probe, sub))
        proc = subprocess.run(_unshare() + ["sh", os.path.join(HERE, "sandbox.sh"), "-e", probe + "/etc", "-o",
                                            probe + "/ovl", "-t", probe + "/tmp", "-r", probe + "/run", "--", "touch",
                                            "/tmp/seen"], capture_output=True, timeout=60, stdin=subprocess.DEVNULL)
        ok = proc.returncode == 0 and os.path.exists(probe + "/tmp/seen")
        _problem = "" if ok else "private mount namespaces are not available: %r" % proc.stderr
        rmtree(probe)
    return _problem or None


def rmtree(path):
    """Removes a folder, overlayfs work folders left with mode 000 included."""
    for dirpath, dirnames, _ in os.walk(path):
        for d in dirnames:
            if not os.path.islink(os.path.join(dirpath, d)):
                os.chmod(os.path.join(dirpath, d), 0o700)
    shutil.rmtree(path, ignore_errors=True)


def latin1_tag(frames):
    """An ID3v2.3 tag of text frames declared ISO-8859-1, (id, raw bytes) pairs stored as given."""
    body = b"".join(fid.encode() + (len(t) + 1).to_bytes(4, "big") + b"\0\0\0" + t for fid, t in frames)
    n = len(body)
    return b"ID3\x03\x00\x00" + bytes([(n >> 21) & 127, (n >> 14) & 127, (n >> 7) & 127, n & 127]) + body


def raw(text):  # table texts are UTF-8, with \\udcXX escapes for bytes that are not
    return text.encode("utf-8", "surrogateescape") if isinstance(text, str) else text


def text(value):  # the inverse of raw()
    return value.decode("utf-8", "surrogateescape") if isinstance(value, bytes) else value


def fixture(rel):
    with open(os.path.join(FIXTURES, rel), "rb") as f:
        return f.read()


def content(desc):
    """A file's bytes from its table description: text, {"fixture": sample}, or {"tag": frames, "audio": sample}."""
    if isinstance(desc, str):
        return raw(desc)
    if "tag" in desc:
        return latin1_tag([(f, raw(t)) for f, t in desc["tag"]]) + fixture(
            desc.get("audio", "audio/cbr32_44k.mp3"))
    return fixture(desc["fixture"])


def load_cases(name):
    with open(os.path.join(CASES, name), encoding="utf-8") as f:
        return json.load(f)


def wait_for(predicate, timeout=60.0):
    """Polls for an event; the timeout is only a guard against a run that never gets there."""
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.005)
    return True


def process_state(pid):
    try:
        with open("/proc/%d/stat" % pid, "rb") as f:
            data = f.read()
        return data[data.rindex(b")") + 2:][:1].decode()
    except OSError:
        return None


def open_paths(pid):
    try:
        return [os.readlink("/proc/%d/fd/%s" % (pid, fd)) for fd in os.listdir("/proc/%d/fd" % pid)]
    except OSError:
        return []


class Xmldb:
    """The daemon stand-in: records [node, value] of each request, also as lines of `log` (which a
    stub can wait for); "answer" replies with status 0, "silent" never, "absent" has no socket."""

    def __init__(self, path, mode, log):
        self.path, self.mode, self.log, self.requests, self.held = path, mode, log, [], []
        if mode != "absent":
            self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            self.sock.bind(path)
            self.sock.listen(16)
            threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            data, chunk = b"", b"-"
            while chunk and (len(data) < 12 or len(data) < 12 + struct.unpack_from("<HHII", data)[1]):
                chunk = conn.recv(4096)
                data += chunk
            action, length, flags, reserved = struct.unpack_from("<HHII", data.ljust(12, b"\0"))
            payload = data[12:]
            assert (action, flags, reserved, length) == (2, 0, 0, len(payload)) and payload.endswith(b"\0"), data
            node, _, value = payload[:-1].decode("latin-1").partition(" ")
            self.requests.append([node[len(NODE):] if node.startswith(NODE) else node, value])
            with open(self.log, "a") as f:
                f.write("%s %s\n" % tuple(self.requests[-1]))
            if self.mode == "answer":
                conn.sendall(bytes(12))
                conn.close()
            else:
                self.held.append(conn)

    def stop(self):
        if self.mode != "absent":
            self.sock.close()
            for conn in self.held:
                conn.close()
            os.unlink(self.path)


def _catch(errors, call, *args):
    try:
        call(*args)
    except BaseException as e:  # raised again in the test's thread
        errors.append(e)


class Result:
    def __init__(self, status, stdout):
        self.status, self.stdout = status, stdout
        self.lines = (stdout[:-1] if stdout.endswith(b"\n") else stdout).split(b"\n") if stdout else []

    def __repr__(self):
        return "Result(status=%d, stdout=%r)" % (self.status, self.stdout[-3000:])


class Sandbox:
    """One test's world: share/ and mnt/ (the default paths), etc/ (the /etc overlay), tmp/, run/,
    bin/ (first on PATH: the detector stub) and log/."""

    def __init__(self, name="t", tz="UTC"):
        os.makedirs(WORK_ROOT, exist_ok=True)
        self.root = tempfile.mkdtemp(prefix=name[:8], dir=WORK_ROOT)
        for sub in ("share", "mnt", "etc", "tmp", "run", "bin", "log"):
            os.mkdir(self.path(sub))
        os.chmod(self.path("tmp"), 0o1777)
        self.share, self.mnt, self.tmp = self.path("share") + "/", self.path("mnt") + "/", self.path("tmp")
        self.tz, self.wrapper, self.whiteouts, self.xmldb, self.extra_env = tz, [], set(), None, {}
        self.detector_log = self.path("log", "detector")
        self.bin = BIN
        if _hidden(BIN):  # the sandbox cannot see it there: run a copy
            self.bin = self.path("bin", os.path.basename(BIN))
            shutil.copy2(BIN, self.bin)
        self.detector("windows-1252")

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def db_path(self):
        return self.mnt + DB_SUFFIX

    def etc(self, name, content):
        """Writes /etc/NAME (bytes or str), or with None makes it absent even when the host has it."""
        if os.path.lexists(self.path("etc", name)):
            os.unlink(self.path("etc", name))
        (self.whiteouts.add if content is None else self.whiteouts.discard)(name)
        if content is not None:
            self.file(self.path("etc", name), content)

    def conf(self, sharename="share", **settings):
        lines = {"sharepath": self.share, "mntpath": self.mnt, "sd_status": "active", "sharename": sharename}
        lines.update(settings)
        self.etc("upnpav.conf", "".join("%s=%s\n" % kv for kv in lines.items()))

    def script(self, name, body):
        with open(self.path("bin", name), "w") as f:
            f.write("#!/bin/sh\n" + body)
        os.chmod(self.path("bin", name), 0o755)

    def detector(self, answer=None, status=0, extra=""):
        """The detect_char_encode stub: logs its argument count and argument, runs `extra` (shell
        text, with $1 the sample), prints `answer` and exits with `status`; None removes it."""
        if answer is None:
            stub = self.path("bin", "detect_char_encode")
            return os.path.lexists(stub) and os.unlink(stub)
        self.file(self.path("bin", "answer"), answer)
        log = shlex.quote(self.detector_log)
        self.script("detect_char_encode", "echo $# >> %s.argc\nprintf '%%s\\000' \"$1\" >> %s\n%s\ncat %s\nexit %d\n"
                    % (log, log, extra, shlex.quote(self.path("bin", "answer")), status))

    def real_detector(self, program):
        """A real detector first on PATH; under an emulator reached through the launcher."""
        self.detector(None)
        shutil.copy2(program, self.path("bin", "detector.target"))
        self.script("detect_char_encode", "exec %s \"$@\"\n" % " ".join(
            shlex.quote(w) for w in LAUNCHER + [self.path("bin", "detector.target")]))

    def detector_calls(self):
        return (self.read_tmp(self.detector_log) or b"").split(b"\0")[:-1]

    def file(self, rel, content=b"", mtime=None, base=None):
        p = os.path.join(raw(base or self.share), raw(rel))
        os.makedirs(os.path.dirname(p), exist_ok=True)
        with open(p, "wb") as f:
            f.write(raw(content))
        if mtime is not None:
            os.utime(p, (mtime, mtime))
        return p

    def run(self, xmldb="answer", during=None, stdout=subprocess.PIPE, timeout=300):
        """Runs the binary once. during(proc), if given, runs in a thread meanwhile; proc.pid is the
        program itself (unshare and sandbox.sh exec into it). Its exception is raised here."""
        ovl = tempfile.mkdtemp(prefix="ovl", dir=self.root)
        self.xmldb = Xmldb(self.path("run", "xmldb_sock"), xmldb, self.path("log", "xmldb"))
        errors, helper = [], None
        try:
            proc = subprocess.Popen(self.command(ovl), env=self.environment(), cwd=self.root,
                                    stdin=subprocess.DEVNULL, stdout=stdout, stderr=subprocess.PIPE)
            if during:
                helper = threading.Thread(target=lambda: _catch(errors, during, proc), daemon=True)
                helper.start()
            out, err = proc.communicate(timeout=timeout)  # a guard only: the run is not timed
        finally:
            if helper:
                helper.join(60)
            self.xmldb.stop()
            rmtree(ovl)
        if errors:
            raise errors[0]
        assert not any(w in err for w in (b"sandbox.sh:", b"Sanitizer", b"runtime error")), err
        return Result(proc.returncode, out or b"")

    def command(self, ovl):
        """The command line of one run, with `ovl` the overlay's work folder; the program is last."""
        return _unshare() + ["sh", os.path.join(HERE, "sandbox.sh"), "-e", self.path("etc"), "-o", ovl, "-t", self.tmp,
                             "-r", self.path("run")] + sum((["-w", w] for w in sorted(self.whiteouts)), []) + \
            ["--"] + self.wrapper + LAUNCHER + [self.bin]

    def environment(self):
        env = {"PATH": self.path("bin") + ":" + SYSTEM_PATH, "TZ": self.tz}
        env.update({k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS") or k == "QEMU_LD_PREFIX"})
        env.update(self.extra_env)
        return env

    def read_tmp(self, name):  # a file under /tmp as the run left it, or None
        try:
            with open(os.path.join(self.tmp, name), "rb") as f:
                return f.read()
        except FileNotFoundError:
            return None

    def committed(self):
        """A copy of what the database holds committed: opening it rolls a hot journal back."""
        copy = tempfile.mkdtemp(dir=self.path("log")) + "/db"
        for suffix in ("", "-journal"):
            if os.path.exists(self.db_path() + suffix):
                shutil.copyfile(self.db_path() + suffix, copy + suffix)
        con = sqlite3.connect(copy)
        con.text_factory = bytes
        return con

    def query(self, sql):
        con = sqlite3.connect("file:%s?mode=ro" % urllib.parse.quote(self.db_path()), uri=True)
        con.text_factory = bytes
        rows = con.execute(sql).fetchall()
        con.close()
        return rows

    def cleanup(self):
        if not os.environ.get("MEDIAWALK_E2E_KEEP"):
            rmtree(self.root)


class SandboxTestCase(unittest.TestCase):
    """Skips when no sandbox is possible or no binary is built; gives each test self.sb."""

    @classmethod
    def setUpClass(cls):
        if sandbox_problem():
            raise unittest.SkipTest("end-to-end tests skipped: " + sandbox_problem())
        if not os.path.isfile(BIN):
            if "MEDIAWALK_BIN" in os.environ:
                raise AssertionError("MEDIAWALK_BIN names no file: %s" % BIN)
            raise unittest.SkipTest("end-to-end tests skipped: no binary at %s" % BIN)

    def sandbox(self, name="t", tz="UTC"):
        sb = Sandbox(name, tz)
        self.addCleanup(sb.cleanup)
        sb.etc("codepage", "cp850\n")
        sb.conf()
        return sb

    def setUp(self):
        self.sb = self.sandbox(self._testMethodName[5:])
