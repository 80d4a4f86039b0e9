#!/bin/sh
# Makes the small picture and MPEG video samples under pictures/ that the
# metadata tests measure. Needs ImageMagick 6 (/usr/bin/convert, called by its
# full path: another convert may come first on PATH) and ffmpeg. The files are
# committed; run this again only to remake them, then check the sizes that
# identify and ffprobe report against the tables in the tests.
set -eu
cd "$(dirname "$0")"
out=pictures
mkdir -p "$out"
IM=/usr/bin/convert
[ -x "$IM" ] || { echo "ImageMagick is missing: apt-get install imagemagick" >&2; exit 1; }
command -v ffmpeg >/dev/null || { echo "ffmpeg is missing: apt-get install ffmpeg" >&2; exit 1; }

# A small picture with colour and some transparency, odd sizes so that width
# and height cannot be confused.
src="$out/.src.png"
$IM -size 37x23 gradient:red-blue -alpha set -channel A -evaluate set 60% +channel "$src"
strip="-strip -define png:exclude-chunks=date,time"

# PNG: colour type and bit depth forced.
$IM "$src" $strip -colorspace Gray -alpha off -depth 8  -define png:color-type=0 "PNG:$out/grey8.png"
$IM "$src" $strip -colorspace Gray -alpha off -depth 16 -define png:color-type=0 "PNG:$out/grey16.png"
$IM "$src" $strip -alpha off -depth 8  -define png:color-type=2 "PNG:$out/rgb8.png"
$IM "$src" $strip -alpha off -depth 16 -define png:color-type=2 "PNG:$out/rgb16.png"
$IM "$src" $strip -alpha off -colors 16 -define png:bit-depth=8 -define png:color-type=3 "PNG:$out/palette8.png"
$IM "$src" $strip -alpha off -colors 16 -define png:bit-depth=4 -define png:color-type=3 "PNG:$out/palette4.png"
$IM "$src" $strip -colorspace Gray -depth 8  -define png:color-type=4 "PNG:$out/greyalpha8.png"
$IM "$src" $strip -colorspace Gray -depth 16 -define png:color-type=4 "PNG:$out/greyalpha16.png"
$IM "$src" $strip -depth 8  -define png:color-type=6 "PNG:$out/rgba8.png"
$IM "$src" $strip -depth 16 -define png:color-type=6 "PNG:$out/rgba16.png"

# GIF with a 256-entry global colour table, BMP 24-bit.
$IM -seed 7 -size 41x29 plasma:fractal -strip "GIF:$out/plasma.gif" 2>/dev/null ||
  $IM -size 41x29 gradient:yellow-green -strip "GIF:$out/plasma.gif"
$IM "$src" -strip -alpha off -type TrueColor "BMP3:$out/rgb24.bmp"

# JPEG: baseline and progressive colour, baseline grey (a one-component frame
# header, which the reader does not take).
$IM "$src" -strip -alpha off -quality 60 -interlace none "JPEG:$out/baseline.jpg"
$IM "$src" -strip -alpha off -quality 60 -interlace Plane "JPEG:$out/progressive.jpg"
$IM "$src" -strip -alpha off -colorspace Gray -quality 60 "JPEG:$out/grey.jpg"

# TIFF in both byte orders, 8-bit grey and 3 x 8-bit RGB, uncompressed.
for o in lsb msb; do
  $IM "$src" -strip -alpha off -colorspace Gray -depth 8 -compress none -define tiff:endian=$o \
    "TIFF:$out/grey8_$o.tif"
  $IM "$src" -strip -alpha off -type TrueColor -depth 8 -compress none -define tiff:endian=$o \
    "TIFF:$out/rgb8_$o.tif"
done
rm -f "$src"

# MPEG video, one second of a flat colour at the coarsest quantiser: MPEG-1 and MPEG-2
# at 625-line (25 Hz) and 525-line (29.97 Hz) sizes, in program streams.
ff="ffmpeg -hide_banner -loglevel error -y -bitexact"
mk() {  # name codec size rate [extra ffmpeg options]
  name=$1 codec=$2 size=$3 rate=$4
  shift 4
  $ff -f lavfi -i "color=c=0x406080:size=$size:rate=$rate:duration=1" -an -c:v "$codec" \
    -q:v 31 -g 12 "$@" -f mpeg "$out/$name"
}
mk mpeg1_pal.mpg mpeg1video 352x288 25
mk mpeg1_ntsc.mpg mpeg1video 352x240 30000/1001
mk mpeg2_pal.mpg mpeg2video 720x576 25
mk mpeg2_ntsc.mpeg mpeg2video 720x480 30000/1001
# With a sequence display extension that names the system outright.
mk mpeg2_pal_display.MPG mpeg2video 720x576 25 -video_format pal
# MPEG-1 pel aspect codes 12 (525-line 4:3) and 8 (625-line 4:3), each at the
# other system's frame rate, so the aspect code and not the rate decides.
mk mpeg1_ratio12.mpg mpeg1video 352x240 25 -vf setsar=10/11
mk mpeg1_ratio8.mpg mpeg1video 352x288 30000/1001 -vf setsar=12/11
