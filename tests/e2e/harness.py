"""Runs the real mediawalk binary in a private mount namespace and looks at what it left.

The program only knows fixed paths (/etc/upnpav.conf, /etc/codepage, /tmp/..., /var/run/xmldb_sock),
so every run gets its own /etc overlay, /tmp and /run inside `unshare --mount`; sandbox.sh does the
mounting. Everything a test owns (share, mount path, config, socket, detector stub, logs) lives in a
per-test folder under MEDIAWALK_E2E_WORK, which the namespace leaves visible at its real path.

Environment:
  MEDIAWALK_BIN       the binary under test (default: <repo>/build/mediawalk)
  MEDIAWALK_LAUNCHER  optional prefix, split on spaces, e.g. "qemu-mipsel -L /sysroot"
  MEDIAWALK_E2E_WORK  root of the per-test folders (default: <repo>/build/tests/e2e-work)
  MEDIAWALK_FIXTURES  committed sample files (default: <repo>/tests/data)
"""

import atexit
import os
import shlex
import shutil
import signal
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
SANDBOX_SH = os.path.join(HERE, "sandbox.sh")


def _hidden_in_sandbox(path):
    """True for a path under /tmp or /run, which the sandbox replaces: it cannot be seen there."""
    real = os.path.realpath(path)
    return any(real == d or real.startswith(d + "/") for d in ("/tmp", os.path.realpath("/run")))


BIN = os.path.abspath(os.environ.get("MEDIAWALK_BIN") or os.path.join(REPO, "build", "mediawalk"))
LAUNCHER = os.environ.get("MEDIAWALK_LAUNCHER", "").split()
# Real path: tests compare it with what /proc and os.walk report. A checkout under /tmp (as a CI
# clone may be) would vanish inside the sandbox, so the work then moves to /var/tmp.
WORK_ROOT = os.path.realpath(os.environ.get("MEDIAWALK_E2E_WORK") or os.path.join(REPO, "build", "tests", "e2e-work"))
if _hidden_in_sandbox(WORK_ROOT):
    WORK_ROOT = os.path.join("/var/tmp", "mediawalk-e2e-%d" % os.getuid())
FIXTURES = os.environ.get("MEDIAWALK_FIXTURES") or os.path.join(REPO, "tests", "data")

# Paths as the program sees them inside the sandbox, relative to the bound folders.
MARKER = "mediawalking.tmp"
PROGRESS = "mediawalkbar_result"
RESULT = "mediawalk.result"
XMLDB_SOCK = "xmldb_sock"
DB_SUFFIX = ".systemfile/.upnpav-db/upnpav.db"

# The mount path must fit the program's 127-byte buffer, so per-test folders stay short.
MOUNT_PATH_LIMIT = 127

SYSTEM_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
RUN_TIMEOUT = float(os.environ.get("MEDIAWALK_E2E_TIMEOUT", "120"))


# --------------------------------------------------------------------------------------------
# Can we sandbox at all?

_probe_result = None


def _namespace_prefix():
    prefix = ["unshare", "--mount"]
    if os.geteuid() != 0:
        prefix.append("--map-root-user")
    return prefix


def sandbox_problem():
    """Returns None when a sandboxed run works here, else a text saying why not."""
    global _probe_result
    if _probe_result is not None:
        return _probe_result or None
    problem = ""
    if shutil.which("unshare") is None:
        problem = "unshare (util-linux) is not installed"
    else:
        os.makedirs(WORK_ROOT, exist_ok=True)
        probe = tempfile.mkdtemp(prefix="probe", dir=WORK_ROOT)
        try:
            for sub in ("etc", "ovl", "tmp", "run"):
                os.mkdir(os.path.join(probe, sub))
            with open(os.path.join(probe, "etc", "probe"), "w") as f:
                f.write("ok\n")
            cmd = _namespace_prefix() + [
                "sh", SANDBOX_SH, "-e", os.path.join(probe, "etc"), "-o", os.path.join(probe, "ovl"),
                "-t", os.path.join(probe, "tmp"), "-r", os.path.join(probe, "run"), "-w", "hostname",
                "--", "sh", "-c", "cat /etc/probe && test ! -e /etc/hostname && touch /tmp/seen"]
            try:
                proc = subprocess.run(cmd, capture_output=True, timeout=60, stdin=subprocess.DEVNULL)
                seen = os.path.exists(os.path.join(probe, "tmp", "seen"))
                if proc.returncode != 0 or proc.stdout != b"ok\n" or not seen:
                    problem = ("private mount namespaces are not available here (%s): %s"
                               % (" ".join(cmd[:3]), proc.stderr.decode(errors="replace").strip()))
            except (OSError, subprocess.SubprocessError) as e:
                problem = "cannot start unshare: %s" % e
        finally:
            _rmtree(probe)
    _probe_result = problem
    return problem or None


