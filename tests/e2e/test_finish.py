"""End-to-end tests of the phases after the walk, through the real binary: playlist resolution, the
sorted index tables and the folder media flags, and how the playlist pass and the driver share one
transaction."""

import os
import signal
import time
import unittest

import harness
import id3build
from harness import SandboxTestCase

GENRE_BASE = 3040000000001
ARTIST_BASE = 3050000000001
ALBUM_BASE = 3060000000001

MESSAGE_MARKS = (b"Can't find", b"songs amount", b"parser")


def b(text):
    return text.encode()


NO_TAG_MP3 = os.path.join(harness.FIXTURES, "tags", "no_tag.mp3")


def tagged(frames):
    """A small MP3 with an ID3v2.3 tag of these (frame id, ASCII text) pairs."""
    return id3build.tagged_mp3(NO_TAG_MP3, [(fid, text.encode("ascii")) for fid, text in frames])


def messages(res):
    """The playlist phase's own lines of a run's stdout."""
    return [line for line in res.lines if any(m in line for m in MESSAGE_MARKS)]


def assert_phases_ran(test, res):
    test.assertEqual(res.stderr, "")  # where a sanitizer would report
    for line in (b"Parse playlist-->", b"Sort DBtable-->", b"Assign path_objid_tbl media-->", b"Finish-->"):
        test.assertIn(line, res.lines)
    for fail in (b"parser_playlist fail", b"Sort DBtable fail", b"Assign path_objid_tbl media fail"):
        test.assertNotIn(fail, res.lines)


