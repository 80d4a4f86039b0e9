"""End-to-end tests of the Bitrate column: MP3 files made by a real encoder store the bitrate that
the frame analysis averages from the middle of each file; any other music file stores 0, whatever
its bytes hold, and has its failure pair printed."""

import os
import unittest

import harness
from harness import SandboxTestCase

AUDIO = os.path.join(harness.FIXTURES, "audio")

# The averages the frame analysis yields for each file (worked out per file in the unit tests of
# the analysis): the encoder's rate for CBR, the mean of ten frames behind the middle for VBR.
BITRATES = {
    "cbr32_44k.mp3": 32,
    "cbr128_44k.mp3": 128,
    "cbr320_44k.mp3": 320,
    "mono64_44k.mp3": 64,
    "tagged_cbr128.mp3": 128,
    "tagged_padded_cbr128.mp3": 128,
    "mpeg2_22k_64.mp3": 64,
    "mpeg2_16k_32.mp3": 32,
    "mpeg2_16k_mono24.mp3": 24,
    "mpeg25_8k_16.mp3": 16,
    "vbr_44k.mp3": 192,  # opens with a 128 kbit/s Xing frame
}

FAILURE = b"scan_get_mp3fileinfo():Get mp3 file info failure!!!\n  filename [%s%s]\n"


class Bitrates(SandboxTestCase):
    def test_stored_bitrates(self):
        sb = self.sb
        sb.write_codepage("cp850\n")
        sb.conf()
        self.assertEqual(sorted(BITRATES), sorted(os.listdir(AUDIO)))
        for name in BITRATES:
            sb.copy(os.path.join(AUDIO, name), name)
        # The type is the name's: an upper-case MP3 is analysed; real MP3 bytes under another
        # music extension are not (nor are their tags read); the .wav and .wma come right behind
        # the analysed original, whose bitrate they must not carry over.
        sb.copy(os.path.join(AUDIO, "cbr320_44k.mp3"), "UPPER.MP3")
        sb.copy(os.path.join(AUDIO, "tagged_cbr128.mp3"), "tagged_cbr128.wav")
        sb.copy(os.path.join(AUDIO, "vbr_44k.mp3"), "vbr_44k.wma")
        sb.copy(os.path.join(AUDIO, "cbr32_44k.mp3"), "sub/song.mp2")
        res = self.run_ok()

        stored = {n.decode(): (p, t, b) for p, n, t, b in
                  sb.query("SELECT Real_Path, Real_fname, Title, Bitrate FROM music_tbl")}
        root = sb.share.encode()
        expected = {name: (root, name.encode(), str(rate).encode()) for name, rate in BITRATES.items()}
        expected["tagged_cbr128.mp3"] = (root, b"Fixture title", b"128")
        expected["tagged_padded_cbr128.mp3"] = (root, b"Fixture title", b"128")
        expected["UPPER.MP3"] = (root, b"UPPER.MP3", b"320")
        expected["tagged_cbr128.wav"] = (root, b"tagged_cbr128.wav", b"0")
        expected["vbr_44k.wma"] = (root, b"vbr_44k.wma", b"0")
        expected["song.mp2"] = (root + b"sub/", b"song.mp2", b"0")
        self.assertEqual(stored, expected)

        failures = [(root, b"tagged_cbr128.wav"), (root, b"vbr_44k.wma"), (root + b"sub/", b"song.mp2")]
        for folder, name in failures:
            self.assertEqual(res.stdout.count(FAILURE % (folder, name)), 1, res)
        self.assertEqual(res.stdout.count(b"Get mp3 file info failure"), len(failures), res)
        self.assertNotIn(b"Get mp3 tags failure", res.stdout)


if __name__ == "__main__":
    unittest.main()
