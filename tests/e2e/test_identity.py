"""The product answers the parent look-up and the folder flags from memory and tunes its SQLite
connection; mediawalk_literal (MEDIAWALK_LITERAL_SQL) runs every literal statement with SQLite's
defaults. Over one share (tests/data/e2e/identity.json) both must print the same and write the same
database, save the header's commit counters (bytes 24-27 and 92-95), also when SIGTERM cuts both at
the same write of the playlist phase."""

import fcntl
import os
import platform
import shutil
import signal

import harness

LITERAL_BIN = os.environ.get("MEDIAWALK_LITERAL_BIN") or os.path.join(harness.REPO, "build", "tests", "mediawalk_literal")
WRITE = {"x86_64": "1", "aarch64": "64"}.get(platform.machine())  # write's system call number


def build_share(sb, share, table):
    mtime = 1600000000
    for rel, kinds in table["folders"]:
        os.makedirs(harness.raw(share + rel), exist_ok=True)
        for kind in kinds:
            mtime += 61
            for name, desc in table["kinds"][kind]:
                sb.file(share + rel + "/" + name, harness.content(desc), mtime=mtime)


def syscall(pid):
    try:
        with open("/proc/%d/syscall" % pid) as f:
            return f.read().split()
    except OSError:
        return []


def cut_at_full_pipe(read_end, write_end, out):
    """Once the program sleeps in a write to its full stdout pipe (always the same write), sends
    SIGTERM, and drains the pipe once the handler has taken it."""
    def blocked(pid, other=None):
        call = syscall(pid)
        return call[:2] == [WRITE, "0x1"] and call != other and harness.process_state(pid) == "S" and syscall(pid) == call

    def during(proc):
        os.close(write_end)
        if not harness.wait_for(lambda: blocked(proc.pid) or proc.poll() is not None) or proc.poll() is not None:
            raise AssertionError("the run ended before its output filled the pipe")
        cut = syscall(proc.pid)
        os.kill(proc.pid, signal.SIGTERM)
        harness.wait_for(lambda: proc.poll() is not None or blocked(proc.pid, cut))
        out.extend(iter(lambda: os.read(read_end, 65536), b""))
    return during


class ByteIdentity(harness.SandboxTestCase):
    def test_fast_answers_write_the_literal_database(self):
        self.assertTrue(os.path.isfile(LITERAL_BIN), "no literal build at %s" % LITERAL_BIN)
        sb, table = self.sb, harness.load_cases("identity.json")
        share = sb.share + "Media_1/"  # "_" is a LIKE wildcard
        sb.conf(sharepath=share)
        build_share(sb, share, table)
        sb.script("date", "echo 'Sun Jan  1 00:00:00 UTC 2023'\n")
        os.makedirs(sb.path("prog"))
        product, sb.bin = sb.bin, sb.path("prog", "mediawalk")  # both run under the same name
        for cut in (False, True) if WRITE else (False,):
            with self.subTest(cut=cut):
                outcomes = []
                for source in (product, LITERAL_BIN):
                    shutil.copy2(source, sb.bin)
                    if not cut:
                        res = sb.run()
                        self.assertEqual(res.status, 1, res)
                        self.assertEqual(os.listdir(os.path.dirname(sb.db_path())), ["upnpav.db"])
                        with open(sb.db_path(), "rb") as f:
                            outcomes.append((res.stdout, f.read()))
                        continue
                    read_end, write_end = os.pipe()
                    fcntl.fcntl(read_end, fcntl.F_SETPIPE_SZ, 8192)  # fills before the playlist phase ends
                    out = []
                    try:
                        self.assertEqual(sb.run(stdout=write_end, during=cut_at_full_pipe(read_end, write_end, out)).status, 0)
                    finally:
                        os.close(read_end)
                    outcomes.append((b"".join(out), sb.committed().serialize()))
                (stdout, db), (literal_stdout, literal_db) = outcomes
                lines = stdout.split(b"\n")
                # Not a vacuous match: the run got as far as it should.
                self.assertIn(b"mediawalk(): terminate" if cut else b"Finish-->", lines)
                self.assertIn(b"Parse playlist-->", lines)
                self.assertEqual(b"Sort DBtable-->" in lines, not cut)
                self.assertIn(b"get_parid():1Exe SQL query Error", stdout)
                self.assertEqual(stdout, literal_stdout)
                self.assertEqual(len(db), len(literal_db))
                differ = [i for i in range(len(db)) if db[i] != literal_db[i] and not (24 <= i < 28 or 92 <= i < 96)]
                self.assertEqual(differ[:1], [], "databases differ")
                if not cut:
                    flags = {harness.text(p): (v + m + ph).decode() for p, v, m, ph in sb.query(
                        "SELECT path, have_video, have_music, have_photo FROM path_objid_tbl")}
                    self.assertEqual({k: flags.get(share + k) for k in table["flags"]}, table["flags"])
                    self.assertNotIn(share + 'Music/12" Mix/', flags)
