"""End-to-end tests of one scan run: exits, files left behind, xmldb nodes, database location and
schema, all through the real binary in its sandbox."""

import os
import pathlib
import re
import shutil
import signal
import sqlite3
import stat
import time
import unittest

import harness
from harness import MARKER, PROGRESS, RESULT, SandboxTestCase

SCHEMA = [
    "CREATE TABLE music_tbl (No,Real_Path,Real_fname varchar(256),UTF_Path,UTF_fname varchar(512),"
    "EXT_fname varchar(12),Creattime,Filesize,Genre varchar(128),Artist varchar(128),Album varchar(128),"
    "Title varchar(128),Bitrate,Author,Year,Comments,layer,PlsFile,ObjID,Dir_ParentID,reserve1,reserve2,"
    "reserve3 );",
    "CREATE TABLE photo_tbl (No,Real_Path,Real_fname varchar(256),UTF_Path,UTF_fname varchar(512),"
    "EXT_fname varchar(12),Creattime,Filesize,Width,Height,Depth,Date_creat,Comments,Author,layer,ObjID,"
    "Dir_ParentID,reserve1,reserve2,reserve3 );",
    "CREATE TABLE video_tbl (No,Real_Path,Real_fname varchar(256),UTF_Path,UTF_fname varchar(512),"
    "EXT_fname varchar(12),Creattime,Filesize,Width,Height,Bitrate,Format_type,Totaltime,Subtitle,Title,"
    "Comments,layer,ObjID,Dir_ParentID,reserve1,reserve2,reserve3);",
    "CREATE INDEX idx_music_No ON music_tbl(No);",
    "CREATE INDEX idx_music_Title ON music_tbl(Title);",
    "CREATE INDEX idx_music_EXT_fname ON music_tbl(EXT_fname);",
    "CREATE INDEX idx_music_UTF_fullfname ON music_tbl(UTF_Path,UTF_fname);",
    "CREATE INDEX idx_music_Real_fullfname ON music_tbl(Real_Path,Real_fname);",
    "CREATE INDEX idx_photo_No ON photo_tbl(No);",
    "CREATE INDEX idx_photo_EXT_fname ON photo_tbl(EXT_fname);",
    "CREATE INDEX idx_photo_UTF_fullfname ON photo_tbl(UTF_Path,UTF_fname);",
    "CREATE INDEX idx_video_No ON video_tbl(No);",
    "CREATE INDEX idx_video_EXT_fname ON video_tbl(EXT_fname);",
    "CREATE INDEX idx_video_UTF_fullfname ON video_tbl(UTF_Path,UTF_fname);",
    "CREATE TABLE music_sortidx_tbl (idx,reserve1,reserve2);",
    "CREATE TABLE photo_sortidx_tbl (idx,reserve1,reserve2);",
    "CREATE TABLE video_sortidx_tbl (idx,reserve1,reserve2);",
    "CREATE TABLE music_sortGen_tbl (name,cnt,ObjID,reserve1,reserve2);",
    "CREATE TABLE music_sortArt_tbl (name,cnt,ObjID,reserve1,reserve2);",
    "CREATE TABLE music_sortAlb_tbl (name,cnt,ObjID,reserve1,reserve2);",
    "CREATE TABLE path_objid_tbl (path,ObjID,Dir_ParentID,layer,have_video,have_music,have_photo);",
    "CREATE TABLE record_objid_tbl (type,ObjID);",
]
TABLES = [re.match(r"CREATE TABLE (\w+)", s).group(1) for s in SCHEMA if s.startswith("CREATE TABLE")]

# After an empty share: the root folder took the first folder identifier and has no parent.
EMPTY_SHARE_RECORD = [
    (b"media_path_objid", b"4000000000002"),
    (b"media_path_parid", b"0"),
    (b"photo_file_objid", b"1000000000001"),
    (b"video_file_objid", b"2000000000001"),
    (b"music_file_objid", b"3000000000001"),
    (b"music_file_pls_parid", b"3030000000001"),
    (b"music_file_gen_objid", b"3040000000001"),
    (b"music_file_art_objid", b"3050000000001"),
    (b"music_file_alb_objid", b"3060000000001"),
]