def require_sandbox():
    """Raises SkipTest when no sandbox is possible here or there is no binary to test."""
    problem = sandbox_problem()
    if problem:
        raise unittest.SkipTest("end-to-end tests skipped: " + problem)
    if not os.path.isfile(BIN):
        if "MEDIAWALK_BIN" in os.environ:
            raise AssertionError("MEDIAWALK_BIN names no file: %s" % BIN)
        raise unittest.SkipTest("end-to-end tests skipped: no binary at %s (build first or set MEDIAWALK_BIN)" % BIN)


_binary_copy = None


def binary():
    """The path the sandbox executes: BIN itself, or a copy of it when BIN lies where the sandbox
    cannot see it. It is also the program name (argv[0]) the program prints."""
    global _binary_copy
    if not _hidden_in_sandbox(BIN):
        return BIN
    if _binary_copy is None:
        folder = os.path.join(WORK_ROOT, "bin-%d" % os.getpid())
        os.makedirs(folder, exist_ok=True)
        _binary_copy = os.path.join(folder, os.path.basename(BIN))
        shutil.copy2(BIN, _binary_copy)
        atexit.register(_rmtree, folder)
    return _binary_copy


def _rmtree(path):
    """Removes a per-test folder, including overlayfs work folders left with mode 000."""
    if not os.path.lexists(path):
        return
    if os.path.isdir(path) and not os.path.islink(path):
        for dirpath, dirnames, _ in os.walk(path):
            for d in dirnames:
                p = os.path.join(dirpath, d)
                if not os.path.islink(p):
                    try:
                        os.chmod(p, 0o700)
                    except OSError:
                        pass
    shutil.rmtree(path, ignore_errors=True)


# --------------------------------------------------------------------------------------------
# The xmldb daemon stand-in

class XmldbRequest:
    __slots__ = ("action", "length", "flags", "reserved", "payload")

    def __init__(self, action, length, flags, reserved, payload):
        self.action, self.length, self.flags, self.reserved, self.payload = action, length, flags, reserved, payload

    @property
    def node(self):
        """Node path of a set request ("path value" with its zero)."""
        return self.payload.rstrip(b"\0").split(b" ", 1)[0].decode("latin-1")

    @property
    def value(self):
        parts = self.payload.rstrip(b"\0").split(b" ", 1)
        return parts[1].decode("latin-1") if len(parts) > 1 else None

    def __repr__(self):
        return "XmldbRequest(action=%d, length=%d, flags=%d, reserved=%d, payload=%r)" % (
            self.action, self.length, self.flags, self.reserved, self.payload)


