"""End-to-end test with the bundled charset detector instead of the stub: tags in GBK, Big5 and
windows-1251, stored in frames that declare Latin-1 (as many taggers leave them), come out of the
run as the UTF-8 that the reader's answer table makes of the detector's answer."""

import os
import shutil
import subprocess
import sys
import unittest

import harness
from harness import SandboxTestCase
from id3build import tagged_mp3

DETECTOR = os.environ.get("DETECTOR_BIN") or os.path.join(os.path.dirname(harness.BIN), "detect_char_encode")
# The scanner built to ask the same routine in-process (MEDIAWALK_BUILTIN_DETECTOR).
BUILTIN_BIN = os.environ.get("MEDIAWALK_BUILTIN_BIN", "")
AUDIO = os.path.join(harness.FIXTURES, "audio", "cbr32_44k.mp3")

RUSSIAN = ("Кошка спит на подоконнике", "Синие бумажные лодки", "Тихий вечер у окна")

# file, codec of the tag bytes, (title, artist, album), the detector's answer, and the stored
# texts expected from the charset the answer selects.
SAMPLES = [
    ("gbk.mp3", "gbk", ("小猫在窗台上睡觉", "蓝色纸船乐队", "窗台上的午后时光"), "gb18030",
     ("小猫在窗台上睡觉", "蓝色纸船乐队", "窗台上的午后时光")),
    ("big5.mp3", "big5", ("小貓在窗臺上睡覺", "藍色紙船樂隊", "窗臺上的午後時光"), "Big5",
     ("小貓在窗臺上睡覺", "藍色紙船樂隊", "窗臺上的午後時光")),
    # The reader's fixed table converts a windows-1251 answer as "ISO-8859-1", so the Russian texts
    # are stored as the Latin-1 reading of their cp1251 bytes. That crossed mapping is the
    # reader's own and is kept; this pins it. (With no answer at all the texts would read the
    # same, as invalid UTF-8 falls back to Latin-1: only the two Chinese rows prove the answer.)
    ("cp1251.mp3", "cp1251", RUSSIAN, "windows-1251",
     tuple(t.encode("cp1251").decode("latin-1") for t in RUSSIAN)),
]


@unittest.skipUnless(os.path.isfile(DETECTOR), "no bundled detector at %s" % DETECTOR)
class RealDetector(SandboxTestCase):
    def test_legacy_tags_stored_as_utf8(self):
        sb = self.sb
        sb.write_codepage("cp850\n")
        sb.conf()
        sb.real_detector(DETECTOR)
        answers = {}
        for name, codec, texts, answer, _ in SAMPLES:
            raw = [t.encode(codec) for t in texts]
            sample = b"".join(raw)  # what the reader hands the detector: the three texts in a row
            self.assertLessEqual(len(sample), 100)
            sb.file(name, tagged_mp3(AUDIO, list(zip(("TIT2", "TPE1", "TALB"), raw))))
            # The answer the run gets, asked the same way outside it.
            answers[name] = subprocess.run(harness.LAUNCHER + [DETECTOR, sample], capture_output=True,
                                           timeout=60).stdout
        self.run_ok()
        stored = {n.decode(): (t, ar, al) for n, t, ar, al in
                  sb.query("SELECT Real_fname, Title, Artist, Album FROM music_tbl")}

        report = ["", "%-11s %-14s %-40s %s" % ("sample", "answer", "stored title", "expected")]
        for name, _, _, answer, texts in SAMPLES:
            got = stored.get(name, (b"<no row>",) * 3)
            report.append("%-11s %-14r %-40s %s" % (name, answers[name].decode("latin-1"),
                                                     got[0].decode("utf-8", "replace"), texts[0]))
        sys.stderr.write("\n".join(report) + "\n")

        for name, _, _, answer, texts in SAMPLES:
            with self.subTest(name):
                self.assertEqual(answers[name], answer.encode())
                self.assertEqual(stored.get(name), tuple(t.encode("utf-8") for t in texts))

    @unittest.skipUnless(os.path.isfile(BUILTIN_BIN), "no in-process detector build")
    def test_builtin_detector_writes_the_same_database(self):
        sb = self.sb
        sb.conf()
        tags = os.path.join(harness.FIXTURES, "tags")
        for name in sorted(os.listdir(tags)):
            sb.copy(os.path.join(tags, name), name, mtime=1600000000)
        # Titles of two characters alone, which only the language setting tells apart.
        short = [("gbk", "你好"), ("big5", "月光"), ("shift_jis", "夜空"), ("euc_kr", "바람"), ("cp1252", "Café")]
        for name, codec, texts, _, _ in SAMPLES + [(c + "2.mp3", c, (t,), 0, 0) for c, t in short]:
            raw = list(zip(("TIT2", "TPE1", "TALB"), [t.encode(codec) for t in texts]))
            sb.file(name, tagged_mp3(AUDIO, raw), mtime=1600000000)
        program = sb.path("prog", "mediawalk")
        os.makedirs(os.path.dirname(program))
        self.addCleanup(setattr, harness, "BIN", harness.BIN)
        spawning = harness.BIN
        for codepage in ("cp936\n", "cp850\n"):
            sb.write_codepage(codepage)
            dbs = {}
            for source in (spawning, BUILTIN_BIN):
                if source == spawning:
                    sb.real_detector(DETECTOR)
                else:
                    sb.detector(missing=True)
                shutil.copy2(source, program)
                harness.BIN = program
                self.run_ok()
                with open(sb.db_path(), "rb") as f:
                    db = bytearray(f.read())
                db[24:28] = db[92:96] = bytes(4)  # change counters may differ
                dbs[source] = bytes(db)
            self.assertEqual(dbs[spawning], dbs[BUILTIN_BIN], codepage)
            title = dict(sb.query("SELECT Real_fname, Title FROM music_tbl"))[b"gbk2.mp3"]
            self.assertEqual(title == "你好".encode(), codepage == "cp936\n", title)


if __name__ == "__main__":
    unittest.main()
