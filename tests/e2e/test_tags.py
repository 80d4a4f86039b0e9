"""End-to-end tests of the tag texts in music rows: what each tagged sample stores, how the charset
detector's answer picks the conversion, what the detector is handed (and that no shell ever sees
it), and the defaults when there is no detector, no tag, or a text the row cannot hold."""

import os
import shlex
import unittest

import harness
from harness import SandboxTestCase
from id3build import tagged_mp3

TAGS = os.path.join(harness.FIXTURES, "tags")
BASE_AUDIO = os.path.join(TAGS, "no_tag.mp3")

GBK = b"\xc4\xe3\xba\xc3"  # "ni hao" in GBK, stored in a Latin-1 frame of gbk_title.mp3
EURO = b"\x80 Euro"        # a Windows-1252 euro sign, the title of cp1252_title.mp3


def utf8(raw, codec):
    return raw.decode(codec).encode("utf-8")


LATIN1_GBK = utf8(GBK, "latin-1")
LATIN1_EURO = utf8(EURO, "latin-1")

# Stored Title, Artist, Album, Genre of each committed sample, when the detector has no answer:
# texts are then read as UTF-8, and what is not UTF-8 as Latin-1.
FIXTURES = {
    "v23_latin1.mp3": (b"Latin Title", b"Latin Artist", b"Latin Album", b"Rock"),  # genre "(17)"
    "v24_utf16.mp3": (b"Wide Title", b"Wide Artist", b"Latin Album 24", b"Rock"),
    "v24_utf8.mp3": ("Ünïcode".encode(), b"UTF-8 Artist", b"Others", b"Others"),
    "utf16_chinese.mp3": ("中文歌".encode(), "Artiste é".encode(), b"Album", b"Others"),
    "astral.mp3": (b"AB", b"Others", b"Others", b"Others"),  # U+1F600 has no two-byte form
    "big5_title.mp3": (utf8(b"\xa7\x41\xa6\x6e", "latin-1"), b"Big5 Artist", b"Others", b"Others"),
    "gbk_title.mp3": (LATIN1_GBK, b"GBK Artist", b"Others", b"Others"),
    "cp1252_title.mp3": (LATIN1_EURO, b"Others", b"Others", b"Others"),
    "genre_17.mp3": (b"Genre 17", b"Others", b"Others", b"Rock"),
    "genre_rock.mp3": (b"Genre Rock", b"Others", b"Others", b"Others"),  # a word keeps no name
    "genre_paren255.mp3": (b"Genre 255", b"Others", b"Others", b"Others"),
    "genre_empty.mp3": (b"Genre Empty", b"Others", b"Others", b"Others"),
    "genre_empty24.mp3": (b"Genre Empty 24", b"Others", b"Others", b"Others"),
    "repeated_frames.mp3": (b"Second", b"Two", b"Others", b"Country"),  # the later "(2)" wins
    "five_frames.mp3": (b"e", b"b", b"c", b"Others"),
    "long_sample.mp3": (b"T" * 40, b"A" * 40, b"B" * 40, b"Others"),
    # 60 bytes with a double quote: quotes become single ones and the title is cut to 49 bytes.
    "title_quote60.mp3": (b"A title of sixty bytes with a 'double quote' in i", b"Others", b"Others", b"Others"),
    # No title: the file name stands in, "Others" for the rest.
    "ytcp.mp3": (b"ytcp.mp3", b"Others", b"Others", b"Others"),
    "no_tag.mp3": (b"no_tag.mp3", b"Others", b"Others", b"Others"),
}

# Each row of the reader's answer table, with the GBK title and the euro title as the conversion
# it selects yields them. None as the answer: the detector prints "gb18030" but exits with 1, and
# its answer is used all the same.
ANSWERS = [
    (b"windows-1251", LATIN1_GBK, LATIN1_EURO),
    (b"IBM866", LATIN1_GBK, LATIN1_EURO),
    (b"x-mac-cyrillic", LATIN1_GBK, LATIN1_EURO),
    (b"windows-1252", utf8(GBK, "cp1252"), utf8(EURO, "cp1252")),
    (b"KOI8-R", utf8(GBK, "cp1251"), utf8(EURO, "cp1251")),
    (b"gb18030", utf8(GBK, "gbk"), "€ Euro".encode()),  # GBK's single-byte 0x80 is the euro
    (b"", LATIN1_GBK, LATIN1_EURO),
    (b"Big5", utf8(GBK, "big5"), LATIN1_EURO),
    (b"IBM855", utf8(GBK, "big5"), LATIN1_EURO),
    (b"x-euc-tw", utf8(GBK, "big5"), LATIN1_EURO),
    (b"ISO-8859-7", utf8(GBK, "euc-jp"), LATIN1_EURO),
    (b"KOI8-R\n", LATIN1_GBK, LATIN1_EURO),  # taken as read: a trailing newline matches nothing
    (b"UTF-8", LATIN1_GBK, LATIN1_EURO),
    (None, utf8(GBK, "gbk"), "€ Euro".encode()),
]