class Playlists(SandboxTestCase):
    def test_m3u_and_pls_resolution(self):
        sb = self.sb
        sb.conf()
        sb.write_codepage("cp850\n")
        # No file here has a tag: leaving the detector out spares a process per song.
        sb.detector(missing=True)
        # list/ is walked before many/, so its songs are rows 1 to 3.
        for name in ("a.mp3", "b.mp3", "c.mp3", "sub/d.mp3", "notes.txt"):
            sb.file("list/" + name)
        sb.file("list/m1.m3u",
                b"#EXTM3U\r\n"
                b"a.mp3\r\n"                        # CRLF: a
                b"b.mp3\rc.mp3\n"                   # a lone CR does not end a line
                b"#EXTINF:12,Artist - B\r\n"
                b"C:\\Music\\Album\\b.mp3\r\n"      # reduced to b.mp3: b
                b"C:\\Music\\c.mp3\n"               # a backslash outside #EXTINF: skipped
                b"notes.txt\n"                      # no .mp3: skipped
                b"#EXTINF:-1,Notes\n"
                b"notes.txt\n"                      # looked up after #EXTINF:
                b"s000.mp3\n"                       # a song of another folder
                b"sub/d.mp3\n"                      # a sub-path never matches
                b"a.mp3\n"                          # named twice, listed twice
                b"c.mp3\r")                         # last line: the lone CR stays
        sb.file("list/m2.m3u", b"c.mp3\n#EXTINF:7,Last\n")
        sb.file("list/empty.m3u", b"#EXTM3U\n\nunknown.mp3\n")
        sb.file("list/p.pls",
                b"[playlist]\r\n"
                b"File1=a.mp3\r\n"
                b"file2=b.mp3\n"
                b"Title1=b.mp3\n"
                b"File2=c.mp3\n"
                b"File3=c.mp3\n"
                b"File4=C:\\Music\\b.mp3\n"         # no backslash handling in pls
                b"FileX=notes.txt\n"                # no extension test in pls
                b"File5\n"                          # no "=": skipped
                b"NumberOfEntries=3\n")
        sb.file("list/q.pls", b"[playlist]\nFile1=unknown.mp3\nTitle1=a.mp3\n")
        # 300 songs that exist, two that do not before the 257th found, one after it.
        songs = ["s%03d.mp3" % i for i in range(300)]
        for name in songs:
            sb.file("many/" + name)
        entries = ["missing0.mp3"] + songs[:100] + ["gone.mp3"] + songs[100:] + ["after.mp3"]
        sb.file("many/many.m3u", "".join(e + "\n" for e in entries))

        res = self.run_ok()
        assert_phases_ran(self, res)

        row = {name: no for name, no in sb.query(
            "SELECT Real_Path || Real_fname, No FROM music_tbl")}
        share = b(sb.share)
        list_dir, many_dir = share + b"list/", share + b"many/"
        self.assertEqual([row[list_dir + n] for n in (b"a.mp3", b"b.mp3", b"c.mp3")], [b"1", b"2", b"3"])
        first_song = int(row[many_dir + b"s000.mp3"])
        self.assertEqual([row[many_dir + b(s)] for s in songs], [b"%d" % (first_song + i) for i in range(300)])

        pls_file = dict(sb.query("SELECT Real_fname, PlsFile FROM music_tbl WHERE EXT_fname IN ('m3u', 'pls')"))
        self.assertEqual(pls_file, {
            b"m1.m3u": b"1,2,1,",
            b"m2.m3u": b"3,",
            b"empty.m3u": b"",
            b"many.m3u": b"".join(b"%d," % (first_song + i) for i in range(256)),
            b"p.pls": b"1,3,3,",
            b"q.pls": b"",
        })
        self.assertEqual(sb.query("SELECT DISTINCT typeof(PlsFile) FROM music_tbl"), [(b"text",)])
        self.assertEqual(sb.query("SELECT DISTINCT PlsFile FROM music_tbl WHERE EXT_fname NOT IN ('m3u', 'pls')"),
                         [(b"0",)])

        def pl(name):
            return share + b(name)
        self.assertEqual(messages(res), [
            b"2Can't find [unknown.mp3] in m3u[%s]" % pl("list/empty.m3u"),
            b"2Can't find [b.mp3\rc.mp3] in m3u[%s]" % pl("list/m1.m3u"),
            b"1Can't find [notes.txt] in m3u[%s]" % pl("list/m1.m3u"),
            b"2Can't find [s000.mp3] in m3u[%s]" % pl("list/m1.m3u"),
            b"2Can't find [sub/d.mp3] in m3u[%s]" % pl("list/m1.m3u"),
            b"2Can't find [c.mp3\r] in m3u[%s]" % pl("list/m1.m3u"),
            b"1Can't find [#EXTINF:7,Last] in m3u[%s]" % pl("list/m2.m3u"),
            b"2Can't find [missing0.mp3] in m3u[%s]" % pl("many/many.m3u"),
            b"2Can't find [gone.mp3] in m3u[%s]" % pl("many/many.m3u"),
            b"2:MP3 songs amount in playlist exceed 256",
            b"3Can't find [C:\\Music\\b.mp3] in m3u[%s]" % pl("list/p.pls"),
            b"3Can't find [notes.txt] in m3u[%s]" % pl("list/p.pls"),
            b"3Can't find [unknown.mp3] in m3u[%s]" % pl("list/q.pls"),
        ])

        # Playlist rows are in none of the music lists: they carry "0" as genre, artist and album.
        songs_only = sb.query("SELECT No FROM music_tbl WHERE EXT_fname NOT IN ('m3u', 'pls')")
        self.assertEqual(sorted(sb.rows("music_sortidx_tbl", columns="idx")), sorted(songs_only))
        for table, base in (("music_sortGen_tbl", GENRE_BASE), ("music_sortArt_tbl", ARTIST_BASE),
                            ("music_sortAlb_tbl", ALBUM_BASE)):
            self.assertEqual(sb.rows(table), [(b"Others", b"%d" % len(songs_only), b"%d" % base, 0, 0)], table)


