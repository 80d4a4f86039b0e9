"""The shipped detector, called as the tag reader calls it (one argument, the answer read
without a trailing newline), on samples in each charset it names: tests/data/cases/detector_samples.json
holds text, the codec it is encoded in (null: no argument at all) and the answer."""
import json
import os
import subprocess
import unittest

DETECTOR = os.environ.get("DETECTOR_BIN", "")
LAUNCHER = os.environ.get("MEDIAWALK_LAUNCHER", "").split()
SAMPLES = os.path.join(os.path.dirname(__file__), "..", "data", "cases", "detector_samples.json")


@unittest.skipUnless(DETECTOR, "DETECTOR_BIN not set")
class DetectorAnswers(unittest.TestCase):
    def test_each_charset_is_named_as_the_reader_spells_it(self):
        with open(SAMPLES, encoding="utf-8") as f:
            samples = json.load(f)
        for text, codec, answer in samples:
            with self.subTest(codec=codec):
                args = [] if codec is None else [text.encode(codec)]
                self.assertLessEqual(sum(map(len, args)), 100)
                result = subprocess.run(LAUNCHER + [DETECTOR] + args, capture_output=True, timeout=60)
                self.assertEqual((result.returncode, result.stdout.decode("ascii")), (0, answer))


if __name__ == "__main__":
    unittest.main()