DATE_LINE = re.compile(rb"^[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d UTC \d{4}$")

NODE_TOTAL = "/runtime/scan_media/total_file"
NODE_SCANNED = "/runtime/scan_media/total_scan_file"
NODE_DONE = "/runtime/scan_media/scan_done"


def progress_text(total, scanned, done):
    line = b"%d,%d,%d\n" % (total, scanned, done)
    return line + line


class EarlyExits(SandboxTestCase):
    """Every way the run ends before a database exists, and exactly what each leaves behind."""

    def setUp(self):
        super().setUp()
        self.sb.write_codepage("cp850\n")

    def test_inactive_server_touches_nothing(self):
        # Only an exact "inactive" stops the run; a carriage return or a last line without its
        # newline leaves the state unread, and the run goes on.
        cases = [
            ("plain", "sd_status=inactive\n", True),
            ("first line", "sd_status=inactive\nsharepath={share}\nmntpath={mnt}\n", True),
            ("crlf", "sharepath={share}\nmntpath={mnt}\nsd_status=inactive\r\n", False),
            ("no final newline", "sharepath={share}\nmntpath={mnt}\nsd_status=inactive", False),
            ("other state", "sharepath={share}\nmntpath={mnt}\nsd_status=Inactive\n", False),
        ]
        for name, conf, stops in cases:
            with self.subTest(name):
                sb = harness.Sandbox("inact")
                self.addCleanup(sb.cleanup)
                sb.write_codepage("cp850\n")
                sb.write_conf(conf.format(share=sb.share, mnt=sb.mnt))
                if stops:
                    # Even a leftover marker is not looked at.
                    with open(sb.tmp_file(MARKER), "wb") as f:
                        f.write(b"4242\n")
                res = sb.run()
                self.assertEqual(res.status, 1, res)
                if stops:
                    self.assertEqual(res.stdout, b"")
                    self.assertEqual(sorted(os.listdir(sb.tmp)), [MARKER])
                    self.assertEqual(sb.marker(), b"4242\n")
                    self.assertFalse(os.path.exists(sb.path("mnt", ".systemfile")))
                    self.assertEqual(sb.xmldb_requests(), [])
                else:
                    self.assertIn(b"Finish-->", res.lines)
                    self.assertTrue(os.path.exists(sb.db_path()))

    def test_marker_present_refuses_to_run(self):
        self.sb.conf()
        with open(self.sb.tmp_file(MARKER), "wb") as f:
            f.write(b"1234 5678\n")
        os.utime(self.sb.tmp_file(MARKER), (1000000000, 1000000000))
        res = self.sb.run()
        self.assertEqual(res.status, 255, res)
        self.assertEqual(res.stdout, b"mediawalking\n")
        self.assertEqual(sorted(os.listdir(self.sb.tmp)), [MARKER])
        self.assertEqual(self.sb.marker(), b"1234 5678\n")
        self.assertEqual(os.stat(self.sb.tmp_file(MARKER)).st_mtime, 1000000000)
        self.assertFalse(os.path.exists(self.sb.path("mnt", ".systemfile")))
        self.assertEqual(self.sb.xmldb_requests(), [])

    def test_folder_checks_fail(self):
        # Each leaves the marker removed, the progress file at its start line and the result
        # file created empty, with no database folder anywhere and no message of its own.
        sb0 = self.sb
        cases = [
            ("mount path missing", {"mntpath": sb0.path("nomnt") + "/"}),
            ("mount path is a file", {"mntpath": sb0.path("etc", "codepage")}),
            ("mount path empty", {"mntpath": ""}),
            ("share missing", {"sharepath": sb0.path("noshare") + "/"}),
            ("share is a file", {"sharepath": sb0.path("etc", "codepage")}),
            ("share empty", {"sharepath": ""}),
            ("no configuration file", None),
        ]
        for name, conf in cases:
            with self.subTest(name):
                # The paths above live in sb0; each case runs in its own sandbox but points there.
                sb = harness.Sandbox("fold")
                self.addCleanup(sb.cleanup)
                sb.write_codepage("cp850\n")
                if conf is None:
                    sb.remove_etc("upnpav.conf")
                else:
                    sb.conf(**conf)
                res = sb.run()
                self.assertEqual(res.status, 255, res)
                # Only the configuration reader speaks, naming the program, when it has no file.
                expected = b"" if conf is not None else b"error happen: %s\n" % harness.binary().encode()
                self.assertEqual(res.stdout, expected)
                self.assertEqual(sorted(os.listdir(sb.tmp)), sorted([PROGRESS, RESULT]))
                self.assertEqual(sb.progress(), progress_text(0, 0, 0))
                self.assertEqual(sb.result_file(), b"")
                for root in (sb.root, sb0.root):
                    leftovers = [d for d, dirs, files in os.walk(root) if ".systemfile" in d]
                    self.assertEqual(leftovers, [])
                self.assertEqual(sb.xmldb_requests(), [])

    def test_missing_codepage_is_reported_before_the_checks(self):
        self.sb.remove_etc("codepage")
        self.sb.conf(sharepath=self.sb.path("noshare") + "/")
        res = self.sb.run()
        self.assertEqual(res.status, 255, res)
        self.assertEqual(res.lines, [b"Open CodePage Error", b"Codepage[0] not found, set to default fromcode"])

    def test_mount_path_gone_on_the_second_check(self):
        # The mount path is checked before and after the share is counted; to reach the second
        # check, the run is stopped while it holds the share open and the mount path removed.
        sb = self.sb
        sb.conf()
        for d in range(40):
            for f in range(100):
                sb.file("d%02d/f%03d.txt" % (d, f))
        share = os.path.realpath(sb.share)
        for _attempt in range(5):
            caught = []

            def catch_count(proc):
                while proc.poll() is None:
                    if not harness.stop_process(proc.pid):
                        return
                    try:
                        if any(p == share or p.startswith(share + "/") for p in harness.open_paths(proc.pid)):
                            os.rmdir(sb.mnt)
                            caught.append(True)
                            return
                    finally:
                        os.kill(proc.pid, signal.SIGCONT)
                    time.sleep(0.0003)

            for name in os.listdir(sb.tmp):
                os.unlink(sb.tmp_file(name))
            # A run that was not caught has built its database under the mount path.
            shutil.rmtree(sb.mnt, ignore_errors=True)
            os.makedirs(sb.mnt)
            res = sb.run(during=catch_count)
            if caught:
                break
            self.assertEqual(res.status, 1, res)
        else:
            self.skipTest("could not stop a run while it held the share open (5 attempts)")
        self.assertEqual(res.status, 255, res)
        self.assertEqual(res.lines[-1], b'<mediawalk> "/mnt/HD_a4" not found')
        self.assertEqual(sorted(os.listdir(sb.tmp)), sorted([PROGRESS, RESULT]))
        self.assertEqual(sb.progress(), progress_text(0, 0, 0))
        self.assertEqual(sb.result_file(), b"")
        self.assertFalse(os.path.exists(sb.path("mnt.systemfile")))


