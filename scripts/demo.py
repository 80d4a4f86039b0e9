"""Builds a sample share, runs the real mediawalk on it in the sandbox and prints the library.

The share holds a few small media files made here (tagged MP3s, PNG/BMP/GIF pictures, MPEG-1 clips,
playlists, a subtitle, hidden and unknown files, a link) and, under Samples/, every committed file of
tests/data whose extension the scanner knows, in its own folder layout, so new fixtures show up
without changing this script.

Usage: python3 scripts/demo.py   (scripts/demo builds first and sets MEDIAWALK_BIN)
"""

import os
import shutil
import struct
import sys
import time
import zlib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import harness  # noqa: E402  the end-to-end tests' sandbox

KNOWN = {".bmp", ".gif", ".jpg", ".jpeg", ".jpe", ".tif", ".tiff", ".png", ".aif", ".aiff", ".wav", ".wma",
         ".mp3", ".mp2", ".pcm", ".lpcm", ".mp1", ".mpa", ".avi", ".mpeg", ".mpg", ".mpeg2", ".mp4", ".wmv",
         ".dat", ".vob", ".ts", ".mov", ".m3u", ".pls", ".srt"}

MTIME = 1262347200  # 2010-01-01T12:00:00 UTC, so the listing does not change from run to run


# ---------------------------------------------------------------------------------------------
# Small media files, made byte by byte

def id3v23(frames):
    body = b""
    for fid, text in frames:
        data = b"\x00" + text.encode("latin-1")  # encoding 0: ISO-8859-1
        body += fid.encode() + struct.pack(">I", len(data)) + b"\x00\x00" + data
    size = len(body)
    syncsafe = bytes([(size >> 21) & 0x7F, (size >> 14) & 0x7F, (size >> 7) & 0x7F, size & 0x7F])
    return b"ID3\x03\x00\x00" + syncsafe + body


def mp3(title=None, artist=None, album=None, genre=None, kbps=128, frames=60):
    """An ID3v2.3 tag (only the given frames) and MPEG-1 Layer III frames of silence at 44.1 kHz."""
    index = {32: 1, 64: 5, 96: 7, 128: 9, 160: 10, 192: 11, 256: 13, 320: 14}[kbps]
    tag_frames = [(fid, text) for fid, text in
                  (("TIT2", title), ("TPE1", artist), ("TALB", album), ("TCON", genre)) if text is not None]
    tag = id3v23(tag_frames) if tag_frames else b""
    length = 144000 * kbps // 44100
    frame = bytes([0xFF, 0xFB, index << 4, 0x44]) + b"\x00" * (length - 4)
    return tag + frame * frames


def png(width, height, rgb=True):
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)
    color_type, channels = (2, 3) if rgb else (0, 1)
    rows = b"".join(b"\x00" + bytes((x * 7 + y * 3) & 0xFF for x in range(width * channels)) for y in range(height))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, color_type, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def bmp(width, height):
    row = (width * 3 + 3) & ~3
    pixels = b"".join(bytes((x * 5 + y) & 0xFF for x in range(width * 3)).ljust(row, b"\x00") for y in range(height))
    header = struct.pack("<2sIHHI", b"BM", 54 + len(pixels), 0, 0, 54)
    info = struct.pack("<IiiHHIIiiII", 40, width, height, 1, 24, 0, len(pixels), 2835, 2835, 0, 0)
    return header + info + pixels


def gif(width, height):
    return (b"GIF89a" + struct.pack("<HHBBB", width, height, 0x80, 0, 0) + b"\x00\x00\x00\xff\xff\xff"
            + b"\x2c" + struct.pack("<HHHHB", 0, 0, width, height, 0) + b"\x02\x02\x44\x01\x00" + b"\x3b")