# Texts that would run commands if a shell saw the sample; the canaries land in the sandbox's /tmp.
META_TITLE = b'"; touch /tmp/c3; "$(touch /tmp/c1)'
META_ARTIST = b"`touch /tmp/c2`"
META_ALBUM = b";touch /tmp/c4;"
CANARIES = ["c1", "c2", "c3", "c4"]


class TagRows(SandboxTestCase):
    def setUp(self):
        super().setUp()
        self.sb.write_codepage("cp850\n")
        self.sb.conf()

    def per_call_detector(self, answers):
        """A detector that logs its argument count and argument, and gives call N the answer
        answers[N] (bytes, as printed; None: prints "gb18030" and exits with status 1; missing:
        prints nothing)."""
        sb = self.sb
        sb.detector(missing=True)
        folder = sb.path("log", "answers")
        os.mkdir(folder)
        for n, answer in enumerate(answers):
            with open(os.path.join(folder, str(n)), "wb") as f:
                f.write(b"gb18030" if answer is None else answer)
            if answer is None:
                open(os.path.join(folder, "%d.fail" % n), "w").close()
        q = shlex.quote
        script = sb.path("bin", "detect_char_encode")
        with open(script, "w") as f:
            f.write('#!/bin/sh\n'
                    'n=$(cat {counter} 2>/dev/null || echo 0)\n'
                    'echo $((n + 1)) > {counter}\n'
                    'echo "$#" >> {argc}\n'
                    "printf '%s\\000' \"$1\" >> {log}\n"
                    'cat {dir}/$n 2>/dev/null\n'
                    'if [ -e {dir}/$n.fail ]; then exit 1; fi\n'
                    .format(counter=q(sb.path("log", "counter")), argc=q(sb.path("log", "argc")),
                            log=q(sb.detector_log), dir=q(folder)))
        os.chmod(script, 0o755)

    def test_fixtures_answers_and_what_the_detector_is_given(self):
        sb = self.sb
        root = sb.share.encode()
        # Root: every committed sample but the one with a quote in its album, a copy of the GBK and
        # the euro sample per answer row, shell metacharacters, and a title longer than a row holds.
        files = {name: os.path.join(TAGS, name) for name in FIXTURES}
        answered = {}  # file name: (answer, stored title and artist expected)
        for i, (answer, gbk_title, euro_title) in enumerate(ANSWERS):
            for kind, src, texts in (("a_gbk", "gbk_title.mp3", (gbk_title, b"GBK Artist")),
                                     ("b_eur", "cp1252_title.mp3", (euro_title, b"Others"))):
                name = "r%02d_%s.mp3" % (i, kind)
                files[name] = os.path.join(TAGS, src)
                answered[name] = (answer, texts)
        for name, src in files.items():
            sb.copy(src, name)
        sb.file("meta_abs.mp3", tagged_mp3(BASE_AUDIO, [("TIT2", META_TITLE), ("TPE1", META_ARTIST),
                                                          ("TALB", META_ALBUM)]))
        # Longer than a row holds: of 200 Latin-1 e-acutes the packer keeps 129 bytes, UTF-8 doubles
        # them and the row keeps 256; of 150 ASCII bytes the packer keeps 129.
        sb.file("bound_200e.mp3", tagged_mp3(BASE_AUDIO, [("TIT2", b"\xe9" * 200), ("TPE1", b"y" * 150)]))
        # q/: a quote in an artist ends the folder's scan at that file; s/: the committed sample
        # with its shell metacharacters, whose album holds a quote.
        sb.copy(os.path.join(TAGS, "v23_latin1.mp3"), "q/a.mp3")
        sb.file("q/b.mp3", tagged_mp3(BASE_AUDIO, [("TIT2", b"Quoted"), ("TPE1", b'Art"ist')]))
        sb.copy(os.path.join(TAGS, "v23_latin1.mp3"), "q/c.mp3")
        sb.copy(os.path.join(TAGS, "shell_meta.mp3"), "s/shell_meta.mp3")

        walk = sorted(os.listdir(sb.share_path()))
        walk = [n for n in walk if n.endswith(".mp3")] + ["q/a.mp3", "q/b.mp3", "s/shell_meta.mp3"]
        self.per_call_detector([answered[n][0] if n in answered else b"" for n in walk])
        res = self.run_ok()
        # Nothing the tags hold was run: no shell saw the sample.
        for canary in CANARIES:
            self.assertFalse(os.path.lexists(os.path.join(sb.tmp, canary)), canary)
        for folder in (sb.root, sb.share, sb.share_path("s")):
            for canary in ("pwned_title", "pwned_artist", "pwned_album"):
                self.assertFalse(os.path.lexists(os.path.join(folder, canary)), canary)

        stored = {(p, n): rest for p, n, *rest in
                  sb.query("SELECT Real_Path, Real_fname, Title, Artist, Album, Genre FROM music_tbl")}
        for name, expected in FIXTURES.items():
            with self.subTest(name):
                self.assertEqual(tuple(stored.get((root, name.encode()), ())), expected)
        for name, (answer, texts) in answered.items():
            with self.subTest(name, answer=answer):
                self.assertEqual(tuple(stored.get((root, name.encode()), ()))[:2], texts)
        self.assertEqual(tuple(stored[(root, b"meta_abs.mp3")]),
                         (META_TITLE.replace(b'"', b"'"), META_ARTIST, META_ALBUM, b"Others"))
        self.assertEqual(tuple(stored[(root, b"bound_200e.mp3")])[:2], (("é" * 128).encode(), b"y" * 129))

        # The quoted artist failed its row; the file behind it was never read.
        self.assertIn((root + b"q/", b"a.mp3"), stored)
        self.assertFalse({(root + b"q/", b"b.mp3"), (root + b"q/", b"c.mp3"),
                          (root + b"s/", b"shell_meta.mp3")} & set(stored))
        self.assertEqual(res.stdout.count(b"1ScanMusic():execute sql query error["), 2, res)
        self.assertEqual(res.stdout.count(b"\n2scan file fail\n"), 2, res)
        self.assertNotIn(b"1scan file fail", res.stdout)

        # One call per MP3 read, in walk order, each with the sample as its one argument, bytes as
        # they are: nothing escaped, nothing interpreted, the empty sample included.
        calls = sb.detector_calls()
        self.assertEqual(len(calls), len(walk))
        with open(sb.path("log", "argc")) as f:
            self.assertEqual(f.read().split(), ["1"] * len(walk))
        sample = dict(zip(walk, calls))
        for name, expected in [
            ("v23_latin1.mp3", b"Latin TitleLatin ArtistLatin Album"),  # the comment frame adds nothing
            ("long_sample.mp3", b"T" * 40 + b"A" * 40),  # the album would pass 100 bytes
            ("five_frames.mp3", b"abcde"),
            ("utf16_chinese.mp3", b"Artiste \xe9Album"),  # the Chinese title stays out
            ("gbk_title.mp3", GBK + b"GBK Artist"),
            ("no_tag.mp3", b""),
            ("meta_abs.mp3", META_TITLE + META_ARTIST + META_ALBUM),
            ("s/shell_meta.mp3", b'$(touch pwned_title)`touch pwned_artist`x"; touch pwned_album; "'),
        ]:
            with self.subTest(sample=name):
                self.assertEqual(sample[name], expected)

    def test_without_a_detector_texts_are_read_as_utf8(self):
        sb = self.sb
        sb.detector(missing=True)
        for name in ("gbk_title.mp3", "v24_utf8.mp3", "utf16_chinese.mp3"):
            sb.copy(os.path.join(TAGS, name), name)
        self.run_ok()
        self.assertEqual(sb.rows("music_tbl", columns="Real_fname, Title, Artist"),
                         [(b"gbk_title.mp3", LATIN1_GBK, b"GBK Artist"),
                          (b"utf16_chinese.mp3", "中文歌".encode(), "Artiste é".encode()),
                          (b"v24_utf8.mp3", "Ünïcode".encode(), b"UTF-8 Artist")])


if __name__ == "__main__":
    unittest.main()