class CompleteRun(SandboxTestCase):
    """A run over an empty share: status, files, stdout, xmldb, database."""

    def setUp(self):
        super().setUp()
        self.sb.conf()
        self.sb.write_codepage("cp850\n")

    def assert_closing_writes(self, requests, total, scanned):
        """scan_done comes once and last, after both counters hold their final values. The
        progress thread is never joined, so its last pair may interleave with the driver's."""
        done = [i for i, r in enumerate(requests) if r.node == NODE_DONE]
        self.assertEqual(done, [len(requests) - 1], requests)
        self.assertEqual(requests[-1].payload, b"/runtime/scan_media/scan_done 1\0")
        last = {}
        for r in requests[:-1]:
            last[r.node] = r.payload
        self.assertEqual(last, {
            NODE_TOTAL: b"/runtime/scan_media/total_file %d\0" % total,
            NODE_SCANNED: b"/runtime/scan_media/total_scan_file %d\0" % scanned,
        }, requests)
        pairs = [r.node for r in requests[:-1]]
        self.assertLessEqual(abs(pairs.count(NODE_TOTAL) - pairs.count(NODE_SCANNED)), 1, requests)

    def test_files_left_behind(self):
        res = self.run_ok()
        self.assertEqual(self.sb.marker(), None)
        self.assertEqual(self.sb.progress(), progress_text(1, 1, 1))
        self.assertEqual(self.sb.result_file(), b"")
        self.assertEqual(sorted(os.listdir(self.sb.tmp)), sorted([PROGRESS, RESULT]))
        self.assertEqual(res.stderr, "")

    def test_stdout_lines(self):
        for codepage in ("present", "missing"):
            with self.subTest(codepage=codepage):
                if codepage == "missing":
                    self.sb.remove_etc("codepage")
                res = self.run_ok()
                lines = res.lines
                expected_head = [] if codepage == "present" else [
                    b"Open CodePage Error", b"Codepage[0] not found, set to default fromcode"]
                expected = expected_head + [
                    b"Cnt_total_file():NULL(No content available)",
                    b"total_file_cnt[1]",
                    b"SQLite db file create\r",
                    b"creat table-->",
                    b"Scan Music -->",
                    b"Parse playlist-->",
                    b"Sort DBtable-->",
                    b"Assign path_objid_tbl media-->",
                    b"Cover old-DB table-->",
                    None,  # the output of date
                    b"",
                    b"Finish-->",
                    b"total_scan_cnt[1]",
                ]
                self.assertEqual(len(lines), len(expected), res)
                for i, (got, want) in enumerate(zip(lines, expected)):
                    if want is None:
                        self.assertRegex(got, DATE_LINE, "line %d" % i)
                    else:
                        self.assertEqual(got, want, "line %d" % i)

    def test_xmldb_nodes(self):
        # Whatever the daemon answers, or when it is not there at all, the run completes.
        for mode, status in (("answer", 0), ("answer", -1), ("absent", 0)):
            with self.subTest(mode=mode, status=status):
                res = self.run_ok(xmldb=mode, status=status)
                requests = self.sb.xmldb_requests()
                if mode == "absent":
                    self.assertEqual(requests, [])
                    self.assertFalse(os.path.exists(os.path.join(self.sb.run_dir, "xmldb_sock")))
                    continue
                self.assertEqual(self.sb.xmldb.garbled, [])
                for r in requests:
                    self.assertEqual((r.action, r.flags, r.reserved), (2, 0, 0), r)
                    self.assertEqual(r.length, len(r.payload), r)
                    self.assertEqual(r.payload.index(b"\0"), len(r.payload) - 1, r)
                    self.assertIn(r.node, (NODE_TOTAL, NODE_SCANNED, NODE_DONE), r)
                self.assert_closing_writes(requests, 1, 1)
                self.assertLess(res.elapsed, 60)

    def test_counts_reported(self):
        # Counted and scanned: files of a known class, not hidden, not behind a link, in any
        # folder not starting with a dot; both counts are at least 1.
        cases = [
            ("only unknown files", {"a.txt": b"x", "b.mp3.bak": b"x", "README": b"x"}, 1),
            ("subtitles and playlists", {
                "a.srt": b"1\n", "b.pls": b"[playlist]\n", "sub/c.SRT": b"1\n", "sub/deeper/d.pls": b"",
                ".hidden.srt": b"1\n", ".dot/e.srt": b"1\n", "f.txt": b"x"}, 4),
        ]
        for name, files, count in cases:
            with self.subTest(name):
                sb = harness.Sandbox("count")
                self.addCleanup(sb.cleanup)
                sb.conf()
                sb.write_codepage("cp850\n")
                for rel, content in files.items():
                    sb.file(rel, content)
                if count > 1:
                    sb.symlink(sb.share_path("a.srt"), "link.srt")
                res = sb.run()
                self.assertEqual(res.status, 1, res)
                self.assertEqual(sb.progress(), progress_text(count, count, 1))
                self.assertIn(b"total_file_cnt[%d]" % count, res.lines)
                self.assertEqual(res.lines[-1], b"total_scan_cnt[%d]" % count)
                self.assert_closing_writes(sb.xmldb_requests(), count, count)

    def test_termination_handler(self):
        # A daemon that never answers holds the driver in its final xmldb write; SIGTERM then
        # ends the run through the handler with status 0, before scan_done is sent.
        sb = self.sb

        def terminate_when_blocked(proc):
            def finished():
                return sb.progress() == progress_text(1, 1, 1) and sb.marker() is None
            if not harness.wait_for(lambda: finished() or proc.poll() is not None, timeout=60):
                return
            if proc.poll() is not None:
                return
            time.sleep(0.3)
            os.kill(proc.pid, signal.SIGTERM)

        res = sb.run(xmldb="silent", during=terminate_when_blocked, timeout=90)
        self.assertEqual(res.status, 0, res)
        self.assertEqual(res.lines[-1], b"mediawalk(): terminate")
        self.assertIsNone(sb.marker())
        self.assertNotIn(NODE_DONE, [r.node for r in sb.xmldb_requests()])