def mpeg1_video(width, height, aspect, rate):
    """An elementary stream: sequence header, GOP, picture start, end code; enough to read the size."""
    seq = b"\x00\x00\x01\xb3" + bytes([width >> 4, ((width & 0xF) << 4) | (height >> 8), height & 0xFF,
                                       (aspect << 4) | rate, 0xFF, 0xFF, 0xE0, 0x18])
    gop = b"\x00\x00\x01\xb8\x00\x08\x00\x00"
    pic = b"\x00\x00\x01\x00\x00\x0f\xff\xf8"
    return seq + gop + pic + b"\x00" * 2000 + b"\x00\x00\x01\xb7"


# ---------------------------------------------------------------------------------------------
# The share

SONGS = [
    ("Music/Jazz Club/01 Blue Night.mp3", dict(title="Blue Night", artist="The Quartet", album="Late Hours",
                                               genre="Jazz", kbps=192)),
    ("Music/Jazz Club/02 Smoke.mp3", dict(title="Smoke", artist="The Quartet", album="Late Hours",
                                          genre="Jazz", kbps=128)),
    ("Music/Jazz Club/03 untitled.mp3", dict(kbps=96)),
    ("Music/Rock/anthem.mp3", dict(title="anthem", artist="Loud Band", album="Stadium", genre="Rock", kbps=320)),
    ("Music/Rock/Cafe Live.mp3", dict(title='Café "Live" at the Corner', artist="Loud Band",
                                          album="Stadium", genre="Rock", kbps=256)),
    ("Music/Rock/(17).mp3", dict(title="17", artist="Zed", album="Numbers", genre="(17)", kbps=128)),
]


def build_share(sb):
    made = []

    def put(rel, data):
        sb.file(rel, data, mtime=MTIME)
        made.append(rel)

    for rel, tags in SONGS:
        put(rel, mp3(**tags))
    put("Music/Jazz Club/Evening.m3u",
        "#EXTM3U\n#EXTINF:312,The Quartet - Blue Night\n01 Blue Night.mp3\n02 Smoke.mp3\nmissing.mp3\n")
    put("Music/Rock/best.pls",
        "[playlist]\nFile1=anthem.mp3\nTitle1=anthem\nFile2=../Jazz Club/02 Smoke.mp3\nNumberOfEntries=2\n")
    put("Music/Rock/.hidden.mp3", mp3(title="hidden"))
    put("Photos/Holiday/beach.png", png(64, 48))
    put("Photos/Holiday/Sunset.bmp", bmp(40, 30))
    put("Photos/Holiday/grey.png", png(16, 16, rgb=False))
    put("Photos/icon.gif", gif(2, 2))
    put("Photos/broken.jpg", b"not a picture at all")
    put("Videos/Clip PAL.mpg", mpeg1_video(352, 288, 8, 3))
    put("Videos/Clip PAL.srt", "1\n00:00:01,000 --> 00:00:02,000\nHello\n")
    put("Videos/clip ntsc.mpeg", mpeg1_video(352, 240, 12, 4))
    put("Misc/notes.txt", "not media\n")
    put("Misc/movie.mkv", b"\x1a\x45\xdf\xa3")
    put("Misc/archive.mp3.bak", b"x")
    put(".private/secret.mp3", mp3(title="secret"))
    os.symlink("../Music", sb.share + "Misc/link to music")
    with open(sb.share + "Videos/big.ts", "wb") as f:
        f.truncate(5 * 1024 ** 3 + 17)
    os.utime(sb.share + "Videos/big.ts", (MTIME, MTIME))
    made.append("Videos/big.ts")

    samples = 0
    if os.path.isdir(harness.FIXTURES):
        for dirpath, dirnames, filenames in os.walk(harness.FIXTURES):
            dirnames.sort()
            for name in sorted(filenames):
                if os.path.splitext(name)[1].lower() not in KNOWN:
                    continue
                src = os.path.join(dirpath, name)
                if os.path.islink(src) or not os.path.isfile(src):
                    continue
                rel = os.path.join("Samples", os.path.relpath(src, harness.FIXTURES))
                os.makedirs(os.path.dirname(sb.share + rel), exist_ok=True)
                shutil.copyfile(src, sb.share + rel)
                os.utime(sb.share + rel, (MTIME, MTIME))
                samples += 1
    return made, samples