class XmldbDaemon:
    """Listens on the socket path, records every request and answers with a status word.

    mode "answer": 12-byte reply, status word at offset 8.
    mode "silent": accepts and reads, never answers (the connection stays open until stop()).
    mode "absent": no socket at all.
    """

    HEADER = struct.Struct("<HHII")  # action, length, flags, reserved; the appliance is little-endian

    def __init__(self, sock_path, mode="answer", status=0):
        assert mode in ("answer", "silent", "absent"), mode
        self.sock_path, self.mode, self.status = sock_path, mode, status
        self.requests = []
        self.garbled = []  # connections that sent less than a header or less payload than announced
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self._listener = None
        self._threads = []
        self._held = []

    def start(self):
        if self.mode == "absent":
            return
        if os.path.lexists(self.sock_path):
            os.unlink(self.sock_path)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(self.sock_path)
        self._listener.listen(16)
        self._listener.settimeout(0.05)
        t = threading.Thread(target=self._accept_loop, daemon=True)
        t.start()
        self._threads.append(t)

    def _accept_loop(self):
        while not self._stop.is_set():
            try:
                conn, _ = self._listener.accept()
            except socket.timeout:
                continue
            except OSError:
                return
            t = threading.Thread(target=self._serve, args=(conn,), daemon=True)
            t.start()
            self._threads.append(t)

    @staticmethod
    def _read_exact(conn, n):
        data = b""
        while len(data) < n:
            chunk = conn.recv(n - len(data))
            if not chunk:
                break
            data += chunk
        return data

    def _serve(self, conn):
        conn.settimeout(10)
        keep = False
        try:
            header = self._read_exact(conn, self.HEADER.size)
            if len(header) < self.HEADER.size:
                with self._lock:
                    self.garbled.append(header)
                return
            action, length, flags, reserved = self.HEADER.unpack(header)
            payload = self._read_exact(conn, length)
            with self._lock:
                if len(payload) < length:
                    self.garbled.append(header + payload)
                else:
                    self.requests.append(XmldbRequest(action, length, flags, reserved, payload))
            if self.mode == "answer":
                conn.sendall(struct.pack("<III", 0, 0, self.status & 0xFFFFFFFF))
            else:
                keep = True
                with self._lock:
                    self._held.append(conn)
        except OSError:
            pass
        finally:
            if not keep:
                conn.close()

    def stop(self):
        self._stop.set()
        if self._listener is not None:
            self._listener.close()
            self._listener = None
        with self._lock:
            for conn in self._held:
                conn.close()
            self._held = []
        for t in self._threads:
            t.join(timeout=5)
        if self.mode != "absent" and os.path.lexists(self.sock_path):
            os.unlink(self.sock_path)

    def snapshot(self):
        with self._lock:
            return list(self.requests)


def connect_read_only(path):
    """Opens a database so that the test can neither create nor change the file it inspects."""
    return sqlite3.connect("file:%s?mode=ro" % urllib.parse.quote(path), uri=True)


def connect_committed(path):
    """Opens, in memory, what a database file holds committed: a copy, with any journal left
    beside it rolled back. The writer may still hold its lock; its files are never changed."""
    with tempfile.TemporaryDirectory() as tmp:
        copy = os.path.join(tmp, "db")
        for suffix in ("", "-journal"):
            if os.path.exists(path + suffix):
                shutil.copyfile(path + suffix, copy + suffix)
        con = sqlite3.connect(copy)
        con.execute("SELECT count(*) FROM sqlite_master").fetchall()  # rolls a hot journal back
        image = con.serialize() if os.path.getsize(copy) else None  # an empty file has no image
        con.close()
    mem = sqlite3.connect(":memory:")
    if image is not None:
        mem.deserialize(image)
    return mem


# --------------------------------------------------------------------------------------------
# Looking at a running program from outside

def process_state(pid):
    """The state letter of /proc/PID/stat ("R", "S", "T", "Z", ...), or None when it is gone."""
    try:
        with open("/proc/%d/stat" % pid, "rb") as f:
            data = f.read()
    except OSError:
        return None
    return data[data.rindex(b")") + 2:][:1].decode()


def stop_process(pid, timeout=5.0):
    """Sends SIGSTOP and waits until the process is stopped; False when it ended first."""
    try:
        os.kill(pid, signal.SIGSTOP)
    except ProcessLookupError:
        return False
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        state = process_state(pid)
        if state in (None, "Z", "X"):
            return False
        if state in ("T", "t"):
            return True
        time.sleep(0.0002)
    return False


def open_paths(pid):
    """Paths of the descriptors the process holds open (empty when it is gone)."""
    paths = []
    try:
        fds = os.listdir("/proc/%d/fd" % pid)
    except OSError:
        return paths
    for fd in fds:
        try:
            paths.append(os.readlink("/proc/%d/fd/%s" % (pid, fd)))
        except OSError:
            pass
    return paths


def wait_for(predicate, timeout=30.0, interval=0.01):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(interval)
    return False


