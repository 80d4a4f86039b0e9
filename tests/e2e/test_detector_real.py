"""The bundled charset detector in place of the stub: legacy-charset tags come out as the UTF-8
that the reader's answer table makes of its answer; the scanner with the detector built in writes
the same database as the one that starts the tool (tests/data/e2e/detector.json)."""

import os
import shutil
import subprocess
import unittest

import harness

DETECTOR = os.environ.get("DETECTOR_BIN") or os.path.join(os.path.dirname(harness.BIN), "detect_char_encode")
BUILTIN_BIN = os.environ.get("MEDIAWALK_BUILTIN_BIN", "")
TABLE = harness.load_cases("detector.json")


def tagged(codec, texts):
    return harness.latin1_tag(list(zip(("TIT2", "TPE1", "TALB"), [t.encode(codec) for t in texts])))


@unittest.skipUnless(os.path.isfile(DETECTOR), "no bundled detector at %s" % DETECTOR)
class RealDetector(harness.SandboxTestCase):
    def test_legacy_tags_stored_as_utf8(self):
        self.sb.real_detector(DETECTOR)
        for name, codec, texts, answer, stored in TABLE["samples"]:
            self.sb.file(name, tagged(codec, texts))
            # The answer the run gets, asked the same way outside it: the three texts in a row.
            sample = b"".join(t.encode(codec) for t in texts)
            self.assertEqual(subprocess.run(harness.LAUNCHER + [DETECTOR, sample], capture_output=True,
                                            timeout=60).stdout, answer.encode(), name)
        self.assertEqual(self.sb.run().status, 1)
        rows = {n.decode(): [t.decode() for t in texts] for n, *texts in
                self.sb.query("SELECT Real_fname, Title, Artist, Album FROM music_tbl")}
        self.assertEqual(rows, {name: stored for name, _, _, _, stored in TABLE["samples"]})

    @unittest.skipUnless(os.path.isfile(BUILTIN_BIN), "no in-process detector build")
    def test_builtin_detector_writes_the_same_database(self):
        sb = self.sb
        tags = os.path.join(harness.FIXTURES, "tags")
        for name in sorted(os.listdir(tags)):
            with open(os.path.join(tags, name), "rb") as f:
                sb.file(name, f.read(), mtime=1600000000)
        for name, codec, texts, _, _ in TABLE["samples"] + [[c + "2.mp3", c, [t], 0, 0] for c, t in TABLE["short"]]:
            sb.file(name, tagged(codec, texts), mtime=1600000000)
        os.makedirs(sb.path("prog"))
        spawning, sb.bin = sb.bin, sb.path("prog", "mediawalk")
        for codepage in ("cp936\n", "cp850\n"):
            sb.etc("codepage", codepage)
            dbs = []
            for source in (spawning, BUILTIN_BIN):
                if source == spawning:
                    sb.real_detector(DETECTOR)
                else:
                    sb.detector(None)
                shutil.copy2(source, sb.bin)
                self.assertEqual(sb.run().status, 1)
                with open(sb.db_path(), "rb") as f:
                    db = bytearray(f.read())
                db[24:28] = db[92:96] = bytes(4)  # commit counters may differ
                dbs.append(bytes(db))
            self.assertEqual(dbs[0], dbs[1], codepage)
            title = dict(sb.query("SELECT Real_fname, Title FROM music_tbl"))[b"gbk2.mp3"]
            self.assertEqual(title == "你好".encode(), codepage == "cp936\n", title)
