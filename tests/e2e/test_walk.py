"""End-to-end tests of the folder walk through the real binary: folder and item rows, which files
are admitted and how they are classed, the common columns, the failure path of a bad name, and the
counts published to xmldb while and after the scan runs."""

import os
import shlex
import unittest

import harness
import id3build
from harness import SandboxTestCase

NODE_TOTAL = "/runtime/scan_media/total_file"
NODE_SCANNED = "/runtime/scan_media/total_scan_file"
NODE_DONE = "/runtime/scan_media/scan_done"

FOLDER_BASE = 4000000000001
PHOTO_BASE = 1000000000001
VIDEO_BASE = 2000000000001
MUSIC_BASE = 3000000000001

# Extensions by the table each class goes to.
PHOTO = ["bmp", "gif", "jpg", "jpeg", "jpe", "tif", "tiff", "png"]
MUSIC = ["aif", "aiff", "wav", "wma", "mp3", "mp2", "pcm", "lpcm", "mp1", "mpa"]
VIDEO = ["avi", "mpeg", "mpg", "mpeg2", "mp4", "wmv", "dat", "vob", "ts", "mov"]
PLAYLIST = ["m3u", "pls"]
SUBTITLE = ["srt"]


def mixed(ext):
    """First letter upper case only: ".Mp3", ".M3u", distinct from both other cases."""
    return ext.capitalize()


def b(text):
    return text.encode()