class SortedTablesAndFolderFlags(SandboxTestCase):
    def test_sorted_tables_and_folder_flags(self):
        sb = self.sb
        sb.conf()
        sb.write_codepage("cp850\n")
        # An empty answer converts from UTF-8, which keeps these ASCII texts as they are.
        sb.detector(b"")
        # Inserted as Zebra, apple, Apple, 123. A textual genre reads as "Others"; numbers keep a
        # name. Each list holds names whose upper-case order differs from their byte order.
        songs = [
            ("1.mp3", [("TIT2", "Zebra"), ("TPE1", "rock"), ("TCON", "(40)"), ("TALB", "Same")]),
            ("2.mp3", [("TIT2", "apple"), ("TPE1", "Rock"), ("TCON", "20"), ("TALB", "Same")]),
            ("3.mp3", [("TIT2", "Apple"), ("TPE1", "ROCK"), ("TCON", "Rock"), ("TALB", "other")]),
            ("4.mp3", [("TIT2", "123"), ("TPE1", "aspen"), ("TCON", "(17)")]),
        ]
        for name, frames in songs:
            sb.file("tagged/" + name, tagged(frames))
        sb.file("axb/tune.mp3")                         # untagged: its name is its title
        sb.mkdir("a_b")                                 # "_" matches the "x" of axb
        sb.mkdir("CASE")                                # letters match in either case
        sb.file("case/Zulu.mpg")
        sb.file("case/clip.mpg")
        sb.file("subs/only.srt", b"1\n")
        sb.copy(os.path.join(harness.FIXTURES, "pictures", "rgb8.png"), "deep/l1/l2/pic.png")
        sb.file("nothing/notes.txt")
        sb.mkdir("nothing/inner")
        sb.file("plonly/x.pls", b"[playlist]\nFile1=missing.mp3\n")

        res = self.run_ok()
        assert_phases_ran(self, res)
        self.assertEqual(messages(res), [b"3Can't find [missing.mp3] in m3u[%s]" % b(sb.share + "plonly/x.pls")])

        title = dict(sb.query("SELECT No, Title FROM music_tbl"))
        self.assertEqual([title[no] for (no,) in sb.rows("music_sortidx_tbl", columns="idx")],
                         [b"123", b"Apple", b"apple", b"tune.mp3", b"Zebra"])
        self.assertEqual(sb.query("SELECT DISTINCT reserve1, reserve2 FROM music_sortidx_tbl"), [(0, 0)])

        def entries(names_counts, base):
            return [(b(n), b"%d" % c, b"%d" % (base + i), 0, 0) for i, (n, c) in enumerate(names_counts)]
        self.assertEqual(sb.rows("music_sortGen_tbl"),
                         entries([("Alternative", 1), ("AlternRock", 1), ("Others", 2), ("Rock", 1)], GENRE_BASE))
        self.assertEqual(sb.rows("music_sortArt_tbl"),
                         entries([("aspen", 1), ("Others", 1), ("ROCK", 1), ("Rock", 1), ("rock", 1)], ARTIST_BASE))
        # One entry per album name, whatever its artists.
        self.assertEqual(sb.rows("music_sortAlb_tbl"),
                         entries([("other", 1), ("Others", 2), ("Same", 2)], ALBUM_BASE))
        record = dict(sb.rows("record_objid_tbl"))
        self.assertEqual((record[b"music_file_gen_objid"], record[b"music_file_art_objid"],
                          record[b"music_file_alb_objid"]),
                         (b"%d" % (GENRE_BASE + 4), b"%d" % (ARTIST_BASE + 5), b"%d" % (ALBUM_BASE + 3)))

        video = dict(sb.query("SELECT No, Real_fname FROM video_tbl"))
        self.assertEqual([video[no] for (no,) in sb.rows("video_sortidx_tbl", columns="idx")],
                         [b"clip.mpg", b"Zulu.mpg"])
        self.assertEqual(sb.rows("photo_sortidx_tbl"), [(b"1", 0, 0)])

        share = sb.share
        flags = {p: (v, m, ph) for p, v, m, ph in
                 sb.rows("path_objid_tbl", columns="path, have_video, have_music, have_photo")}
        expected = {  # video, music, photo
            "": b"111",
            "tagged/": b"010",
            "axb/": b"010",
            "a_b/": b"010",
            "CASE/": b"100",
            "case/": b"100",
            "subs/": b"100",
            "deep/": b"001",
            "deep/l1/": b"001",
            "deep/l1/l2/": b"001",
            "nothing/": b"000",
            "nothing/inner/": b"000",
            "plonly/": b"010",
        }
        self.assertEqual(flags, {b(share + p): tuple(bytes([c]) for c in f) for p, f in expected.items()})


