"""The database the program writes is byte for byte the one its literal statements write.

The product answers the parent look-up and the folder media flags from memory and sets up its
SQLite connection for speed; mediawalk_literal (built from the same sources with
MEDIAWALK_LITERAL_SQL) asks every one of those statements and keeps SQLite's defaults. Both scan
the same share, with paths chosen to hit every rule those answers must copy, in the same sandbox
under the same program name; their databases and their output must not differ in one byte, save
the header's two transaction counters (bytes 24-27 and 92-95), which count commits and which no
reader of the library uses. Both are also cut by SIGTERM at the same statement of the playlist
phase: what each leaves committed must not differ either.
"""

import fcntl
import os
import platform
import shutil
import signal
import unittest

import harness
from harness import SandboxTestCase

LITERAL_BIN = os.environ.get("MEDIAWALK_LITERAL_BIN") or os.path.join(
    harness.REPO, "build", "tests", "mediawalk_literal")


def fixture(*parts):
    return os.path.join(harness.FIXTURES, *parts)


# Folders (bytes, relative to the share, without the trailing "/") and what goes in each.
# "m" music, "p" photo, "v" video, "s" subtitle, "l" an m3u naming the folder's songs,
# "q" a pls naming them, "" nothing (the folder row only, flags from below or from LIKE).
FOLDERS = [
    (b"Music", ""),
    (b"Music/Rock 'n' Roll", "m"),              # single quotes: the parent look-up's fallback
    (b"Music/Rock 'n' Roll/Live", "ml"),        # ... whose parent holds them
    (b"Music/Rock 'n' Roll/Live/Disc 1", "m"),
    (b"Music/Rock 'n' Roll/Live/Disc 2", "L"),     # the second m3u: the cut run stops in it
    (b"Music/it's", ""),
    (b"Music/it's/deeper", "p"),
    (b'Music/12" Mix', "m"),                    # a double quote: the folder row fails
    (b"Music/100%", ""),                        # "%" and "_": LIKE wildcards, the statements
    (b"Music/100%x", "m"),
    (b"Music/100x", "v"),
    (b"Music/x_y", ""),
    (b"Music/xzy", "ms"),
    (b"Music/Case", ""),                        # A-Z fold in LIKE: Case/ sees case/'s songs
    (b"Music/case", "mq"),
    (b"Music/CAF\xc3\x89", ""),                 # non-ASCII does not fold: CAFE/ sees nothing
    (b"Music/caf\xc3\xa9", "m"),
    (b"Music/\xe6\x97\xa5\xe6\x9c\xac", "p"),   # Japanese
    (b"Music/r\xc3", ""),                       # invalid UTF-8 reads as U+FFFD in LIKE ...
    (b"Music/r\xef\xbf\xbd", "m"),              # ... so r<C3>/ matches this real U+FFFD
    (b"Music/bad\xff\xfe", "v"),
    (b"Music/bad\xff\xfe/in'side", "p"),
    (b"Photos", ""),
    (b"Photos/2020", ""),
    (b"Photos/2020/Beach", "p"),
    (b"Photos/2020/BEACH trip", "pv"),
    (b"Videos", "vs"),
    (b"Empty", ""),
]

MUSIC_FILES = [("tags", "v23_latin1.mp3"), ("tags", "cp1252_title.mp3"), ("audio", "cbr32_44k.mp3")]


def put(path, content, mtime):
    with open(path, "wb") as f:
        f.write(content)
    os.utime(path, (mtime, mtime))


def build_share(share):
    mtime = 1600000000
    samples = {}
    for sub, name in MUSIC_FILES + [("pictures", n) for n in ("baseline.jpg", "rgb8.png", "mpeg1_pal.mpg")]:
        with open(fixture(sub, name), "rb") as f:
            samples[name] = f.read()
    for rel, kinds in FOLDERS:
        folder = os.path.join(share, rel)
        os.makedirs(folder, exist_ok=True)
        songs = []
        for kind in kinds:
            mtime += 61
            if kind == "m":
                for i, (_, name) in enumerate(MUSIC_FILES):
                    songs.append(b"%02d %s" % (i + 1, name.encode()))
                    put(os.path.join(folder, songs[-1]), samples[name], mtime)
            elif kind == "p":
                put(os.path.join(folder, b"Img_1.JPG"), samples["baseline.jpg"], mtime)
                put(os.path.join(folder, b"shot.png"), samples["rgb8.png"], mtime)
            elif kind == "v":
                put(os.path.join(folder, b"clip.mpg"), samples["mpeg1_pal.mpg"], mtime)
            elif kind == "s":
                put(os.path.join(folder, b"clip.srt"), b"1\n", mtime)
            elif kind == "l":
                body = b"#EXTM3U\n" + b"".join(b"#EXTINF:1,x\n%s\n" % s for s in songs) + b"missing.mp3\n"
                put(os.path.join(folder, b"list.m3u"), body, mtime)
            elif kind == "L":  # names songs that are not there, one printed line each
                body = b"".join(b"gone %03d.mp3\n" % i for i in range(200))
                put(os.path.join(folder, b"long.m3u"), body, mtime)
            elif kind == "q":
                body = b"[playlist]\n" + b"".join(b"File%d=%s\n" % (i + 1, s) for i, s in enumerate(songs))
                put(os.path.join(folder, b"list.pls"), body, mtime)


# The header's file change counter and version-valid-for number.
COUNTERS = (range(24, 28), range(92, 96))
# Two pages: more than the output in front of the playlist phase, less than the output up to its end.
PIPE_SIZE = 8192
WRITE = {"x86_64": "1", "aarch64": "64"}.get(platform.machine())


