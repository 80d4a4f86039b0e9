"""End-to-end runs over shares written by an attacker: names, tags and playlist lines that close
their quoted value and go on as SQL, shell text for the detector, special files, files swapped or
removed while the scan runs, huge and truncated files, unreadable entries, a full volume, and a
SIGTERM in the middle of the walk. Each run must end normally with the program's usual outcome for every
such input: a failed statement, a skipped file or a default value, and nothing more."""

import os
import re
import signal
import socket
import stat
import sys
import textwrap
import threading
import unittest

import harness
import id3build
from harness import SandboxTestCase
from test_driver import SCHEMA

FIXTURES = harness.FIXTURES
with open(os.path.join(FIXTURES, "audio", "cbr32_44k.mp3"), "rb") as _f:
    AUDIO = _f.read()  # MPEG-1 layer III at 32 kbit/s, no tag
with open(os.path.join(FIXTURES, "pictures", "rgb24.bmp"), "rb") as _f:
    BMP = _f.read()
with open(os.path.join(FIXTURES, "pictures", "mpeg1_pal.mpg"), "rb") as _f:
    MPEG = _f.read()

MORE_THAN_ONE = b"more than one statement"


def tagged(**frames):
    """The untagged MP3 behind an ID3v2.3 tag of these Latin-1 text frames."""
    return id3build.latin1_tag([(fid, text.encode("latin-1")) for fid, text in frames.items()]) + AUDIO


def closing(more_values, statement):
    """Text that ends the double-quoted value it is embedded in, supplies the values the row still
    needs, and appends a second statement: both are valid SQL on their own, so only running the
    text as exactly one statement keeps the second from running."""
    return 'x"' + ',"0"' * more_values + "); " + statement + "; --"


def canaries(root):
    """Files any shell command in the share's texts would have created."""
    return sorted(os.path.join(d, f) for d, _, files in os.walk(root) for f in files if f.startswith("canary"))


def sanitized():
    """True when the binary under test is built with AddressSanitizer."""
    with open(harness.BIN, "rb") as f:
        return b"__asan_init" in f.read()


class HostileSandbox(harness.Sandbox):
    """A sandbox whose binary can be started behind a wrapper (e.g. to drop privileges or to
    measure its memory), placed between the namespace set-up and the binary."""

    wrapper = ()

    def command(self, args=()):
        cmd = super().command(args)
        cut = cmd.index("--") + 1
        return cmd[:cut] + list(self.wrapper) + cmd[cut:]


# Runs the command, then writes the peak resident size (KiB) of it and its waited-for children.
RSS_WRAPPER = textwrap.dedent("""\
    import os, sys
    pid = os.fork()
    if pid == 0:
        os.execv(sys.argv[2], sys.argv[2:])
    _, status, usage = os.wait4(pid, 0)
    with open(sys.argv[1], "w") as f:
        f.write("%d\\n" % usage.ru_maxrss)
    sys.exit(os.waitstatus_to_exitcode(status) & 0xFF)
    """)


class HostileCase(SandboxTestCase):
    def setUp(self):
        self.sb = HostileSandbox(name=self._testMethodName.replace("test_", "")[:8])
        self.addCleanup(self.sb.cleanup)
        self.sb.write_codepage("cp850\n")
        self.sb.conf()

    def items(self, table):
        """(folder, name) of every row of a media table, as stored."""
        return set(self.sb.rows(table, columns="Real_Path, Real_fname"))

    def assert_outcome(self, res):
        """What every run over a hostile share must leave: a completed run and an intact schema."""
        sb = self.sb
        self.assertEqual(res.status, 1, res)
        self.assertIsNone(sb.marker())
        self.assertRegex(sb.progress(), rb"\A(\d+),(\d+),1\n\1,\2,1\n\Z")
        self.assertEqual([sql for _, _, sql in sb.schema()], [s[:-1] for s in SCHEMA])
        self.assertEqual([t for t, in sb.rows("record_objid_tbl", columns="type")],
                         [b"media_path_objid", b"media_path_parid", b"photo_file_objid", b"video_file_objid",
                          b"music_file_objid", b"music_file_pls_parid", b"music_file_gen_objid",
                          b"music_file_art_objid", b"music_file_alb_objid"])
        self.assertEqual(canaries(sb.root), [])
        self.assertNotIn("runtime error", res.stderr)  # UBSan
        self.assertNotIn("AddressSanitizer", res.stderr)

    def assert_parents(self, orphans=()):
        """Every folder row names its parent folder's ObjID; `orphans` (paths) and the root have 0."""
        rows = self.sb.rows("path_objid_tbl", columns="path, ObjID, Dir_ParentID, layer")
        ids = {p: o for p, o, _, _ in rows}
        root = self.sb.share.encode()
        for path, objid, parent, layer in rows:
            with self.subTest(path=path):
                if path == root:
                    self.assertEqual((parent, layer), (b"0", b"0"))
                    continue
                self.assertEqual(int(layer), path[len(root):].count(b"/"))
                expected = b"0" if path in orphans else ids[path[:path.rstrip(b"/").rindex(b"/") + 1]]
                self.assertEqual(parent, expected)

    def flags(self, rel):
        return self.sb.query("select have_video, have_music, have_photo from path_objid_tbl where path == '%s'"
                             % (self.sb.share + rel).replace("'", "''"))