# --------------------------------------------------------------------------------------------
# One run's outcome

class RunResult:
    def __init__(self, status, stdout, stderr, elapsed):
        self.status, self.stdout, self.stderr, self.elapsed = status, stdout, stderr, elapsed

    @property
    def lines(self):
        """stdout split into lines (bytes), without their line feeds."""
        text = self.stdout[:-1] if self.stdout.endswith(b"\n") else self.stdout
        return text.split(b"\n") if text else []

    def __repr__(self):
        return "RunResult(status=%d, stdout=%r, stderr=%r)" % (self.status, self.stdout[:2000], self.stderr[:2000])


# --------------------------------------------------------------------------------------------
# The sandbox

class Sandbox:
    """A per-test world for one or more runs of the binary.

    Layout under self.root (all at their real paths, visible inside the namespace):
      share/   the default share         mnt/   the default mount path
      etc/     overlay upper for /etc    tmp/   bound on /tmp      run/   bound on /run
      bin/     stub commands (first on PATH)                      log/   detector calls
    """

    def __init__(self, name="t", tz="UTC"):
        os.makedirs(WORK_ROOT, exist_ok=True)
        self.root = tempfile.mkdtemp(prefix=name[:8], dir=WORK_ROOT)
        self.tz = tz
        for sub in ("share", "mnt", "etc", "tmp", "run", "bin", "log"):
            os.mkdir(self.path(sub))
        os.chmod(self.path("tmp"), 0o1777)
        self.share = self.path("share") + "/"
        self.mnt = self.path("mnt") + "/"
        self.tmp = self.path("tmp")
        self.run_dir = self.path("run")
        self.detector_log = self.path("log", "detect_char_encode.args")
        self._whiteouts = set()
        self.xmldb = None
        self.xmldb_mode = "answer"
        self.xmldb_status = 0
        self.extra_env = {}
        self._ovl_work = self.path("ovl")
        self.detector(b"windows-1252")
        if len(self.mnt) > MOUNT_PATH_LIMIT:
            raise AssertionError("work folder too deep for the program's mount path buffer: %s" % self.mnt)

    # -- paths ---------------------------------------------------------------------------------

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def db_path(self, mntpath=None):
        """Where the program puts the database: the mount path text with the suffix glued on."""
        return (self.mnt if mntpath is None else mntpath) + DB_SUFFIX

    def tmp_file(self, name):
        return os.path.join(self.tmp, name)

    # -- configuration -------------------------------------------------------------------------

    def write_conf(self, content):
        """Writes /etc/upnpav.conf with exactly these bytes (str is encoded as UTF-8)."""
        self._write_etc("upnpav.conf", content)

    def conf(self, sharepath=None, mntpath=None, sd_status="active", sharename="share"):
        """Writes a well-formed upnpav.conf; sharepath/mntpath default to this sandbox's folders."""
        lines = [
            "sharepath=%s\n" % (self.share if sharepath is None else sharepath),
            "mntpath=%s\n" % (self.mnt if mntpath is None else mntpath),
            "sd_status=%s\n" % sd_status,
            "sharename=%s\n" % sharename,
        ]
        self.write_conf("".join(lines))

    def write_codepage(self, content):
        self._write_etc("codepage", content)

    def remove_etc(self, name):
        """Makes /etc/NAME absent inside the sandbox, even when the host has one."""
        p = self.path("etc", name)
        if os.path.lexists(p):
            os.unlink(p)
        self._whiteouts.add(name)

    def _write_etc(self, name, content):
        if isinstance(content, str):
            content = content.encode("utf-8")
        self._whiteouts.discard(name)
        p = self.path("etc", name)
        if os.path.lexists(p):
            os.unlink(p)
        with open(p, "wb") as f:
            f.write(content)

    # -- stubs and daemon ----------------------------------------------------------------------

    def detector(self, answer=b"windows-1252", missing=False):
        """Installs (or with missing=True removes) the detect_char_encode stub.

        The stub appends its first argument and a zero byte to the call log and prints `answer`
        exactly as given (no newline is added; pass b"...\\n" to get one).
        """
        script = self.path("bin", "detect_char_encode")
        answer_file = self.path("bin", "detect_char_encode.answer")
        for p in (script, answer_file):
            if os.path.lexists(p):
                os.unlink(p)
        if missing:
            return
        if isinstance(answer, str):
            answer = answer.encode("utf-8")
        with open(answer_file, "wb") as f:
            f.write(answer)
        with open(script, "w") as f:
            f.write("#!/bin/sh\nprintf '%%s\\000' \"$1\" >> %s\ncat %s\n"
                    % (shlex.quote(self.detector_log), shlex.quote(answer_file)))
        os.chmod(script, 0o755)

    def real_detector(self, program):
        """Puts a real detector program (e.g. the bundled build/detect_char_encode) first on PATH,
        in place of the stub; its calls are then not logged."""
        self.detector(missing=True)
        target = self.path("bin", "detect_char_encode")
        if not LAUNCHER:
            shutil.copy2(program, target)
            return
        # The program under test runs in an emulator, which cannot start another emulated
        # executable itself (the host kernel has no handler for it); a host script can, so
        # the detector is reached through the same launcher.
        copy = self.path("bin", "detect_char_encode.target")
        shutil.copy2(program, copy)
        with open(target, "w") as f:
            f.write("#!/bin/sh\nexec %s \"$@\"\n" % " ".join(shlex.quote(w) for w in LAUNCHER + [copy]))
        os.chmod(target, 0o755)

    def detector_calls(self):
        """The arguments the detector was called with, in order (bytes)."""
        try:
            with open(self.detector_log, "rb") as f:
                data = f.read()
        except FileNotFoundError:
            return []
        return data.split(b"\0")[:-1]

    def xmldb_requests(self):
        return self.xmldb.snapshot() if self.xmldb else []

    # -- the share -----------------------------------------------------------------------------

    def share_path(self, rel=""):
        return os.path.join(self.share, rel)

    def mkdir(self, rel, base=None):
        p = os.path.join(base or self.share, rel)
        os.makedirs(p, exist_ok=True)
        return p

    def file(self, rel, content=b"", mtime=None, base=None):
        """Creates a file (parents included) with the given bytes and, if given, mtime (epoch s)."""
        p = os.path.join(base or self.share, rel)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        if isinstance(content, str):
            content = content.encode("utf-8")
        with open(p, "wb") as f:
            f.write(content)
        if mtime is not None:
            os.utime(p, (mtime, mtime))
        return p

    def sparse(self, rel, size, mtime=None, base=None):
        """Creates a sparse file of `size` bytes (holes cost no disk)."""
        p = os.path.join(base or self.share, rel)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        with open(p, "wb") as f:
            f.truncate(size)
        if mtime is not None:
            os.utime(p, (mtime, mtime))
        return p

    def copy(self, src, rel, mtime=None, base=None):
        p = os.path.join(base or self.share, rel)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        shutil.copyfile(src, p)
        if mtime is not None:
            os.utime(p, (mtime, mtime))
        return p

    def symlink(self, target, rel, base=None):
        p = os.path.join(base or self.share, rel)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        os.symlink(target, p)
        return p

    # -- running -------------------------------------------------------------------------------

    def command(self, args=()):
        """The full command line of a sandboxed run (for diagnostics and the demo)."""
        sandbox = ["sh", SANDBOX_SH, "-e", self.path("etc"), "-o", self._ovl_work,
                   "-t", self.tmp, "-r", self.run_dir]
        for name in sorted(self._whiteouts):
            sandbox += ["-w", name]
        return _namespace_prefix() + sandbox + ["--"] + LAUNCHER + [binary()] + list(args)

    def environment(self):
        env = {"PATH": self.path("bin") + ":" + SYSTEM_PATH, "TZ": self.tz}
        for key in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "QEMU_LD_PREFIX"):
            if key in os.environ:
                env[key] = os.environ[key]
        env.update(self.extra_env)
        return env

    def run(self, args=(), timeout=RUN_TIMEOUT, xmldb="answer", status=0, during=None, stdout=subprocess.PIPE):
        """Runs the binary once; returns a RunResult.

        xmldb/status: mode and status word of the daemon stand-in, which lives for this run only
        (its requests stay readable through xmldb_requests() until the next run).
        during: optional callable(proc) run in a thread while the program runs; proc.pid is the
        program's own process (unshare and sandbox.sh exec into it), so it can be signalled.
        An exception raised in it is raised again here.
        stdout: where the program's output goes; any other than the default leaves result.stdout empty.
        """
        self._ovl_work = tempfile.mkdtemp(prefix="ovl", dir=self.root)
        self.xmldb = XmldbDaemon(os.path.join(self.run_dir, XMLDB_SOCK), mode=xmldb, status=status)
        self.xmldb.start()
        helper_error = []
        helper = None
        started = time.monotonic()
        try:
            proc = subprocess.Popen(self.command(args), env=self.environment(), stdin=subprocess.DEVNULL,
                                    stdout=stdout, stderr=subprocess.PIPE, cwd=self.root)
            if during is not None:
                def call():
                    try:
                        during(proc)
                    except BaseException as e:  # handed to the test's thread below
                        helper_error.append(e)
                helper = threading.Thread(target=call, daemon=True)
                helper.start()
            try:
                out, err = proc.communicate(timeout=timeout)
            except subprocess.TimeoutExpired:
                proc.kill()
                out, err = proc.communicate()
                raise AssertionError("run did not end within %ss; stdout so far: %r" % (timeout, out[-2000:]))
        finally:
            if helper is not None:
                helper.join(timeout=30)
            self.xmldb.stop()
            _rmtree(self._ovl_work)
        if helper_error:
            raise helper_error[0]
        result = RunResult(proc.returncode, out or b"", err.decode("utf-8", "replace"), time.monotonic() - started)
        if proc.returncode == 125 and "sandbox.sh:" in result.stderr:
            raise AssertionError("sandbox set-up failed: " + result.stderr)
        return result

    # -- reading what the run left -------------------------------------------------------------

    def read_tmp(self, name):
        """Bytes of /tmp/NAME as the program left it, or None when absent."""
        try:
            with open(self.tmp_file(name), "rb") as f:
                return f.read()
        except FileNotFoundError:
            return None

    def progress(self):
        return self.read_tmp(PROGRESS)

    def result_file(self):
        return self.read_tmp(RESULT)

    def marker(self):
        return self.read_tmp(MARKER)

    def open_db(self, mntpath=None):
        p = self.db_path(mntpath)
        if not os.path.exists(p):
            raise AssertionError("no database at %s" % p)
        con = connect_read_only(p)
        con.text_factory = bytes
        return con

    def rows(self, table, mntpath=None, columns="*"):
        """All rows of a table in ROWID order, values as stored (text comes back as bytes)."""
        con = self.open_db(mntpath)
        try:
            return con.execute("SELECT %s FROM %s ORDER BY ROWID" % (columns, table)).fetchall()
        finally:
            con.close()

    def schema(self, mntpath=None):
        """(type, name, sql) of every schema object in creation order, sql as text."""
        con = self.open_db(mntpath)
        try:
            return [(t.decode(), n.decode(), s.decode() if s is not None else None)
                    for t, n, s in con.execute("SELECT type, name, sql FROM sqlite_master ORDER BY ROWID")]
        finally:
            con.close()

    def query(self, sql, mntpath=None):
        con = self.open_db(mntpath)
        try:
            return con.execute(sql).fetchall()
        finally:
            con.close()

    def cleanup(self):
        if self.xmldb:
            self.xmldb.stop()
        if os.environ.get("MEDIAWALK_E2E_KEEP"):
            return
        _rmtree(self.root)


class SandboxTestCase(unittest.TestCase):
    """Gives each test a fresh Sandbox as self.sb; skips the class when no sandbox is possible."""

    @classmethod
    def setUpClass(cls):
        require_sandbox()

    def setUp(self):
        self.sb = Sandbox(name=self._testMethodName.replace("test_", "")[:8] or "t")
        self.addCleanup(self.sb.cleanup)

    def run_ok(self, expected_status=1, **kw):
        """Runs and checks the exit status, showing the run's output when it is wrong."""
        res = self.sb.run(**kw)
        self.assertEqual(res.status, expected_status, res)
        return res
