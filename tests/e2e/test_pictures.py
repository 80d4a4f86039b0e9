"""End-to-end tests of photo and video rows: the width, height and depth stored for pictures made by
a real image tool, the picture size and television system stored for MPEG videos made by a real
encoder, zeros for other video containers, and no row for a photo that is not a picture."""

import os
import unittest

import harness
from harness import SandboxTestCase

PICTURES = os.path.join(harness.FIXTURES, "pictures")

# Width and height as the image tool reports them; depth as the reader defines it.
PHOTOS = {
    "grey8.png": (37, 23, 8),
    "grey16.png": (37, 23, 16),
    "rgb8.png": (37, 23, 24),
    "rgb16.png": (37, 23, 48),
    "palette4.png": (37, 23, 4),
    "palette8.png": (37, 23, 8),
    "greyalpha8.png": (37, 23, 16),
    "greyalpha16.png": (37, 23, 32),
    "rgba8.png": (37, 23, 32),
    "rgba16.png": (37, 23, 48),  # 48, not 64: the reader has always said so
    "plasma.gif": (41, 29, 8),
    "rgb24.bmp": (37, 23, 24),
    "baseline.jpg": (37, 23, 24),
    "progressive.jpg": (37, 23, 24),
    "grey.jpg": (0, 0, 0),  # a one-component frame header is not taken, but the file is a JPEG
    "grey8_lsb.tif": (37, 23, 8),
    "grey8_msb.tif": (37, 23, 8),
    "rgb8_lsb.tif": (37, 23, 24),
    "rgb8_msb.tif": (37, 23, 24),
}

# Width, height as the encoder made them; Format_type holds the television system (1 625-line,
# 2 525-line), not the MPEG version.
VIDEOS = {
    "mpeg1_pal.mpg": (352, 288, 1),
    "mpeg1_ntsc.mpg": (352, 240, 2),
    "mpeg1_ratio12.mpg": (352, 240, 2),  # the aspect code decides over the 25 Hz rate
    "mpeg1_ratio8.mpg": (352, 288, 1),
    "mpeg2_pal.mpg": (720, 576, 1),
    "mpeg2_ntsc.mpeg": (720, 480, 2),
    "mpeg2_pal_display.MPG": (720, 576, 1),
}


def row(width, height, third):
    return tuple(str(v).encode() for v in (width, height, third))


class PictureRows(SandboxTestCase):
    def test_photo_and_video_rows(self):
        sb = self.sb
        sb.write_codepage("cp850\n")
        sb.conf()
        self.assertEqual(sorted(list(PHOTOS) + list(VIDEOS)), sorted(os.listdir(PICTURES)))
        for name in list(PHOTOS) + list(VIDEOS):
            sb.copy(os.path.join(PICTURES, name), name)
        sb.file("notes.jpg", b"These are notes, not a picture.\n")
        # Only the extension lets a video be read: MPEG streams under other names store zeros.
        for name in ("clip.avi", "clip.mp4", "clip.vob"):
            sb.copy(os.path.join(PICTURES, "mpeg2_pal.mpg"), name)
        sb.copy(os.path.join(PICTURES, "mpeg1_ntsc.mpg"), "clip.mpeg2")
        # A photo whose full path is close to the longest the walk admits (511 bytes).
        first = "a" * 200
        second = "b" * (505 - len(sb.share) - len(first) - len("//deep.png"))
        deep_folder = sb.share + first + "/" + second + "/"
        sb.copy(os.path.join(PICTURES, "rgb8_msb.tif"), "deep.png", base=deep_folder)
        self.assertEqual(len(deep_folder + "deep.png"), 505)
        res = self.run_ok()

        root = sb.share.encode()
        photos = {(p, n): tuple(rest) for p, n, *rest in
                  sb.query("SELECT Real_Path, Real_fname, Width, Height, Depth FROM photo_tbl")}
        expected = {(root, n.encode()): row(*v) for n, v in PHOTOS.items()}
        expected[(deep_folder.encode(), b"deep.png")] = row(37, 23, 24)  # the format goes by the bytes
        self.assertEqual(photos, expected)
        self.assertIn(b"Can't verify image file of type!!filename: %snotes.jpg\n" % root, res.stdout)
        self.assertEqual(res.stdout.count(b"Can't verify image file of type!!"), 1, res)

        videos = {n.decode(): tuple(rest) for n, *rest in
                  sb.query("SELECT Real_fname, Width, Height, Format_type FROM video_tbl")}
        expected = {n: row(*v) for n, v in VIDEOS.items()}
        expected.update({n: row(0, 0, 0) for n in ("clip.avi", "clip.mp4", "clip.vob")})
        expected["clip.mpeg2"] = row(352, 240, 2)
        self.assertEqual(videos, expected)
        for message in (b"find hdr terminated!", b"End of file", b"Read error", b"Can not open"):
            self.assertNotIn(message, res.stdout)


if __name__ == "__main__":
    unittest.main()