# ---------------------------------------------------------------------------------------------
# Printing the library

def text(value):
    if value is None:
        return ""
    if isinstance(value, bytes):
        return value.decode("utf-8", "replace")
    return str(value)


def size_text(n):
    n = int(n)
    for unit in ("B", "KiB", "MiB", "GiB"):
        if n < 1024 or unit == "GiB":
            return ("%d %s" % (n, unit)) if unit == "B" else ("%.1f %s" % (n, unit))
        n /= 1024.0


def table(rows, headings):
    rows = [[text(c) for c in r] for r in rows]
    widths = [max([len(h)] + [len(r[i]) for r in rows]) for i, h in enumerate(headings)]
    out = ["  " + "  ".join(h.ljust(w) for h, w in zip(headings, widths)).rstrip(),
           "  " + "  ".join("-" * w for w in widths)]
    for r in rows:
        out.append("  " + "  ".join(c.ljust(w) for c, w in zip(r, widths)).rstrip())
    if not rows:
        out.append("  (none)")
    return "\n".join(out)


def report(sb, res, elapsed, made, samples):
    share = sb.share.encode()
    out = []
    say = out.append
    say("mediawalk demo")
    say("==============")
    say("share:     %s  (%d files made here, %d samples from tests/data)" % (sb.share, len(made), samples))
    say("database:  %s" % sb.db_path())
    detector = "bundled detect_char_encode" if os.path.exists(sb.path("bin", "detector.target")) \
        else "stub answering windows-1252"
    say("detector:  %s" % detector)
    say("exit status %d after %.2f s" % (res.status, elapsed))
    progress = sb.read_tmp("mediawalkbar_result")
    say("/tmp/mediawalkbar_result: %s" % (" | ".join(text(progress).splitlines()) if progress is not None else "(none)"))
    nodes = ["%s=%s" % (node, value) for node, value in sb.xmldb.requests]
    say("xmldb writes: %s" % (", ".join(nodes) or "(none)"))
    if not os.path.exists(sb.db_path()):
        say("\nno database was written. Program output:\n" + text(res.stdout))
        return "\n".join(out)

    def rel(path):
        return text(path[len(share):] if path.startswith(share) else path)

    say("\nFolders (breadth-first; flags: V video, M music, P photo in the folder or below)")
    rows = sb.query("select path, ObjID, Dir_ParentID, layer, have_video, have_music, have_photo "
                    "from path_objid_tbl order by ROWID")
    if not rows:
        say("  (none)")
    for path, objid, parent, layer, v, m, p in rows:
        flags = "".join(f if x == b"1" else "." for f, x in (("V", v), ("M", m), ("P", p)))
        name = rel(path) or "(share) " + sb.share
        say("  [%s] %s%s  (id %s, parent %s)" % (flags, "  " * int(layer), name, text(objid), text(parent)))

    music = {r[0]: r for r in sb.query(
        "select No, Title, Artist, Album, Genre, Bitrate, Real_Path, Real_fname, Filesize, EXT_fname, PlsFile "
        "from music_tbl")}
    say("\nSongs by title (music_sortidx_tbl)")
    songs = []
    for (idx,) in sb.query("select idx from music_sortidx_tbl order by ROWID"):
        r = music.get(idx)
        if r is None:
            songs.append([idx, "(no music row)", "", "", "", "", ""])
            continue
        no, title, artist, album, genre, bitrate, path, fname, size, _, _ = r
        songs.append([no, title, artist, album, genre, "%s kbps" % text(bitrate), rel(path) + text(fname)])
    say(table(songs, ["No", "Title", "Artist", "Album", "Genre", "Bitrate", "File"]))

    for name, tbl in (("Genres", "music_sortGen_tbl"), ("Artists", "music_sortArt_tbl"),
                      ("Albums", "music_sortAlb_tbl")):
        say("\n%s" % name)
        say(table(sb.query("select name, cnt, ObjID from %s order by ROWID" % tbl), ["Name", "Songs", "Id"]))

    say("\nPlaylists")
    lists = [r for r in music.values() if r[9] in (b"m3u", b"pls")]
    if not lists:
        say("  (none)")
    for r in sorted(lists, key=lambda r: int(r[0])):
        members = [n for n in text(r[10]).split(",") if n]
        say("  %s%s  (%d songs)" % (rel(r[6]), text(r[7]), len(members)))
        for n in members:
            song = music.get(n.encode())
            say("    - %s" % (text(song[1]) + "  [" + text(song[7]) + "]" if song else "No %s (no such row)" % n))

    say("\nPhotos by name (photo_sortidx_tbl)")
    photos = {r[0]: r for r in sb.query(
        "select No, Real_Path, Real_fname, Width, Height, Depth, Filesize, Creattime from photo_tbl")}
    rows = []
    for (idx,) in sb.query("select idx from photo_sortidx_tbl order by ROWID"):
        r = photos.get(idx)
        if r:
            rows.append([r[0], rel(r[1]) + text(r[2]), "%sx%s" % (text(r[3]), text(r[4])), r[5],
                         size_text(r[6]), r[7]])
    say(table(rows, ["No", "File", "Size", "Depth", "Bytes", "Time"]))

    say("\nVideos by name (video_sortidx_tbl); subtitles listed after them")
    tv = {b"1": "PAL", b"2": "NTSC", b"-1": "unknown", b"0": "-"}
    videos = {r[0]: r for r in sb.query(
        "select No, Real_Path, Real_fname, Width, Height, Format_type, Filesize, EXT_fname from video_tbl")}
    rows = []
    for (idx,) in sb.query("select idx from video_sortidx_tbl order by ROWID"):
        r = videos.get(idx)
        if r:
            rows.append([r[0], rel(r[1]) + text(r[2]), "%sx%s" % (text(r[3]), text(r[4])),
                         tv.get(r[5], text(r[5])), size_text(r[6])])
    rows += [[r[0], rel(r[1]) + text(r[2]), "subtitle", "", size_text(r[6])]
             for r in sorted(videos.values(), key=lambda r: int(r[0])) if r[7] == b"srt"]
    say(table(rows, ["No", "File", "Picture", "TV", "Bytes"]))

    say("\nLast object identifiers (record_objid_tbl)")
    say(table(sb.query("select type, ObjID from record_objid_tbl order by ROWID"), ["Counter", "Next id"]))

    lines = res.lines
    say("\nProgram output (%d lines%s)" % (len(lines), ", last 40 shown" if len(lines) > 40 else ""))
    for line in lines[-40:]:
        say("  | " + text(line).replace("\r", "\\r"))
    return "\n".join(out)


def main():
    problem = harness.sandbox_problem()
    if problem:
        print("demo: cannot run the program in a sandbox: %s" % problem, file=sys.stderr)
        return 2
    if not os.path.isfile(harness.BIN):
        print("demo: no binary at %s; build first" % harness.BIN, file=sys.stderr)
        return 2
    sb = harness.Sandbox("demo")
    try:
        sb.conf(sharename="Media")
        sb.etc("codepage", "cp850\n")
        detector = os.environ.get("MEDIAWALK_DETECTOR", "")
        if detector and os.path.isfile(detector):
            sb.real_detector(detector)
        made, samples = build_share(sb)
        started = time.monotonic()
        res = sb.run()
        print(report(sb, res, time.monotonic() - started, made, samples))
        ok = res.status == 1
        if not ok:
            print("\ndemo: the run ended with status %d" % res.status, file=sys.stderr)
        return 0 if ok else 1
    finally:
        if os.environ.get("MEDIAWALK_DEMO_KEEP"):
            print("\n(kept: %s)" % sb.root)
        else:
            sb.cleanup()


if __name__ == "__main__":
    sys.exit(main())
