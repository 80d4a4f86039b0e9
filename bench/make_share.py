#!/usr/bin/env python3
"""Builds a deterministic share that looks like a real music, photo and video collection.

    make_share.py --files N [--seed S] OUT

Makes OUT/Media_1/ with exactly N files (every one its own directory entry) and OUT/seeds/, the
sources of the hard-linked ones. The same N and seed give the same tree, names, bytes and times.

Shape, the same at every size (only the number of artists, albums, events and films grows):
  Music/<Artist>/<Year> - <Album>/NN - <Title>.mp3   tracks with their own ID3v2.3 tag
        with a cover (folder.jpg), now and then an m3u or pls playlist naming tracks of the
        album, a hidden .DS_Store, an unknown .nfo or .cue
  Photos/<Year>/<YYYY-MM-DD Event>/IMG_NNNN.JPG      JPEG mostly, some PNG, GIF, BMP, TIFF,
        a Thumbs.db and hidden ._ files here and there
  Videos/Movies/<Title (Year)>/<Title>.mpg + .srt + .nfo, Videos/Home/<Year>/clip_NNN.mpg
  Documents/<Topic>/...                              files the scanner does not know

MP3 files are written, each with a byte-built ID3v2.3 tag (title, artist, album, genre, track,
year; Latin-1, some texts with accented letters) followed by the audio of a committed seed
encoding, cut so that the file fits one 4 KiB block. Everything else is a hard link to a seed.
"""

import argparse
import os
import random
import shutil
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
DATA = os.path.join(REPO, "tests", "data")

# Seconds since the epoch for every file of the share: 2021-06-01 00:00:00 UTC plus an offset.
BASE_TIME = 1622505600
FILE_BUDGET = 4096  # bytes of one MP3: the tag and as much audio as fits

AUDIO_SEEDS = ["audio/cbr32_44k.mp3", "audio/mono64_44k.mp3", "audio/cbr128_44k.mp3",
               "audio/mpeg2_22k_64.mp3", "audio/vbr_44k.mp3", "tags/v23_latin1.mp3"]
PHOTO_SEEDS = {"jpg": "pictures/baseline.jpg", "jpg2": "pictures/progressive.jpg",
               "png": "pictures/rgb8.png", "gif": "pictures/plasma.gif",
               "bmp": "pictures/rgb24.bmp", "tif": "pictures/rgb8_lsb.tif"}
VIDEO_SEEDS = {"pal": "pictures/mpeg2_pal.mpg", "ntsc": "pictures/mpeg1_ntsc.mpg"}
# Tracks whose tag is not Latin-1: a few of the committed tag samples, linked as they are.
ODD_TAG_SEEDS = ["tags/big5_title.mp3", "tags/gbk_title.mp3", "tags/utf16_chinese.mp3",
                 "tags/v24_utf8.mp3", "tags/cp1252_title.mp3"]

WORDS = ("amber autumn blue broken burning city cold crystal dancing dark dawn desert distant "
         "dream echo electric empty falling fire floating forest frozen garden ghost glass gold "
         "golden green heart hidden highway hollow island jade last light lonely lost lunar "
         "midnight mirror morning mountain neon night ocean paper quiet rain red river road "
         "rose running salt secret shadow silent silver sky slow small snow song spring star "
         "stone storm summer sun sweet tide velvet violet water wild winter wooden yellow").split()
ACCENTED = ["caf\u00e9", "na\u00efve", "s\u00e9ance", "\u00fcber", "se\u00f1or", "fa\u00e7ade",
            "\u00e5ngstr\u00f6m", "cr\u00e8me"]
EVENTS = ["Beach trip", "Birthday", "Christmas", "Wedding", "Hiking", "Zoo", "Garden", "Concert",
          "School play", "Skiing", "Road trip", "Museum", "Camping", "New Year", "Graduation"]
DS_STORE = b"\0\0\0\1Bud1" + bytes(56)
TOPICS = ["Taxes", "Recipes", "Manuals", "Letters", "Work", "School", "Travel", "Backups"]
UNKNOWN_EXT = ["pdf", "docx", "txt", "xlsx", "zip", "odt", "epub", "iso"]


def title_case(words):
    return " ".join(w[:1].upper() + w[1:] for w in words)


class Names:
    """Distinct human-looking names from a seeded generator."""

    def __init__(self, rng):
        self.rng = rng
        self.used = set()

    def phrase(self, lo, hi, accent=0.04, apostrophe=0.03):
        while True:
            words = [self.rng.choice(WORDS) for _ in range(self.rng.randint(lo, hi))]
            if self.rng.random() < accent:
                words[self.rng.randrange(len(words))] = self.rng.choice(ACCENTED)
            text = title_case(words)
            if self.rng.random() < apostrophe:
                text = text.replace(" ", "'s ", 1) if " " in text else text + "'s"
            if text not in self.used:
                self.used.add(text)
                return text