class PlantedLinks(SandboxTestCase):
    def test_links_are_not_followed(self):
        # A link planted by another user at a fixed file under /tmp or on the database's path
        # is named in one line and left alone; the run goes on as when that file cannot be made.
        db = harness.DB_SUFFIX
        for where, target, status in (("/tmp/" + MARKER, "made", 1), ("/tmp/" + PROGRESS, "file", 1),
                                      ("/tmp/" + RESULT, "file", 1), (".systemfile", "", 255),
                                      (".systemfile/.upnpav-db", "", 255), (db, "file", 255),
                                      (db + "-journal", "file", 255)):
            with self.subTest(where):
                sb = harness.Sandbox("link")
                self.addCleanup(sb.cleanup)
                sb.conf()
                sb.write_codepage("cp850\n")
                victim = {"file": b"keep", "upnpav.db": b"keep", ".upnpav-db/upnpav.db": b"keep"}
                for rel, content in victim.items():
                    sb.file(rel, content, base=sb.path("victim"))
                link = sb.tmp_file(where[5:]) if where.startswith("/tmp/") else sb.mnt + where
                os.makedirs(os.path.dirname(link), exist_ok=True)
                os.symlink(sb.path("victim", target), link)
                os.lchown(link, 65534, 65534)
                res = sb.run()
                self.assertEqual(res.status, status, res)
                named = where if where.startswith("/tmp/") else link
                self.assertEqual(res.lines.count(b"mediawalk(): %s is a symbolic link, not followed"
                                                 % named.encode()), 1, res)
                left = {os.path.relpath(os.path.join(d, f), sb.path("victim")):
                        pathlib.Path(d, f).read_bytes() for d, _, files in os.walk(sb.path("victim")) for f in files}
                self.assertEqual(left, victim)
                if status == 255:
                    self.assertEqual(res.lines[-1], b"1mediawalk():Open DB fail[%s]" % sb.db_path().encode())