class SharedTransaction(SandboxTestCase):
    """The first m3u playlist commits the driver's open transaction and leaves the connection in
    autocommit; without one, nothing is committed before the driver's final COMMIT.

    The run is held twice at known points: in the walk, by a detector that waits for a go file
    while it is asked about the last folder's tagged song; and in the pls pass, by stopping the
    program while it holds open a long playlist of songs it cannot find."""

    # Only the held song's title waits; every other call returns at once with no answer.
    DETECTOR = """#!/bin/sh
[ "$1" = Held ] || exit 0
: > {reached}
i=0
while [ ! -e {go} ] && [ $i -lt 3000 ]; do sleep 0.01; i=$((i + 1)); done
"""

    @staticmethod
    def snapshot(sb):
        """What the file holds committed: (tables, music rows with PlsFile, sorted rows, records)."""
        path = sb.db_path()
        if not os.path.exists(path):
            return None
        con = harness.connect_committed(path)
        con.text_factory = bytes
        try:
            tables = [n for (n,) in con.execute("SELECT name FROM sqlite_master WHERE type = 'table'")]
            if b"music_tbl" not in tables:
                return (tables,)
            return (tables,
                    con.execute("SELECT Real_fname, PlsFile FROM music_tbl ORDER BY ROWID").fetchall(),
                    con.execute("SELECT count(*) FROM music_sortidx_tbl").fetchone(),
                    con.execute("SELECT count(*) FROM record_objid_tbl").fetchone())
        finally:
            con.close()

    def test_sigterm_after_the_playlist_pass_keeps_what_an_m3u_committed(self):
        for with_m3u in (True, False):
            with self.subTest(with_m3u=with_m3u):
                self.check_held_run(with_m3u)

    def check_held_run(self, with_m3u):
        sb = harness.Sandbox("held")
        self.addCleanup(sb.cleanup)
        sb.conf()
        sb.write_codepage("cp850\n")
        reached, go = sb.path("log", "reached"), sb.path("log", "go")
        stub = sb.path("bin", "detect_char_encode")
        with open(stub, "w") as f:
            f.write(self.DETECTOR.format(reached=reached, go=go))
        os.chmod(stub, 0o755)

        sb.file("a.mp3")
        sb.file("b.mp3")
        if with_m3u:
            sb.file("a.m3u", b"a.mp3\n")
        sb.file("p1.pls", b"File1=b.mp3\n")
        # Thousands of look-ups keep the file open long enough to be caught open.
        sb.file("p2.pls", b"File1=none.mp3\n" * 20000)
        sb.file("zz/held.mp3", tagged([("TIT2", "Held")]))

        seen = {}

        def hold(proc):
            try:
                if not harness.wait_for(lambda: os.path.exists(reached) or proc.poll() is not None):
                    return
                if proc.poll() is not None:
                    return
                seen["walk"] = self.snapshot(sb)
                open(go, "w").close()
                # Stopped while it reads p2.pls, the program is past the m3u pass.
                while harness.stop_process(proc.pid):
                    try:
                        if any(p.endswith("/p2.pls") for p in harness.open_paths(proc.pid)):
                            seen["pls"] = self.snapshot(sb)
                            os.kill(proc.pid, signal.SIGTERM)
                            return
                    finally:
                        os.kill(proc.pid, signal.SIGCONT)
                    time.sleep(0.0005)
            finally:
                open(go, "w").close()

        res = sb.run(during=hold)
        self.assertEqual(res.status, 0, res)
        self.assertEqual(res.lines[-1], b"mediawalk(): terminate")
        self.assertEqual(res.stderr, "")
        self.assertIn(b"Parse playlist-->", res.lines)
        self.assertNotIn(b"Sort DBtable-->", res.lines)
        self.assertIsNone(sb.marker())
        self.assertEqual(sorted(seen), ["pls", "walk"], res)

        # In the walk nothing is committed yet, with or without an m3u playlist to come.
        self.assertEqual(seen["walk"], ([],))
        after = self.snapshot(sb)
        if with_m3u:
            tables = [b"music_tbl", b"photo_tbl", b"video_tbl", b"music_sortidx_tbl", b"photo_sortidx_tbl",
                      b"video_sortidx_tbl", b"music_sortGen_tbl", b"music_sortArt_tbl", b"music_sortAlb_tbl",
                      b"path_objid_tbl", b"record_objid_tbl"]
            # Walk rows committed by the playlist's COMMIT, its UPDATE and p1's in autocommit;
            # what comes after the pls pass never ran.
            committed = (tables,
                         [(b"a.m3u", b"2,"), (b"a.mp3", b"0"), (b"b.mp3", b"0"), (b"p1.pls", b"3,"),
                          (b"p2.pls", b"0"), (b"held.mp3", b"0")],
                         (0,), (0,))
            self.assertEqual(seen["pls"], committed)
            self.assertEqual(after, committed)
        else:
            # The driver's transaction is still open after the walk and the m3u pass; the
            # signal ends the run before its COMMIT.
            self.assertEqual(seen["pls"], ([],))
            self.assertEqual(after, ([],))


if __name__ == "__main__":
    unittest.main()