class WalkRun(SandboxTestCase):
    def setUp(self):
        super().setUp()
        self.sb.write_codepage("cp850\n")
        self.sb.conf()

    def published(self, node):
        return [r.value for r in self.sb.xmldb_requests() if r.node == node]

    def final_counts(self):
        """The last total_file and total_scan_file values the run published."""
        return self.published(NODE_TOTAL)[-1], self.published(NODE_SCANNED)[-1]

    def test_folders_are_numbered_breadth_first(self):
        sb = self.sb
        for rel in ("a/x", "b/x"):
            sb.mkdir(rel)
        sb.file("top.m3u")
        sb.file("a/x/deep.mp3")
        sb.file("b/clip.vob")
        res = self.run_ok()
        self.assertNotIn(b"scan file fail", res.stdout)
        root = sb.share
        folders = [(root, 0, 0, 0), (root + "a/", 1, 0, 1), (root + "b/", 2, 0, 1),
                   (root + "a/x/", 3, 1, 2), (root + "b/x/", 4, 2, 2)]
        self.assertEqual(sb.rows("path_objid_tbl", columns="path, ObjID, Dir_ParentID, layer"),
                         [(b(p), b"%d" % (FOLDER_BASE + o), b"0" if layer == 0 else b"%d" % (FOLDER_BASE + par),
                           b"%d" % layer) for p, o, par, layer in folders])
        self.assertEqual(sb.rows("music_tbl", columns="No, Real_fname, layer, ObjID, Dir_ParentID"),
                         [(b"1", b"top.m3u", b"0", b"%d" % MUSIC_BASE, b"%d" % FOLDER_BASE),
                          (b"2", b"deep.mp3", b"2", b"%d" % (MUSIC_BASE + 1), b"%d" % (FOLDER_BASE + 3))])
        self.assertEqual(sb.rows("video_tbl", columns="No, Real_fname, layer, ObjID, Dir_ParentID"),
                         [(b"1", b"clip.vob", b"1", b"%d" % VIDEO_BASE, b"%d" % (FOLDER_BASE + 2))])
        self.assertEqual(self.final_counts(), ("3", "3"))

    def test_every_extension_in_every_case_and_what_is_skipped(self):
        sb = self.sb
        kinds = {"m": MUSIC + PLAYLIST, "v": VIDEO + SUBTITLE, "p": PHOTO}
        expected = {"m": [], "v": []}
        admitted = 0
        for kind, exts in kinds.items():
            for ext in exts:
                for variant in (ext, ext.upper(), mixed(ext)):
                    name = "%s_%s_%s.%s" % (kind, ext, variant, variant)
                    sb.file(name)
                    admitted += 1
                    if kind in expected:
                        expected[kind].append((name, ext))
        skipped = ["movie.mpeg21", "README", "archive.tar.gz", "song.mp3.bak", "tune.flac", "clip.mkv",
                   "notes.txt", "trailing.", ".hidden.mp3", ".hidden_dir/inside.mp3", "target/kept.srt"]
        for name in skipped:
            sb.file(name)
        admitted += 1  # target/kept.srt, through the real folder only
        sb.symlink("target", "via_link")
        sb.symlink("m_mp3_mp3.mp3", "link.mp3")
        res = self.run_ok()

        for link in ("via_link", "link.mp3"):
            # Once from the counting walk, once from the folder walk.
            self.assertEqual(res.stdout.count(b"Link File: [%s]\n" % b(sb.share + link)), 2, res)
        self.assertEqual(sb.rows("path_objid_tbl", columns="path"), [(b(sb.share),), (b(sb.share + "target/"),)])

        for table, kind in (("music_tbl", "m"), ("video_tbl", "v")):
            with self.subTest(table):
                rows = sb.rows(table, columns="No, Real_fname, EXT_fname, ObjID")
                names = sorted(expected[kind], key=lambda e: e[0].encode())
                if kind == "v":
                    names.append(("kept.srt", "srt"))
                base = MUSIC_BASE if kind == "m" else VIDEO_BASE
                self.assertEqual(rows, [(b"%d" % (i + 1), b(n), b(e), b"%d" % (base + i))
                                        for i, (n, e) in enumerate(names)])
        # Empty photo files cannot be measured: counted, but given no row.
        self.assertEqual(sb.rows("photo_tbl"), [])
        self.assertEqual(self.final_counts(), (str(admitted), str(admitted)))

    def test_common_columns(self):
        sb = self.sb
        sb.file("x.Wma", b"abc", mtime=1700000000)
        sb.file("sub/clip.VOB", b"", mtime=1700000000)
        res = self.run_ok()
        root = b(sb.share)
        t = b"2023-11-14T22:13:20"  # the run's TZ is UTC
        self.assertEqual(sb.rows("music_tbl"),
                         [(b"1", root, b"x.Wma", root, b"x.Wma", b"wma", t, b"3", b"Others", b"Others", b"Others",
                           b"x.Wma", b"0", b"0", b"0", b"0", b"0", b"0", b"%d" % MUSIC_BASE, b"%d" % FOLDER_BASE,
                           b"0", b"0", b"0")])
        sub = root + b"sub/"
        self.assertEqual(sb.rows("video_tbl"),
                         [(b"1", sub, b"clip.VOB", sub, b"clip.VOB", b"vob", t, b"0", b"0", b"0", b"0", b"0", b"0",
                           b"0", b"0", b"0", b"1", b"%d" % VIDEO_BASE, b"%d" % (FOLDER_BASE + 1), b"0", b"0", b"0")])
        self.assertIn(b"scan_get_mp3fileinfo():Get mp3 file info failure!!!\n  filename [%sx.Wma]\n" % root,
                      res.stdout)
        self.assertEqual(sb.query("SELECT DISTINCT typeof(Filesize) || typeof(No) || typeof(ObjID) FROM music_tbl"),
                         [(b"texttexttext",)])

    def test_creattime_follows_the_time_zone(self):
        for tz, expected in (("UTC", b"2023-11-14T22:13:20"), ("JST-9", b"2023-11-15T07:13:20"),
                             ("EST5EDT", b"2023-11-14T17:13:20")):
            with self.subTest(tz):
                sb = harness.Sandbox("tz", tz=tz)
                self.addCleanup(sb.cleanup)
                sb.write_codepage("cp850\n")
                sb.conf()
                sb.file("a.srt", b"1", mtime=1700000000)
                res = sb.run()
                self.assertEqual(res.status, 1, res)
                self.assertEqual(sb.rows("video_tbl", columns="Creattime"), [(expected,)])

    def test_sparse_file_above_4_gib_keeps_its_size(self):
        size = (5 << 30) + 7
        self.sb.sparse("big.avi", size)
        self.run_ok()
        self.assertEqual(self.sb.rows("video_tbl", columns="Filesize"), [(b"%d" % size,)])

    def test_quote_in_a_name_ends_its_folder(self):
        sb = self.sb
        sb.file("a.mp3")
        sb.file("a_dir/f.mp3")
        sb.file('b"c.mp3')
        sb.file("d.mp3")
        sb.file("e_dir/g.mp3")
        res = self.run_ok()
        self.assertIn(b"1ScanMusic():execute sql query error[", res.stdout)
        self.assertIn(b"\n1scan file fail\n", res.stdout)
        self.assertNotIn(b"2scan file fail", res.stdout)
        # a_dir was queued before the failure and takes the root's unspent ObjID; e_dir never queued.
        self.assertEqual(sb.rows("path_objid_tbl", columns="path, ObjID, Dir_ParentID"),
                         [(b(sb.share), b"%d" % FOLDER_BASE, b"0"),
                          (b(sb.share + "a_dir/"), b"%d" % FOLDER_BASE, b"%d" % FOLDER_BASE)])
        # The failed row spent identifier 2 but not row number 2.
        self.assertEqual(sb.rows("music_tbl", columns="No, Real_fname, ObjID"),
                         [(b"1", b"a.mp3", b"%d" % MUSIC_BASE), (b"2", b"f.mp3", b"%d" % (MUSIC_BASE + 2))])
        self.assertEqual(self.final_counts(), ("5", "3"))

    def test_empty_share(self):
        res = self.run_ok()
        self.assertIn(b"Cnt_total_file():NULL(No content available)\ntotal_file_cnt[1]\n", res.stdout)
        self.assertEqual(self.sb.rows("path_objid_tbl"),
                         [(b(self.sb.share), b"%d" % FOLDER_BASE, b"0", b"0", b"0", b"0", b"0")])
        self.assertEqual(self.final_counts(), ("1", "1"))

    def test_progress_is_published_while_the_scan_runs(self):
        # The first file's tag sample goes to a detector that answers only once the daemon has
        # seen two publishing periods, which holds the scan there whatever the machine's speed.
        sb = self.sb
        with open(os.path.join(harness.FIXTURES, "audio", "cbr128_44k.mp3"), "rb") as f:
            sb.file("a_long.mp3", id3build.latin1_tag([("TIT2", b"Long")]) + f.read())
        for i in range(3):
            sb.file("b%d.srt" % i, b"1")
        release = sb.path("release")
        slow = sb.path("bin", "detect_char_encode")
        with open(slow, "w") as f:
            f.write("#!/bin/sh\nwhile [ ! -e %s ]; do sleep 0.05; done\nprintf windows-1252\n"
                    % shlex.quote(release))
        os.chmod(slow, 0o755)

        def release_after_two_periods(proc):
            try:
                harness.wait_for(lambda: sum(r.node == NODE_SCANNED for r in sb.xmldb_requests()) >= 2,
                                 timeout=60)
            finally:
                open(release, "w").close()

        self.run_ok(during=release_after_two_periods)

        requests = [(r.node, r.value) for r in sb.xmldb_requests()]
        self.assertEqual(requests[-1], (NODE_DONE, "1"))
        counts = requests[:-1]
        # Pairs, total first: the thread's every period, then the driver's final pair.
        self.assertEqual([n for n, _ in counts], [NODE_TOTAL, NODE_SCANNED] * (len(counts) // 2), requests)
        self.assertEqual({v for n, v in counts if n == NODE_TOTAL}, {"4"})
        scanned = [int(v) for n, v in counts if n == NODE_SCANNED]
        self.assertEqual(scanned, sorted(scanned))
        self.assertEqual(scanned[-1], 4)
        # At least two periods passed while the long file (the first one handled) was read.
        self.assertGreaterEqual(len([v for v in scanned if v <= 1]), 2, requests)
        self.assertEqual(sb.rows("music_tbl", columns="Title"), [(b"Long",)])


if __name__ == "__main__":
    unittest.main()