# ---------------------------------------------------------------------------------------------
# MP3 bytes

def _syncsafe(n):
    return bytes([(n >> 21) & 0x7F, (n >> 14) & 0x7F, (n >> 7) & 0x7F, n & 0x7F])


def _text_frame(frame_id, text):
    data = b"\x00" + text.encode("latin-1")
    return frame_id.encode("ascii") + struct.pack(">I", len(data)) + b"\x00\x00" + data


def id3v23_tag(title, artist, album, genre, track, year):
    frames = b"".join([_text_frame("TIT2", title), _text_frame("TPE1", artist),
                       _text_frame("TALB", album), _text_frame("TCON", genre),
                       _text_frame("TRCK", str(track)), _text_frame("TYER", str(year))])
    return b"ID3\x03\x00\x00" + _syncsafe(len(frames)) + frames


def audio_of(path):
    """The audio part of a seed encoding: its bytes after a leading ID3v2 tag."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:3] == b"ID3" and len(data) >= 10:
        s = data[6:10]
        data = data[10 + ((s[0] << 21) | (s[1] << 14) | (s[2] << 7) | s[3]):]
    return data


# ---------------------------------------------------------------------------------------------
# The share

class Share:
    def __init__(self, out, n_files, seed):
        self.rng = random.Random(seed)
        self.names = Names(self.rng)
        # A "_" in every path: a LIKE wildcard the folder flags must not trip on.
        self.root = os.path.join(out, "Media_1")
        self.seed_dir = os.path.join(out, "seeds")
        self.n_files = n_files
        self.made = 0
        self.clock = 0
        self.audio = [audio_of(os.path.join(DATA, p)) for p in AUDIO_SEEDS]
        self.seeds = {}

    # -- primitives ------------------------------------------------------------------------

    def left(self):
        return self.n_files - self.made

    def _tick(self):
        self.clock += 37
        return BASE_TIME + self.clock

    def seed(self, key, src=None, content=None):
        """Path of a link source in OUT/seeds, made once, from a committed file or bytes."""
        if key not in self.seeds:
            path = os.path.join(self.seed_dir, key.replace("/", "_"))
            if src is not None:
                shutil.copyfile(os.path.join(DATA, src), path)
            else:
                with open(path, "wb") as f:
                    f.write(content)
            t = self._tick()
            os.utime(path, (t, t))
            self.seeds[key] = path
        return self.seeds[key]

    def link(self, folder, name, seed_path):
        if self.left() <= 0:
            return False
        os.link(seed_path, os.path.join(folder, name))
        self.made += 1
        return True

    def write(self, folder, name, data):
        if self.left() <= 0:
            return False
        path = os.path.join(folder, name)
        with open(path, "wb") as f:
            f.write(data)
        t = self._tick()
        os.utime(path, (t, t))
        self.made += 1
        return True

    def folder(self, *parts):
        path = os.path.join(self.root, *parts)
        os.makedirs(path, exist_ok=True)
        return path

    # -- sections --------------------------------------------------------------------------

    def music(self, budget):
        stop = self.made + budget
        rng = self.rng
        while self.made < stop and self.left() > 0:
            artist = self.names.phrase(1, 3)
            for _ in range(rng.choice((1, 1, 2, 2, 3, 4))):
                if self.made >= stop:
                    break
                year = rng.randint(1965, 2023)
                album = self.names.phrase(1, 4)
                self.album(self.folder("Music", artist, "%d - %s" % (year, album)),
                           artist, album, year, min(rng.randint(6, 16), stop - self.made))

    def album(self, folder, artist, album, year, tracks):
        rng = self.rng
        genre = rng.choice(["(%d)" % rng.randint(0, 125)] * 4 + ["Rock", "Jazz", ""])
        titles = []
        for n in range(1, tracks + 1):
            if rng.random() < 0.005:
                name = "%02d - %s.mp3" % (n, self.names.phrase(1, 3))
                odd = rng.choice(ODD_TAG_SEEDS)
                if self.link(folder, name, self.seed(odd, src=odd)):
                    titles.append(name)
                continue
            title = self.names.phrase(1, 5, accent=0.06, apostrophe=0.05)
            if rng.random() < 0.01:
                title = title + ' (12" Mix)'  # a double quote, escaped in the row
            tag = id3v23_tag(title, artist, album, genre, n, year)
            audio = rng.choice(self.audio)
            body = audio[:max(0, FILE_BUDGET - len(tag))]
            name = "%02d - %s.mp3" % (n, title.replace('"', "in").replace("/", "-"))
            if self.write(folder, name, tag + body):
                titles.append(name)
        if rng.random() < 0.7:
            self.link(folder, "folder.jpg", self.seed("jpg", src=PHOTO_SEEDS["jpg"]))
        roll = rng.random()
        if roll < 0.12 and titles:
            lines = ["#EXTM3U"]
            for name in titles:
                lines += ["#EXTINF:%d,%s" % (rng.randint(120, 420), name[5:-4]), name]
            self.write(folder, "%s.m3u" % album, ("\r\n".join(lines) + "\r\n").encode("utf-8"))
        elif roll < 0.17 and titles:
            lines = ["[playlist]"] + ["File%d=%s" % (i + 1, n) for i, n in enumerate(titles)]
            lines.append("NumberOfEntries=%d" % len(titles))
            self.write(folder, "%s.pls" % album, ("\n".join(lines) + "\n").encode("utf-8"))
        if rng.random() < 0.10:
            self.link(folder, ".DS_Store", self.seed("ds_store", content=DS_STORE))
        if rng.random() < 0.08:
            self.link(folder, "%s.nfo" % album, self.seed("nfo", content=b"ripped\n"))
        if rng.random() < 0.05:
            self.link(folder, "%s.cue" % album, self.seed("cue", content=b'FILE "a.wav" WAVE\n'))

    def photos(self, budget):
        stop = self.made + budget
        rng = self.rng
        year = 1998
        camera = 0
        while self.made < stop and self.left() > 0:
            month, day = rng.randint(1, 12), rng.randint(1, 28)
            event = "%d-%02d-%02d %s" % (year, month, day, rng.choice(EVENTS))
            if rng.random() < 0.04:
                event += " " + rng.choice(ACCENTED)
            folder = self.folder("Photos", str(year), event)
            year = 1998 + (year - 1998 + 1) % 27
            for _ in range(min(rng.randint(8, 60), stop - self.made)):
                camera += 1
                kind = rng.random()
                if kind < 0.80:
                    key, name = rng.choice(("jpg", "jpg", "jpg2")), "IMG_%04d.JPG" % (camera % 10000)
                elif kind < 0.88:
                    key, name = "png", "Screenshot_%05d.png" % camera
                elif kind < 0.93:
                    key, name = "gif", "anim_%05d.gif" % camera
                elif kind < 0.96:
                    key, name = "bmp", "scan_%05d.bmp" % camera
                elif kind < 0.98:
                    key, name = "tif", "scan_%05d.tif" % camera
                else:
                    key, name = "ds_store", "._IMG_%04d.JPG" % (camera % 10000)
                self.link(folder, name, self.seed(key, src=PHOTO_SEEDS.get(key), content=DS_STORE))
            if rng.random() < 0.3:
                self.link(folder, "Thumbs.db", self.seed("thumbs", content=b"\xd0\xcf\x11\xe0" + bytes(60)))

    def videos(self, budget):
        stop = self.made + budget
        rng = self.rng
        srt = b"1\r\n00:00:01,000 --> 00:00:04,000\r\nHello.\r\n\r\n"
        clip = 0
        while self.made < stop and self.left() > 0:
            if rng.random() < 0.6:
                title = self.names.phrase(1, 4)
                folder = self.folder("Videos", "Movies", "%s (%d)" % (title, rng.randint(1950, 2023)))
                self.link(folder, "%s.mpg" % title, self.seed("pal", src=VIDEO_SEEDS["pal"]))
                if rng.random() < 0.6:
                    self.link(folder, "%s.srt" % title, self.seed("srt", content=srt))
                if rng.random() < 0.3:
                    self.link(folder, "%s.nfo" % title, self.seed("nfo", content=b"ripped\n"))
            else:
                folder = self.folder("Videos", "Home", str(rng.randint(2005, 2023)))
                for _ in range(min(rng.randint(3, 12), stop - self.made)):
                    clip += 1
                    ext = rng.choice(("mpg", "mpg", "MPG", "mpeg", "avi", "mp4"))
                    self.link(folder, "clip_%04d.%s" % (clip, ext), self.seed("ntsc", src=VIDEO_SEEDS["ntsc"]))

    def documents(self):
        rng = self.rng
        while self.left() > 0:
            folder = self.folder("Documents", rng.choice(TOPICS), str(rng.randint(2010, 2023)))
            for _ in range(min(rng.randint(5, 30), self.left())):
                ext = rng.choice(UNKNOWN_EXT)
                name = "%s.%s" % (self.names.phrase(1, 3, accent=0, apostrophe=0), ext)
                if rng.random() < 0.1:
                    name = "." + name
                self.link(folder, name, self.seed(ext, content=("%s\n" % ext).encode()))

    def build(self):
        os.makedirs(self.root)
        os.makedirs(self.seed_dir)
        n = self.n_files
        self.music(int(n * 0.56))
        self.photos(int(n * 0.32))
        self.videos(int(n * 0.06))
        self.documents()
        return self.made


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--files", type=int, required=True)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("out")
    args = ap.parse_args()
    if os.path.exists(args.out):
        sys.exit("make_share.py: %s exists; remove it first" % args.out)
    made = Share(args.out, args.files, args.seed).build()
    print("%s: %d files" % (args.out, made))


if __name__ == "__main__":
    main()
