#!/bin/sh
# Makes the small tagged MP3 files under tests/data/tags/ that the tag reader
# tests (and the end-to-end runs) read. Needs lame, ffmpeg, id3v2, python3.
#
# Audio: half a second of 440 Hz tone, 8 kHz mono, encoded by lame at 8 kbit/s.
# Tags: id3v2 writes ID3v2.3 frames in Latin-1, taking non-ASCII arguments as
# raw bytes (which is how GBK and Big5 titles end up in Latin-1 frames);
# ffmpeg writes ID3v2.3 frames in UTF-16 when a text is not ASCII, and
# ID3v2.4 frames in UTF-8. Neither writes ID3v2.4 UTF-16 or Latin-1 frames,
# an empty frame, the same frame twice, or a "YTCP" frame: those tags are
# built byte by byte by the small python step at the end (mktag).
#
# The output is deterministic for given tool versions; the files are committed,
# so re-run this only to change them: sh tests/data/make_tagged_mp3.sh
set -eu

here=$(cd "$(dirname "$0")" && pwd)
out="$here/tags"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"

for tool in lame ffmpeg id3v2 python3; do
  command -v "$tool" >/dev/null || { echo "missing tool: $tool" >&2; exit 1; }
done

ffmpeg -nostdin -hide_banner -loglevel error -f lavfi \
  -i "sine=frequency=440:duration=0.5:sample_rate=8000" -ac 1 -f wav "$work/tone.wav"
lame --quiet --noreplaygain -b 8 -m m "$work/tone.wav" "$work/base.mp3"

# A copy of the untagged audio, tagged by id3v2 (ID3v2.3 only, no ID3v1).
id3v2_file() {
  name=$1; shift
  cp "$work/base.mp3" "$out/$name"
  id3v2 -2 "$@" "$out/$name" >/dev/null
}

# The untagged audio with tags written by ffmpeg; version 3 or 4.
ffmpeg_file() {
  name=$1; version=$2; shift 2
  ffmpeg -nostdin -hide_banner -loglevel error -y -i "$work/base.mp3" -c copy \
    -map_metadata -1 -fflags +bitexact -id3v2_version "$version" "$@" "$out/$name"
}

cp "$work/base.mp3" "$out/no_tag.mp3"

# ID3v2.3, Latin-1: plain texts, genre "(17)", bpm, a comment.
id3v2_file v23_latin1.mp3 -t "Latin Title" -a "Latin Artist" -A "Latin Album" -g 17 \
  --TBPM 120 -c "desc:comment text:eng"
# "ni hao" in GBK and in Big5, stored as raw bytes in Latin-1 frames.
id3v2_file gbk_title.mp3 -t "$(printf '\304\343\272\303')" -a "GBK Artist"
id3v2_file big5_title.mp3 -t "$(printf '\247\101\246\156')" -a "Big5 Artist"
id3v2_file genre_paren255.mp3 -t "Genre 255" --TCON "(255)"
# Three 40-byte texts: the third would take the detector sample past 100 bytes.
id3v2_file long_sample.mp3 \
  -t "TTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTT" \
  -a "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA" \
  -A "BBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBB" --TCOM "Composer"
# Shell metacharacters that must reach the detector as plain bytes.
id3v2_file shell_meta.mp3 -t '$(touch pwned_title)' -a '`touch pwned_artist`' -A 'x"; touch pwned_album; "'
# A 60-byte title holding a double quote.
id3v2_file title_quote60.mp3 -t 'A title of sixty bytes with a "double quote" in it, 01234567'

# ID3v2.3, UTF-16 (ffmpeg picks UTF-16 for non-ASCII text).
ffmpeg_file utf16_chinese.mp3 3 -metadata title="中文歌" -metadata artist="Artiste é" \
  -metadata album="Album"
ffmpeg_file astral.mp3 3 -metadata title="A😀B"
ffmpeg_file genre_17.mp3 3 -metadata title="Genre 17" -metadata genre="17"
# ID3v2.4, UTF-8.
ffmpeg_file genre_rock.mp3 4 -metadata title="Genre Rock" -metadata genre="Rock"
# A Windows-1252 euro sign, which Latin-1 reads as a C1 control.
id3v2_file cp1252_title.mp3 -t "$(printf '\200 Euro')"
ffmpeg_file v24_utf8.mp3 4 -metadata title="Ünïcode" -metadata artist="UTF-8 Artist"

# Tags the taggers above cannot write. Frame layout: ID:ENC:TEXT, where ENC is
# latin1, latin1z (with a terminating zero), utf16 (with BOM), utf16be or raw
# (TEXT written as is, no encoding byte).
mktag() {
  name=$1; version=$2; shift 2
  python3 - "$work/base.mp3" "$out/$name" "$version" "$@" <<'PY'
import sys

src, dst, version = sys.argv[1], sys.argv[2], int(sys.argv[3])

def size_bytes(n, synchsafe):
    if synchsafe:
        return bytes([(n >> 21) & 0x7F, (n >> 14) & 0x7F, (n >> 7) & 0x7F, n & 0x7F])
    return n.to_bytes(4, "big")

frames = b""
for frame_arg in sys.argv[4:]:
    fid, enc, text = frame_arg.split(":", 2)
    if enc == "latin1":
        body = b"\x00" + text.encode("latin-1")
    elif enc == "latin1z":
        body = b"\x00" + text.encode("latin-1") + b"\x00"
    elif enc == "utf16":
        body = b"\x01" + b"\xff\xfe" + text.encode("utf-16-le")
    elif enc == "utf16be":
        body = b"\x02" + text.encode("utf-16-be")
    elif enc == "raw":
        body = text.encode("latin-1")
    else:
        raise SystemExit("unknown encoding " + enc)
    frames += fid.encode("ascii") + size_bytes(len(body), version == 4) + b"\x00\x00" + body

header = b"ID3" + bytes([version, 0, 0]) + size_bytes(len(frames), True)
with open(src, "rb") as f:
    audio = f.read()
with open(dst, "wb") as f:
    f.write(header + frames + audio)
PY
}

mktag v24_utf16.mp3 4 "TIT2:utf16:Wide Title" "TPE1:utf16be:Wide Artist" \
  "TALB:latin1:Latin Album 24" "TCON:latin1:(17)"
# ID3v2.3 drops an empty TCON text entirely; ID3v2.4 keeps one empty string
# when the text holds its terminator.
mktag genre_empty.mp3 3 "TIT2:latin1:Genre Empty" "TCON:latin1:"
mktag genre_empty24.mp3 4 "TIT2:latin1:Genre Empty 24" "TCON:latin1z:"
mktag repeated_frames.mp3 3 "TIT2:latin1:First" "TPE1:latin1:One" "TCON:latin1:(1)" \
  "TIT2:latin1:Second" "TPE1:latin1:Two" "TCON:latin1:(2)"
mktag five_frames.mp3 3 "TIT2:latin1:a" "TPE1:latin1:b" "TALB:latin1:c" "TCOM:latin1:d" \
  "TIT2:latin1:e" "TCOM:latin1:f"
mktag ytcp.mp3 3 "YTCP:raw:1"

ls -l "$out"
