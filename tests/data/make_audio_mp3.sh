#!/bin/sh
# Makes the small MP3 files in audio/ that the MPEG audio tests read.
# Needs lame, id3v2 and python3 (for the source WAV). Run from anywhere:
#   sh tests/data/make_audio_mp3.sh
# The files are committed; rerun only to change them, and then recheck the
# expectations in tests/metadata/mpeg_audio_test.cc.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
out="$here/audio"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM
mkdir -p "$out"

# A stereo 44.1 kHz source: two drifting tones and a little pseudo-random
# noise, so that a VBR encoder has something to vary its frames on.
python3 - "$work/src.wav" <<'PY'
import math, struct, sys, wave
rate, seconds = 44100, 4
seed = 12345
frames = bytearray()
for n in range(rate * seconds):
    t = n / rate
    seed = (seed * 1103515245 + 12345) & 0x7FFFFFFF
    noise = (seed / 0x7FFFFFFF - 0.5) * (0.3 if (n // 4410) % 2 else 0.02)
    left = 0.4 * math.sin(2 * math.pi * (220 + 200 * t) * t) + noise
    right = 0.4 * math.sin(2 * math.pi * 330 * t) + 0.2 * math.sin(2 * math.pi * 1760 * t) + noise
    frames += struct.pack('<hh', int(left * 32767 * 0.7), int(right * 32767 * 0.7))
with wave.open(sys.argv[1], 'wb') as w:
    w.setnchannels(2)
    w.setsampwidth(2)
    w.setframerate(rate)
    w.writeframes(bytes(frames))
PY


# lame has no "first N seconds" option for WAV input, so the source is cut
# to length by a second WAV per duration.
cut_wav() {
  python3 - "$work/src.wav" "$work/src$1.wav" "$1" <<'PY'
import sys, wave
with wave.open(sys.argv[1], 'rb') as r:
    params = r.getparams()
    data = r.readframes(int(float(sys.argv[3]) * params.framerate))
with wave.open(sys.argv[2], 'wb') as w:
    w.setparams(params)
    w.writeframes(data)
PY
}
cut_wav 1
cut_wav 2
cut_wav 4

mp3() {  # mp3 SOURCE-SECONDS OUTPUT LAME-OPTIONS...
  src="$work/src$1.wav"
  name=$2
  shift 2
  lame --quiet "$@" "$src" "$out/$name"
}

# MPEG-1 layer III at 44.1 kHz.
mp3 2 cbr32_44k.mp3 -b 32 --resample 44.1
mp3 2 cbr128_44k.mp3 -b 128
mp3 1 cbr320_44k.mp3 -b 320
mp3 2 vbr_44k.mp3 -V 2 -b 32 -B 320 --resample 44.1
mp3 2 mono64_44k.mp3 -m m -b 64

# MPEG-2 and MPEG-2.5 layer III (576 samples a frame).
mp3 2 mpeg2_22k_64.mp3 -b 64 --resample 22.05
mp3 4 mpeg2_16k_32.mp3 -b 32 --resample 16
mp3 4 mpeg2_16k_mono24.mp3 -m m -b 24 --resample 16
mp3 4 mpeg25_8k_16.mp3 -b 16 --resample 8

# ID3v2 tags: one whose end is where the first frame starts, and one with
# 300 zero bytes between its end and the first frame.
cp "$out/cbr128_44k.mp3" "$out/tagged_cbr128.mp3"
id3v2 -2 -t "Fixture title" -a "Fixture artist" -A "Fixture album" "$out/tagged_cbr128.mp3"

tagged="$out/tagged_cbr128.mp3"
size=$(od -An -tu1 -j6 -N4 "$tagged" | awk '{ print $1 * 2097152 + $2 * 16384 + $3 * 128 + $4 }')
tag_end=$((size + 10))
{
  head -c "$tag_end" "$tagged"
  head -c 300 /dev/zero
  tail -c "+$((tag_end + 1))" "$tagged"
} > "$out/tagged_padded_cbr128.mp3"

ls -l "$out"