class Database(SandboxTestCase):
    """Where the database goes, how its folders are made, and what a fresh one holds."""

    def setUp(self):
        super().setUp()
        self.sb.write_codepage("cp850\n")

    def test_location_follows_the_mount_path_text(self):
        sb0 = self.sb
        # The 127-byte mount path buffer: pad a real folder's path to exactly 127 bytes, then add
        # text that must be cut off.
        pad = 127 - len(sb0.path("")) - 1
        long_dir = sb0.path("L" * pad) + "/"
        self.assertEqual(len(long_dir), 127)
        os.makedirs(long_dir)
        cases = [
            ("trailing slash", sb0.mnt, sb0.mnt + ".systemfile/.upnpav-db/upnpav.db"),
            ("no trailing slash", sb0.mnt[:-1], sb0.mnt[:-1] + ".systemfile/.upnpav-db/upnpav.db"),
            ("double slash", sb0.mnt + "/", sb0.mnt + "/.systemfile/.upnpav-db/upnpav.db"),
            ("cut at 127 bytes", long_dir + "cut/", long_dir + ".systemfile/.upnpav-db/upnpav.db"),
            # A link the configured mount path goes through is the appliance's own: followed.
            ("through a link", sb0.path("mntlink") + "/", sb0.mnt + ".systemfile/.upnpav-db/upnpav.db"),
        ]
        os.symlink(sb0.mnt, sb0.path("mntlink"))
        for name, mntpath, db in cases:
            with self.subTest(name):
                for stale in (sb0.mnt + ".systemfile", sb0.mnt[:-1] + ".systemfile", long_dir + ".systemfile"):
                    harness._rmtree(stale)
                sb0.conf(mntpath=mntpath)
                res = sb0.run()
                self.assertEqual(res.status, 1, res)
                self.assertTrue(os.path.isfile(db), db)
                found = sorted(os.path.join(d, f) for d, _, files in os.walk(sb0.root)
                               for f in files if f.startswith("upnpav.db"))
                self.assertEqual(found, [os.path.normpath(db)])
                con = harness.connect_read_only(db)
                self.assertEqual(con.execute("select count(*) from record_objid_tbl").fetchone(), (9,))
                con.close()

    def test_folder_modes(self):
        # Missing folders are made with mode 0700; folders already there keep theirs.
        self.addCleanup(os.umask, os.umask(0o022))
        cases = [
            ("none there", None, None, 0o700, 0o700),
            ("system folder there", 0o755, None, 0o755, 0o700),
            ("both there", 0o751, 0o755, 0o751, 0o755),
        ]
        sysdir = self.sb.mnt + ".systemfile"
        dbdir = sysdir + "/.upnpav-db"
        for name, sys_before, db_before, sys_after, db_after in cases:
            with self.subTest(name):
                harness._rmtree(sysdir)
                if sys_before is not None:
                    os.mkdir(sysdir)
                    os.chmod(sysdir, sys_before)
                if db_before is not None:
                    os.mkdir(dbdir)
                    os.chmod(dbdir, db_before)
                self.sb.conf()
                res = self.sb.run()
                self.assertEqual(res.status, 1, res)
                self.assertEqual(stat.S_IMODE(os.stat(sysdir).st_mode), sys_after)
                self.assertEqual(stat.S_IMODE(os.stat(dbdir).st_mode), db_after)

    def test_schema_text(self):
        self.sb.conf()
        self.run_ok()
        schema = self.sb.schema()
        self.assertEqual([sql for _, _, sql in schema], [s[:-1] for s in SCHEMA])
        self.assertEqual([name for kind, name, _ in schema if kind == "table"], TABLES)

    def test_empty_share_content(self):
        self.sb.conf()
        self.run_ok()
        rows = self.sb.query("select type, ObjID, typeof(type), typeof(ObjID) from record_objid_tbl order by ROWID")
        self.assertEqual([(t, o) for t, o, _, _ in rows], EMPTY_SHARE_RECORD)
        self.assertEqual({(a, b) for _, _, a, b in rows}, {(b"text", b"text")})
        self.assertEqual(self.sb.rows("path_objid_tbl"),
                         [(self.sb.share.encode(), b"4000000000001", b"0", b"0", b"0", b"0", b"0")])
        for table in TABLES:
            if table not in ("record_objid_tbl", "path_objid_tbl"):
                self.assertEqual(self.sb.rows(table), [], table)

    def test_second_run_leaves_nothing_of_the_first(self):
        sb = self.sb
        sb.conf()
        self.run_ok()
        first = sb.rows("record_objid_tbl")
        # Leave traces a rebuild must not keep: a foreign table and a stale journal.
        con = sqlite3.connect(sb.db_path())
        con.execute("create table leftover (x)")
        con.execute("insert into record_objid_tbl values ('stale', '1')")
        con.commit()
        con.close()
        journal = sb.db_path() + "-journal"
        with open(journal, "wb") as f:
            f.write(b"not a journal")
        res = self.run_ok()
        self.assertFalse(os.path.exists(journal))
        self.assertEqual([sql for _, _, sql in sb.schema()], [s[:-1] for s in SCHEMA])
        self.assertEqual(sb.rows("record_objid_tbl"), first)
        self.assertEqual(len(sb.rows("path_objid_tbl")), 1)
        self.assertEqual(sb.progress(), progress_text(1, 1, 1))
        self.assertIsNone(sb.marker())
        self.assertIn(b"SQLite db file create\r", res.lines)

    def test_unreadable_old_database_is_replaced(self):
        self.sb.conf()
        os.makedirs(self.sb.mnt + ".systemfile/.upnpav-db")
        with open(self.sb.db_path(), "wb") as f:
            f.write(b"this is not an sqlite database" * 100)
        self.run_ok()
        self.assertEqual(len(self.sb.schema()), len(SCHEMA))


if __name__ == "__main__":
    unittest.main()