def syscall(pid):
    try:
        with open("/proc/%d/syscall" % pid) as f:
            return f.read().split()
    except OSError:
        return []


def cut_when_blocked(read_end, write_end, out):
    """during= for a run whose stdout is a pipe nobody reads: once the program sleeps in a write to
    it (only a full pipe makes it), always the same write, sends SIGTERM, and drains the pipe once
    the handler has taken the signal (it has ended, or sleeps in its own write)."""
    def blocked(pid, other_than=None):
        call = syscall(pid)
        return (call[:2] == [WRITE, "0x1"] and call != other_than and harness.process_state(pid) == "S"
                and syscall(pid) == call)

    def during(proc):
        os.close(write_end)
        if not harness.wait_for(lambda: blocked(proc.pid) or proc.poll() is not None) or proc.poll() is not None:
            raise AssertionError("the run ended before its output filled the pipe")
        cut = syscall(proc.pid)
        os.kill(proc.pid, signal.SIGTERM)
        harness.wait_for(lambda: proc.poll() is not None or blocked(proc.pid, other_than=cut))
        out.extend(iter(lambda: os.read(read_end, 65536), b""))
    return during


class ByteIdentity(SandboxTestCase):
    def run_both(self, product, cut):
        """{name: (stdout, database bytes)} of the product and the literal build on one share."""
        sb = self.sb
        program = sb.path("prog", "mediawalk")
        outcomes = {}
        for name, source in (("product", product), ("literal", LITERAL_BIN)):
            shutil.copy2(source, program)
            harness.BIN = program
            if not cut:
                res = sb.run()
                self.assertEqual(res.status, 1, res)
                with open(sb.db_path(), "rb") as f:
                    outcomes[name] = (res.stdout, f.read())
                # No journal is left behind, whatever mode the run kept it in.
                self.assertEqual(os.listdir(os.path.dirname(sb.db_path())), ["upnpav.db"], name)
                continue
            read_end, write_end = os.pipe()
            try:
                fcntl.fcntl(read_end, fcntl.F_SETPIPE_SZ, PIPE_SIZE)
                out = []
                res = sb.run(stdout=write_end, during=cut_when_blocked(read_end, write_end, out))
            finally:
                os.close(read_end)
            self.assertEqual(res.status, 0, res)
            outcomes[name] = (b"".join(out), harness.connect_committed(sb.db_path()).serialize())
        return outcomes

    def test_fast_answers_write_the_literal_database(self):
        if not os.path.isfile(LITERAL_BIN):
            raise AssertionError("no literal build at %s (build the mediawalk_literal target)" % LITERAL_BIN)
        sb = self.sb
        sb.write_codepage("cp850\n")
        # The share's own name holds a "_", a LIKE wildcard.
        share = os.fsencode(sb.share_path("Media_1/"))
        sb.conf(sharepath=os.fsdecode(share))
        build_share(share)
        # The one line that follows the clock.
        date = sb.path("bin", "date")
        with open(date, "w") as f:
            f.write("#!/bin/sh\necho 'Sun Jan  1 00:00:00 UTC 2023'\n")
        os.chmod(date, 0o755)
        # Both run as .../mediawalk, the name the program looks itself up by.
        os.makedirs(sb.path("prog"))
        saved_bin = harness.BIN
        self.addCleanup(setattr, harness, "BIN", saved_bin)

        # (run, lines its output must hold, lines it must not hold)
        runs = [(False, [b"Finish-->", b"Assign path_objid_tbl media-->"], [b"Assign path_objid_tbl media fail"]),
                (True, [b"Parse playlist-->", b"mediawalk(): terminate"], [b"Sort DBtable-->"])]
        for cut, present, absent in runs:
            if cut and WRITE is None:
                continue  # the system call number of write is known for these hosts only
            with self.subTest(cut=cut):
                outcomes = self.run_both(saved_bin, cut)
                stdout, db = outcomes["product"]
                # Not a vacuous match: the run got as far as it should, and the first m3u playlist
                # committed the walk, turning the rest of the run into single-statement transactions.
                lines = stdout.split(b"\n")
                for line in present:
                    self.assertIn(line, lines)
                for line in absent:
                    self.assertNotIn(line, lines)
                self.assertIn(b"get_parid():1Exe SQL query Error", stdout)
                if not cut:
                    self.check_flags(share)

                literal_stdout, literal_db = outcomes["literal"]
                self.assertEqual(stdout, literal_stdout)
                self.assertEqual(len(db), len(literal_db))
                differ = [i for i in range(len(db)) if db[i] != literal_db[i]]
                outside = [i for i in differ if not any(i in r for r in COUNTERS)]
                if outside:
                    self.fail("databases differ first at byte %d (page %d)" % (outside[0], outside[0] // 4096 + 1))

    def check_flags(self, share):
        """The folder flags follow LIKE's rules."""
        flags = dict((bytes(p), (v, m, ph)) for p, v, m, ph in self.sb.query(
            "select path,have_video,have_music,have_photo from path_objid_tbl"))
        expected = {b"Music/Case/": (b"0", b"1", b"0"), b"Music/CAF\xc3\x89/": (b"0", b"0", b"0"),
                    b"Music/r\xc3/": (b"0", b"1", b"0"), b"Music/x_y/": (b"1", b"1", b"0"),
                    b"Music/100%/": (b"1", b"1", b"0"), b"Music/": (b"1", b"1", b"1")}
        for rel, want in expected.items():
            self.assertEqual(flags.get(share + rel), want, rel)
        self.assertNotIn(share + b'Music/12" Mix/', flags)


if __name__ == "__main__":
    unittest.main()