class InjectedTexts(HostileCase):
    """Names, tags and playlist lines crafted against every statement the scan composes."""

    def build_share(self):
        """Creates the share; returns {table: {(folder, name)}} of the rows the scan must write."""
        sb = self.sb
        share = sb.share
        expected = {"music_tbl": set(), "photo_tbl": set(), "video_tbl": set()}

        def put(rel, content, table):
            p = sb.file(rel, content)
            if table:
                folder, name = os.path.split(p)
                expected[table].add(((folder + "/").encode(), name.encode()))
            return p

        # The detector gets these texts as one argument; a shell would create the canaries.
        put("shell.mp3", tagged(TIT2="$(touch canary1)", TPE1="`touch canary2`", TALB="'; touch canary3; '",
                                 TCOM='"; touch canary4; "'), "music_tbl")
        # The title alone is escaped: its quotes become single quotes, and it is cut to 49 bytes.
        put("title.mp3", tagged(TIT2='t"); DROP TABLE music_tbl; --' + "x" * 40), "music_tbl")
        put("$(touch canary5).mp3", b"", "music_tbl")
        put("`touch canary6`.srt", b"", "video_tbl")
        put("it's.mpg", b"", "video_tbl")
        put("list.m3u", "shell.mp3\n"
                        'x.mp3"; DROP TABLE music_sortidx_tbl; --\n'
                        "#EXTINF:1,y\n"
                        'y"; INSERT INTO record_objid_tbl VALUES ("pwned_m3u","1"); --\n'
                        "$(touch canary7).mp3\n"
                        "title.mp3\n", "music_tbl")
        put("list.pls", "[playlist]\nFile1=title.mp3\n"
                        'File2=z"; INSERT INTO record_objid_tbl VALUES ("pwned_pls","1"); --\n'
                        "File3=`touch canary8`.mp3\n", "music_tbl")

        # Special files: never read, and a FIFO named as the folder marker must not block.
        os.mkfifo(sb.share_path("fifo.mp3"))
        sb.mkdir("marker")
        os.mkfifo(sb.share_path("marker/.MediaWalk.Music"))
        put("marker/in.srt", b"1\n", "video_tbl")
        here = os.getcwd()
        try:
            os.chdir(share)  # a socket path is limited to 107 bytes
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            sock.bind("sock.jpg")
            sock.close()
        finally:
            os.chdir(here)
        if os.geteuid() == 0:
            try:
                os.mknod(sb.share_path("zero.mp3"), stat.S_IFCHR | 0o644, os.makedev(1, 5))
            except PermissionError:
                pass  # a user namespace may not create devices

        # One folder per INSERT: the crafted entry's statement fails and ends its folder, so the
        # entry behind it is never looked at.
        for folder, name, content, table in [
            ("q_music", closing(20, "DROP TABLE music_tbl") + ".mp3", b"", "music_tbl"),
            ("q_photo", closing(17, "DROP TABLE photo_tbl") + ".bmp", BMP, "photo_tbl"),
            ("q_video", closing(19, "DROP TABLE video_tbl") + ".mpg", MPEG, "video_tbl"),
            ("q_playlist", closing(20, 'INSERT INTO record_objid_tbl VALUES ("pwned_pl","1")') + ".m3u", b"",
             "music_tbl"),
            ("q_subtitle", closing(19, "DROP TABLE video_sortidx_tbl") + ".srt", b"", "video_tbl"),
        ]:
            ext = name[name.rindex("."):]
            put(folder + "/0ok" + ext, content, table)
            put(folder + "/" + name, content, None)
            put(folder + "/z_after" + ext, content, None)
        put("q_artist/song.mp3", tagged(TPE1=closing(13, "DROP TABLE music_sortArt_tbl")), None)
        put("q_album/song.mp3", tagged(TALB=closing(12, 'INSERT INTO record_objid_tbl VALUES ("pwned_alb","1")')),
            None)
        # The folder row's own statement: nothing in or below this folder is scanned.
        put(closing(6, "DROP TABLE path_objid_tbl") + "/inner.mp3", b"", None)
        put(closing(6, "DROP TABLE path_objid_tbl") + "/below/inner.srt", b"", None)

        # Parent look-up, single-quoted: a second statement fails, a widened condition finds no
        # row; either way the child gets parent 0.
        put("x'; DROP TABLE music_tbl; --/child/c.srt", b"", "video_tbl")
        put("a' OR '1'='1/child/c.srt", b"", "video_tbl")

        # Deep nesting, within the path limit.
        base = share + "deep/"
        self.levels = min(200, (511 - len(base) - len("leaf.srt")) // 2)
        put("deep/" + "d/" * self.levels + "leaf.srt", b"", "video_tbl")

        # Folder path plus name of 511 bytes is scanned, 512 is too long; a folder of 511 bytes is
        # queued, and everything in it is too long.
        folder = "long/" + "L" * (300 - len(share) - len("long/") - 1) + "/"
        room = 511 - len(share + folder)
        self.assertTrue(0 < room - 4 <= 255, "work folder path too long for the 511-byte names")
        put(folder + "n" * (room - 4) + ".mp3", AUDIO, "music_tbl")
        put(folder + "m" * (room - 3) + ".mp3", AUDIO, None)
        put(folder + "F" * room + "/x.srt", b"", None)

        # Zero-byte and truncated files of every media type.
        for name, content, table in [
            ("z.mp3", b"", "music_tbl"), ("t.mp3", b"ID3\x03\x00\x00\x00\x00\x10\x00TIT2", "music_tbl"),
            ("h.mp3", AUDIO[:300], "music_tbl"), ("z.wav", b"", "music_tbl"),
            ("z.jpg", b"", None), ("t.jpg", b"\xff\xd8\xff\xc0\x00\x11\x08", "photo_tbl"),
            ("t.png", b"\x89PNG\r\n\x1a\n", "photo_tbl"), ("t.gif", b"GIF89a", "photo_tbl"),
            ("t.bmp", b"BM", "photo_tbl"), ("t.tif", b"II*\x00\xf0\xff\xff\xff", "photo_tbl"),
            ("t.tiff", b"MM\x00*\x00\x00\x00\x08\x00\x05", "photo_tbl"), ("z.png", b"", None),
            ("z.mpg", b"", "video_tbl"), ("t.mpg", MPEG[:100], "video_tbl"), ("t.vob", b"\x00\x00\x01", "video_tbl"),
            ("z.m3u", b"", "music_tbl"), ("t.m3u", b"#EXTINF:1,t", "music_tbl"), ("z.pls", b"", "music_tbl"),
            ("t.pls", b"File1=", "music_tbl"), ("z.srt", b"", "video_tbl"),
        ]:
            put("trunc/" + name, content, table)

        # Several GiB named as a photo, its frame header at the very end: the whole file is read
        # for it, in bounded memory.
        self.big_size = (3 << 30) + 64
        big = sb.sparse("big.jpg", self.big_size)
        with open(big, "r+b") as f:
            f.write(b"\xff\xd8\xff\xe0\x00\x10JFIF\x00")
            f.seek(self.big_size - 32)
            f.write(b"\xff\xc0\x00\x11\x08\x01\x23\x04\x56\x03\x01\x22\x00\xff\xd9")
        expected["photo_tbl"].add((share.encode(), b"big.jpg"))
        return expected

    def test_every_statement_holds_its_texts(self):
        sb = self.sb
        expected = self.build_share()
        rss_file = sb.path("log", "maxrss")
        with open(sb.path("bin", "rss.py"), "w") as f:
            f.write(RSS_WRAPPER)
        sb.wrapper = (sys.executable, sb.path("bin", "rss.py"), rss_file)
        res = sb.run(timeout=300)
        self.assert_outcome(res)
        out = res.stdout
        share = sb.share.encode()

        # Exactly the rows the scan must write, for every table.
        for table, want in expected.items():
            with self.subTest(table):
                self.assertEqual(self.items(table), want)
        for table, col in (("music_tbl", "Genre, Artist, Album, Title"), ("video_tbl", "Title"), ("photo_tbl", "Comments")):
            for row in sb.rows(table, columns=col):
                self.assertFalse(any(b"pwned" in v for v in row), row)
        self.assertEqual(sb.query("select count(*) from record_objid_tbl where type like 'pwned%'"), [(0,)])

        # The failed statements, each with the error of a text holding two statements.
        for prefix, count in ((b"1ScanMusic():execute sql query error[", 3), (b"2ScanMusic():execute sql query error[", 1),
                              (b"3ScanMusic():execute sql query error[", 2), (b"4ScanMusic():execute sql query error[", 1)):
            self.assertEqual(out.count(prefix + MORE_THAN_ONE), count, prefix)
        self.assertEqual(len(re.findall(rb"ScanMusic\(\):execute sql query\[insert into path_objid_tbl .*\] error\[" + MORE_THAN_ONE, out)), 1)
        self.assertEqual(out.count(b"2scan file fail\n"), 8)
        self.assertNotIn(b"1scan file fail", out)

        # Tag texts: stored as read (the title escaped), and handed to the detector as one argument.
        self.assertIn((b"Others", b"`touch canary2`", b"'; touch canary3; '", b"$(touch canary1)", b"32"),
                      sb.rows("music_tbl", columns="Genre, Artist, Album, Title, Bitrate"))
        self.assertIn(b"$(touch canary1)`touch canary2`'; touch canary3; '\"; touch canary4; \"", sb.detector_calls())
        self.assertIn((b"t'); DROP TABLE music_tbl; --" + b"x" * 20,), sb.rows("music_tbl", columns="Title"))

        # Playlists: the crafted lines fail their look-up, the others resolve to their songs.
        no = dict((n, v) for v, n in sb.rows("music_tbl", columns="No, Real_fname"))
        pls = dict(sb.query("select Real_Path || Real_fname, PlsFile from music_tbl where EXT_fname in ('m3u','pls')"))
        self.assertEqual(pls[share + b"list.m3u"], no[b"shell.mp3"] + b"," + no[b"title.mp3"] + b",")
        self.assertEqual(pls[share + b"list.pls"], no[b"title.mp3"] + b",")
        for name in (b"z.m3u", b"t.m3u", b"z.pls", b"t.pls"):
            self.assertEqual(pls[share + b"trunc/" + name], b"")
        self.assertIn(b"parser_playlist():3Execute SQL query Error\n", out)
        self.assertIn(b"parser_playlist():2Execute SQL query Error\nsqlquery[", out)
        self.assertIn(b"parser_playlist():5Execute SQL query Error\nsqlquery[", out)
        self.assertIn(b"2Can't find [$(touch canary7).mp3] in m3u[", out)
        self.assertIn(b"3Can't find [`touch canary8`.mp3] in m3u[", out)

        # Parent look-up of the children of single-quoted folders.
        quoted = [share + b"x'; DROP TABLE music_tbl; --/child/", share + b"a' OR '1'='1/child/"]
        self.assert_parents(orphans=quoted)
        self.assertIn(b"get_parid():1Exe SQL query Error[select ObjID from path_objid_tbl where path =='%s"
                      b"x'; DROP TABLE music_tbl; --/';]\n" % share, out)
        paths = [p for p, in sb.rows("path_objid_tbl", columns="path")]
        self.assertEqual([p for p in paths if b'"' in p], [])
        self.assertEqual(len([p for p in paths if p.startswith(share + b"deep/")]), self.levels + 1)
        self.assertEqual(sb.query("select layer from video_tbl where Real_fname = 'leaf.srt'"),
                         [(b"%d" % (self.levels + 1),)])

        # Path lengths.
        self.assertIn(b"<mediawalk>ScanMusic(): file path too long 512\n", out)
        self.assertIn(b"<mediawalk>ScanMusic(): file path too long 517\n", out)

        # Flags and sorted tables over what was stored.
        self.assertEqual(self.flags(""), [(b"1", b"1", b"1")])
        self.assertEqual(self.flags("q_photo/"), [(b"0", b"0", b"1")])
        self.assertEqual(self.flags("x'; DROP TABLE music_tbl; --/"), [(b"1", b"0", b"0")])
        self.assertEqual(self.flags("trunc/"), [(b"1", b"1", b"1")])
        for sort_table, table, where in (("music_sortidx_tbl", "music_tbl", "EXT_fname not in ('m3u','pls')"),
                                         ("video_sortidx_tbl", "video_tbl", "EXT_fname != 'srt'"),
                                         ("photo_sortidx_tbl", "photo_tbl", "1")):
            self.assertEqual(sorted(sb.rows(sort_table, columns="idx")),
                             sorted(sb.query("select No from %s where %s" % (table, where))), sort_table)

        # The big photo: measured from its last bytes, at its full size, in bounded memory.
        self.assertEqual(sb.query("select Width, Height, Depth, Filesize from photo_tbl where Real_fname = 'big.jpg'"),
                         [(b"1110", b"291", b"24", b"%d" % self.big_size)])
        with open(rss_file) as f:
            peak_kib = int(f.read())
        # ASan's shadow and quarantine add some 40 MiB; holding the file would add gigabytes.
        limit_mib = 128 if sanitized() else 64
        self.assertLess(peak_kib, limit_mib * 1024, "peak resident size %d KiB" % peak_kib)


# Texts that close their double-quoted value and go on as SQL without any ";", each as seen
# against the scan. A forged row ends the INSERT's row (`after` values follow the text in it) and
# adds one of `table`: a playlist /tmp/o.m3u (the blob is "/tmp/") or a folder row; in a look-up
# (table None) it adds a result row. Each runs nothing; the error is the one its statement prints.
# Tag texts arrive cut to some 128 bytes, hence the short values.
NOT_RUN = b"a value closes its quotes and goes on as SQL; the statement was not run"
FORGED = {"music_tbl": "NULL,x'2f746d702f','o.m3u',0,0,'m3u'" + ",0" * 17,
          "path_objid_tbl": "x'2f746d702f'" + ",0" * 6}
ATTACKS = [
    ("recursive", lambda table, after: 'a"||(with recursive c(n) as (select 1 union all select n+1 from c) '
                                       'select count(*) from c)||"', b"not authorized"),
    ("zeroblob", lambda table, after: 'a"||zeroblob(300000000)||"', b"not authorized to use function: zeroblob"),
    ("schema", lambda table, after: 'a"||(select sql from sqlite_master)||"',
     b"access to sqlite_master.sql is prohibited"),
    ("tokenizer", lambda table, after: 'a"||fts3_tokenizer("simple")||"',
     b"not authorized to use function: fts3_tokenizer"),
    ("forged", lambda table, after: 'x"%s),(%s)--' % (",0" * after, FORGED[table]) if table
     else 'x" union select 7 --', b"not authorized"),
    ("doubled", lambda table, after: 'k""x', NOT_RUN),
]
# Carrier: (the table its INSERT fills, values after the text in it); the m3u line is looked up.
CARRIERS = {"file": ("music_tbl", 20), "folder": ("path_objid_tbl", 6), "artist": ("music_tbl", 13),
            "album": ("music_tbl", 12), "m3u": (None, 0)}


class ValuesStayValues(HostileCase):
    def test_values_that_go_on_as_sql_run_nothing(self):
        sb = self.sb
        sb.file("o.m3u", "SECRET.mp3\n", base=sb.tmp)
        cases = []
        for attack, text_for, error in ATTACKS:
            for carrier, (table, after) in CARRIERS.items():
                folder, text = "%s_%s/" % (attack, carrier), text_for(table, after)
                cases.append((folder, carrier, text, error))
                if carrier == "file":
                    sb.file(folder + text + ".mp3")
                elif carrier == "folder":
                    sb.file(folder + text + "/a.srt", b"1")
                elif carrier == "m3u":
                    sb.file(folder + "ok.mp3")
                    sb.file(folder + "list.m3u", text + ".mp3\nok.mp3\n")
                else:
                    sb.file(folder + "song.mp3", tagged(**{"TPE1" if carrier == "artist" else "TALB": text}))
        rss_file = sb.path("log", "maxrss")
        with open(sb.path("bin", "rss.py"), "w") as f:
            f.write(RSS_WRAPPER)
        sb.wrapper = (sys.executable, sb.path("bin", "rss.py"), rss_file)
        res = sb.run(timeout=60)
        self.assert_outcome(res)
        out, share = res.stdout, sb.share.encode()
        self.assertNotIn(b"SECRET", out)
        self.assertEqual(out.count(b"2scan file fail\n"), 4 * len(ATTACKS))
        self.assertEqual(out.count(b"parser_playlist():3Execute SQL query Error\n"), len(ATTACKS))
        self.assertEqual(sorted(sb.rows("path_objid_tbl", columns="path")),
                         sorted([(share,)] + [(share + f.encode(),) for f, _, _, _ in cases]))
        self.assertEqual(sb.rows("video_tbl"), [])
        no = dict((p + n, v) for v, p, n in sb.rows("music_tbl", columns="No, Real_Path, Real_fname"))
        pls = dict(sb.query("select Real_Path, PlsFile from music_tbl where EXT_fname = 'm3u'"))
        for folder, carrier, text, error in cases:
            with self.subTest(folder):
                path = share + folder.encode()
                if carrier == "m3u":
                    self.assertEqual(sorted(k for k in no if k.startswith(path)),
                                     [path + b"list.m3u", path + b"ok.mp3"])
                    self.assertEqual(pls[path], no[path + b"ok.mp3"] + b",")
                    continue
                self.assertFalse([k for k in no if k.startswith(path)])
                if carrier == "folder":
                    self.assertRegex(out, rb"\nScanMusic\(\):execute sql query\[insert into path_objid_tbl values "
                                     rb"\(\"" + re.escape(path + text.encode()) + rb"/\".*\] error\["
                                     + re.escape(error) + rb"\]\n")
        for _, _, error in ATTACKS:
            self.assertEqual(out.count(b"1ScanMusic():execute sql query error[%s]\n" % error),
                             3 * sum(1 for _, _, e in ATTACKS if e == error), error)
        with open(rss_file) as f:
            self.assertLess(int(f.read()), (128 if sanitized() else 64) * 1024)


class FullVolume(HostileCase):
    def test_a_full_volume_is_reported_once_and_the_run_ends_as_usual(self):
        sb = self.sb
        for i in range(300):
            sb.file("%03d_%s.srt" % (i, "n" * 200), b"1")
        sb.file("list.m3u", "000.mp3\n")  # its COMMIT meets the full volume, then every table is gone
        # A tmpfs on the mount path with room for the empty database but not for the rows.
        sb.wrapper = ("sh", "-c", 'mount -t tmpfs -o size=256k tmpfs "$0" && exec "$@"', sb.mnt)
        res = sb.run(timeout=60)
        self.assertEqual(res.status, 1, res)
        self.assertIsNone(sb.marker())
        self.assertEqual([line for line in res.lines if line.endswith(b"-->")],
                         [b"creat table-->", b"Scan Music -->", b"Parse playlist-->", b"Sort DBtable-->",
                          b"Assign path_objid_tbl media-->", b"Cover old-DB table-->", b"Finish-->"])
        self.assertEqual(res.lines.count(b"mediawalk(): database or disk is full: the library [%s] is incomplete"
                                         % sb.db_path().encode()), 1, res)


class ChangingShare(HostileCase):
    """Files swapped for FIFOs and folders removed while the scan runs: nothing blocks."""

    def detector_script(self, actions):
        """A detector that logs like the harness stub and, when its argument contains a key of
        `actions`, runs that shell text once first."""
        sb = self.sb
        cases = "".join("  *%s*) %s ;;\n" % (key, text) for key, text in actions.items())
        script = sb.path("bin", "detect_char_encode")
        with open(script, "w") as f:
            f.write("#!/bin/sh\nprintf '%%s\\000' \"$1\" >> '%s'\ncase \"$1\" in\n%sesac\nprintf windows-1252\n"
                    % (sb.detector_log, cases))
        os.chmod(script, 0o755)

    def test_swapped_and_removed_entries(self):
        sb = self.sb
        s = sb.share
        sb.file("0gone/song.mp3", AUDIO)              # queued, then removed before its turn
        sb.file("a_trigger.mp3", tagged(TIT2="REMOVE"))
        sb.file("b_gone.mp3", AUDIO)                  # listed, removed before its status is read
        sb.file("c_swap.mp3", tagged(TIT2="SWAPME"))  # a FIFO between its tag and its frame analysis
        sb.file("d.mp3", AUDIO)
        sb.file("list.m3u", "d.mp3\n")                # FIFOs by the time the playlists are read
        sb.file("list.pls", "File1=d.mp3\n")
        sb.file("zsub/p.mp3", tagged(TIT2="PLAYLISTS"))
        fifo = "rm -f '{0}' && mkfifo '{0}'"
        self.detector_script({
            "REMOVE": "rm -rf '%s0gone' '%sb_gone.mp3'" % (s, s),
            "SWAPME": fifo.format(s + "c_swap.mp3"),
            "PLAYLISTS": fifo.format(s + "list.m3u") + "; " + fifo.format(s + "list.pls"),
        })
        res = sb.run(timeout=60)
        self.assert_outcome(res)
        for name in ("c_swap.mp3", "list.m3u", "list.pls"):
            self.assertTrue(stat.S_ISFIFO(os.lstat(s + name).st_mode), "no swap of " + name)
        out = res.stdout
        root = s.encode()
        self.assertEqual(sb.rows("path_objid_tbl", columns="path"), [(root,), (root + b"zsub/",)])
        self.assertIn(b"<mediawalk>ScanMusic(): lstat error:[Unknown error -1],-1,file:[%sb_gone.mp3]\n" % root, out)
        self.assertEqual(sb.rows("music_tbl", columns="Real_fname, Title, Bitrate, PlsFile"), [
            (b"a_trigger.mp3", b"REMOVE", b"32", b"0"),
            (b"c_swap.mp3", b"SWAPME", b"0", b"0"),
            (b"d.mp3", b"d.mp3", b"32", b"0"),
            (b"list.m3u", b"0", b"0", b"0"),
            (b"list.pls", b"0", b"0", b"0"),
            (b"p.mp3", b"PLAYLISTS", b"32", b"0"),
        ])
        self.assertIn(b"scan_get_mp3fileinfo():Get mp3 file info failure!!!\n  filename [%sc_swap.mp3]\n" % root, out)
        for name in (b"list.m3u", b"list.pls"):
            self.assertIn(b"parser_playlist():Open [%s%s] fail\n" % (root, name), out)
        self.assertEqual(sb.progress()[:4], b"8,6,")


    # (share files, trigger: the file whose detector call swaps, the share path swapped for a link
    # to outside/, the outside files, the music rows kept with their bitrates, their folders).
    # Read through the link, an outside file gives its "SECRET" title and a bitrate of 32.
    LINK_SWAPS = [
        # a queued folder, swapped before its turn
        (["q1/sub/own.mp3", "q1/z.mp3"], "q1/z.mp3", "q1/sub", ["1/own.mp3"], ["q1/z.mp3 32"], ["q1/"]),
        # an ancestor of a queued folder; the trigger's frames are read after the swap
        (["a2/b/own.mp3", "a2/z.mp3"], "a2/z.mp3", "a2", ["2/b/own.mp3", "2/z.mp3"], ["a2/z.mp3 0"], ["a2/"]),
        # the folder being scanned, between its listing and its next file
        (["c3/a.mp3", "c3/b.mp3"], "c3/a.mp3", "c3", ["3/b.mp3", "3/a.mp3"], ["c3/a.mp3 0"], ["c3/"]),
        # a file, between its tag and its frame analysis
        (["f4/x.mp3"], "f4/x.mp3", "f4/x.mp3", ["4.mp3"], ["f4/x.mp3 0"], ["f4/"]),
        # the folder of a playlist, after the walk and before the playlists are read
        (["p5/l/list.m3u", "p5/l/own.mp3", "p5/y/y/t.mp3"], "p5/y/y/t.mp3", "p5/l", ["5/list.m3u"],
         ["p5/l/list.m3u 0", "p5/l/own.mp3 32", "p5/y/y/t.mp3 32"], ["p5/", "p5/l/", "p5/y/", "p5/y/y/"]),
    ]

    def test_links_swapped_in_are_never_followed(self):
        sb = self.sb
        s, outside = sb.share, sb.path("outside") + "/"
        actions = {}
        for files, trigger, swapped, outer, _, _ in self.LINK_SWAPS:
            for rel in files:
                sb.file(rel, "own.mp3\n" if rel.endswith(".m3u") else tagged(TIT2="s" + rel))
            for rel in outer:
                sb.file(rel, "own.mp3\n" if rel.endswith(".m3u") else tagged(TIT2="SECRET"), base=outside)
            actions["s" + trigger] = "rm -rf '%s%s' && ln -s '%s%s' '%s%s'" % (
                s, swapped, outside, outer[0].split("/")[0], s, swapped)
        self.detector_script(actions)
        res = sb.run(timeout=60)
        self.assert_outcome(res)
        root = s.encode()
        rows = sb.rows("music_tbl", columns="Real_Path, Real_fname, Title, Bitrate, PlsFile")
        folders = [p for p, in sb.rows("path_objid_tbl", columns="path")]
        for files, trigger, swapped, _, kept, kept_folders in self.LINK_SWAPS:
            with self.subTest(swapped):
                self.assertTrue(os.path.islink(s + swapped), "no swap of " + swapped)
                top = root + swapped.split("/")[0].encode() + b"/"
                mine = [r for r in rows if r[0].startswith(top)]
                self.assertEqual(["%s %s" % ((r[0] + r[1])[len(root):].decode(), r[3].decode()) for r in mine], kept)
                self.assertNotIn(b"SECRET", [r[2] for r in mine])
                self.assertEqual([f[len(root):].decode() for f in folders if f.startswith(top)], kept_folders)
        lines = [b"<mediawalk>ScanMusic(): lstat error:[Unknown error -1],-1,file:[%sc3/b.mp3]\n" % root,
                 b"parser_playlist():Open [%sp5/l/list.m3u] fail\n" % root]
        self.assertEqual([line for line in lines if line not in res.stdout], [])


class Unprivileged(HostileCase):
    """Unreadable files and folders, with the scan running as an ordinary user."""

    USER = 65534

    def test_unreadable_entries(self):
        if os.geteuid() != 0:
            self.skipTest("needs root to run the scan as another user")
        sb = self.sb
        blocked = []
        for start in (harness.binary(), sb.root):
            path = os.path.dirname(start)
            while path != "/":
                if not os.stat(path).st_mode & stat.S_IXOTH:
                    blocked.append(path)
                path = os.path.dirname(path)
        if blocked:
            self.skipTest("not reachable by another user: %s" % blocked[0])
        os.chmod(sb.root, 0o755)
        os.chmod(sb.path("log"), 0o777)
        os.chown(sb.mnt, self.USER, self.USER)
        sb.wrapper = ("setpriv", "--reuid=%d" % self.USER, "--regid=%d" % self.USER, "--clear-groups")
        sb.file("open.mp3", tagged(TIT2="open"))
        secret = [sb.file("secret.mp3", tagged(TIT2="secret")), sb.file("secret.jpg", BMP),
                  sb.file("secret.mpg", MPEG), sb.file("secret.m3u", "open.mp3\n"),
                  sb.file("locked/inside.srt", b"1"), sb.file("unlisted/inside.srt", b"1"),
                  sb.file("noexec/inside.srt", b"1")]
        for p in secret[:4]:
            os.chmod(p, 0)
        os.chmod(sb.share_path("locked"), 0)
        os.chmod(sb.share_path("unlisted"), 0o311)
        os.chmod(sb.share_path("noexec"), 0o644)
        res = sb.run()
        self.assert_outcome(res)
        self.assertEqual(os.stat(sb.db_path()).st_uid, self.USER)
        root = sb.share.encode()
        self.assertEqual(sb.rows("path_objid_tbl", columns="path"), [(root,), (root + b"noexec/",)])
        self.assertEqual(sb.rows("music_tbl", columns="Real_fname, Title, Bitrate, PlsFile"), [
            (b"open.mp3", b"open", b"32", b"0"),
            (b"secret.m3u", b"0", b"0", b"0"),
            (b"secret.mp3", b"secret.mp3", b"0", b"0"),
        ])
        self.assertEqual(sb.rows("video_tbl", columns="Real_fname, Width"), [(b"secret.mpg", b"0")])
        self.assertEqual(sb.rows("photo_tbl"), [])
        out = res.stdout
        self.assertIn(b"parser_playlist():Open [%ssecret.m3u] fail\n" % root, out)
        self.assertIn(b"<mediawalk>ScanMusic(): lstat error:[Unknown error -1],-1,file:[%snoexec/inside.srt]\n" % root, out)
        for folder in (b"locked/", b"unlisted/"):
            self.assertIn(b"<mediawalk>Cnt_total_file(): opendir error:[Permission denied],file:[%s%s]\n"
                          % (root, folder), out)


class Termination(HostileCase):
    """A detector that hangs, and SIGTERM while the walk waits on the detector."""

    def test_hung_detectors_are_bounded(self):
        # One hangs before answering, one after: each call ends after its time, what was printed
        # by then is the answer, and nothing the detector started is left running. In parallel,
        # so that the two bounds are waited for at once.
        runs = {}
        for answer, title in ((b"", "\xe9t\xe9".encode()), (b"KOI8-R", "\u0439t\u0439".encode())):
            sb = HostileSandbox("hang")
            self.addCleanup(sb.cleanup)
            sb.write_codepage("cp850\n")
            sb.conf()
            sb.file("a.mp3", tagged(TIT2="\xe9t\xe9"))
            with open(sb.path("bin", "detect_char_encode"), "w") as f:
                f.write("#!/bin/sh\nprintf '%s'\necho $$ >> %s\nsleep 600 &\necho $! >> %s\nwait\n"
                        % (answer.decode(), sb.path("log", "pids"), sb.path("log", "pids")))
            runs[sb] = title
        results = {}
        threads = [threading.Thread(target=lambda sb=sb: results.update({sb: sb.run()})) for sb in runs]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        for sb, title in runs.items():
            res = results[sb]
            self.assertEqual(res.status, 1, res)
            self.assertEqual(sb.rows("music_tbl", columns="Title"), [(title,)])
            with open(sb.path("log", "pids")) as f:
                pids = [int(p) for p in f.read().split()]
            self.assertEqual(len(pids), 2)
            self.assertTrue(harness.wait_for(lambda: all(harness.process_state(p) in (None, "Z") for p in pids),
                                             timeout=10), pids)

    def test_sigterm_during_the_walk_then_a_full_run(self):
        sb = self.sb
        held, release = sb.path("log", "held"), sb.path("log", "release")
        script = sb.path("bin", "detect_char_encode")
        with open(script, "w") as f:
            f.write("#!/bin/sh\ncase \"$1\" in *HOLD*)\n  echo $$ > '%s'\n  i=0\n"
                    "  while [ ! -e '%s' ] && [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done ;;\nesac\n"
                    "printf windows-1252\n" % (held, release))
        os.chmod(script, 0o755)
        sb.file("a.mp3", tagged(TIT2="HOLD"))
        sb.file("b.m3u", "a.mp3\n")
        sb.file("sub/c.srt", b"1")
        seen = {}

        def terminate_when_held(proc):
            try:
                if not harness.wait_for(lambda: os.path.exists(held) or proc.poll() is not None, timeout=60):
                    return
                seen["marker"], seen["pid"] = sb.marker(), proc.pid
                os.kill(proc.pid, signal.SIGTERM)
                harness.wait_for(lambda: harness.process_state(proc.pid) in (None, "Z"), timeout=30)
                with open(held) as f:
                    detector = int(f.read())
                # The detector is ended with the scan, not left waiting for its release.
                seen["detector"] = harness.wait_for(lambda: harness.process_state(detector) in (None, "Z"),
                                                    timeout=10)
            finally:
                open(release, "w").close()

        res = sb.run(during=terminate_when_held, timeout=90)
        self.assertIsNotNone(seen.get("marker"), "the run was not held with its marker in place")
        if not harness.LAUNCHER:  # under an emulator the process is named after the emulator
            self.assertIn(b"%d" % seen["pid"], seen["marker"].split())  # what pidof printed
        self.assertTrue(seen["detector"], "the detector outlived the scan")
        self.assertEqual(res.status, 0, res)
        self.assertEqual(res.lines[-1], b"mediawalk(): terminate")
        self.assertNotIn(b"Parse playlist-->", res.stdout)
        self.assertIsNone(sb.marker())

        os.unlink(held)
        res = sb.run()
        self.assert_outcome(res)
        root = sb.share.encode()
        self.assertEqual(sb.rows("music_tbl", columns="Real_fname, Title, PlsFile"),
                         [(b"a.mp3", b"HOLD", b"0"), (b"b.m3u", b"0", b"1,")])
        self.assertEqual(self.items("video_tbl"), {(root + b"sub/", b"c.srt")})
        self.assertEqual(sb.progress(), b"3,3,1\n3,3,1\n")


if __name__ == "__main__":
    unittest.main()
