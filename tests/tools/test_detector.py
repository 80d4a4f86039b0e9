"""The shipped charset detector against short samples in each charset the
tag reader knows, the way the reader calls it: one argument, answer read
without a trailing newline."""
import os
import subprocess
import unittest

DETECTOR = os.environ.get("DETECTOR_BIN", "")
LAUNCHER = os.environ.get("MEDIAWALK_LAUNCHER", "").split()

RUSSIAN = "Привет, мир! Это тестовая песня о любви и дружбе"
TRADITIONAL = "這是一首關於愛情與友誼的測試歌曲名稱"
SIMPLIFIED = "这是一首关于爱情与友谊的测试歌曲名称"

# (text, charset it is encoded in, answer expected)
SAMPLES = [
    (RUSSIAN, "cp1251", "windows-1251"),
    (RUSSIAN, "cp866", "IBM866"),
    (RUSSIAN, "mac_cyrillic", "x-mac-cyrillic"),
    (RUSSIAN, "koi8_r", "KOI8-R"),
    (RUSSIAN, "cp855", "IBM855"),
    ("It’s “café” time — naïve… don’t stop", "cp1252", "windows-1252"),
    (SIMPLIFIED, "gb18030", "gb18030"),
    (TRADITIONAL, "big5", "Big5"),
    ("Καλημέρα κόσμε, αυτό είναι ένα τραγούδι", "iso8859_7", "ISO-8859-7"),
    ("こんにちは世界、これはテストの歌です", "shift_jis", "SHIFT_JIS"),
    ("안녕하세요 세계, 이것은 테스트 노래입니다", "euc_kr", "UHC"),
    (RUSSIAN, "utf-8", "UTF-8"),
]


def detect(sample: bytes) -> subprocess.CompletedProcess:
    return subprocess.run(LAUNCHER + [DETECTOR, sample], capture_output=True, timeout=60)


@unittest.skipUnless(DETECTOR, "DETECTOR_BIN not set")
class DetectorAnswers(unittest.TestCase):
    def test_each_charset_is_named_as_the_reader_spells_it(self):
        for text, codec, answer in SAMPLES:
            sample = text.encode(codec)
            with self.subTest(codec=codec):
                self.assertLessEqual(len(sample), 100)
                result = detect(sample)
                self.assertEqual(result.returncode, 0)
                self.assertEqual(result.stdout.decode("ascii"), answer)

    def test_empty_sample_prints_nothing(self):
        result = detect(b"")
        self.assertEqual((result.returncode, result.stdout), (0, b""))

    def test_missing_argument_prints_nothing(self):
        result = subprocess.run(LAUNCHER + [DETECTOR], capture_output=True, timeout=60)
        self.assertEqual((result.returncode, result.stdout), (0, b""))


if __name__ == "__main__":
    unittest.main()
