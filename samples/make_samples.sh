#!/usr/bin/env bash
# Regenerates the demo's sample data from a synthetic 1024x1024 picture:
#   tile_0.hevc .. tile_3.hevc  2x2 grid of 512x512 tiles (row-major), 8-bit 4:2:0
#   thumbnail.hevc               256x256 downscale of the whole picture
#   alpha.hevc                   1024x1024 monochrome alpha plane (a soft disc)
#   exif.bin                     an Exif block ("Exif\0\0" + TIFF: Make, Model, Orientation)
# Each .hevc file is one Annex-B coded frame with its VPS, SPS and PPS.
# Needs ffmpeg and x265 (Debian packages ffmpeg, x265) and python3.
# The source picture is ffmpeg's deterministic testsrc2 pattern, so tests can
# regenerate it to measure the quality of a decoded file.
set -euo pipefail
cd "$(dirname "$0")"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

source_filter="testsrc2=size=1024x1024:rate=1"
ffmpeg -v error -y -f lavfi -i "$source_filter" -frames:v 1 -pix_fmt yuv420p "$tmp/source.yuv"

encode() {  # encode IN.yuv W H CSP OUT.hevc
  x265 --input "$1" --input-res "$2x$3" --input-csp "$4" --fps 1 --frames 1 \
    --preset medium --crf 22 --no-info --no-progress --log-level error --output "$5"
}

i=0
for row in 0 1; do
  for col in 0 1; do
    ffmpeg -v error -y -f lavfi -i "$source_filter" -frames:v 1 \
      -vf "crop=512:512:$((col * 512)):$((row * 512))" -pix_fmt yuv420p "$tmp/tile.yuv"
    encode "$tmp/tile.yuv" 512 512 i420 "tile_$i.hevc"
    i=$((i + 1))
  done
done

ffmpeg -v error -y -f lavfi -i "$source_filter" -frames:v 1 -vf scale=256:256 -pix_fmt yuv420p "$tmp/thumb.yuv"
encode "$tmp/thumb.yuv" 256 256 i420 thumbnail.hevc

# Alpha: opaque disc fading out towards the corners.
ffmpeg -v error -y -f lavfi -i "color=black:size=1024x1024:rate=1" -frames:v 1 \
  -vf "geq=lum='clip(255*(1.3-hypot(X-512,Y-512)/512),0,255)'" -pix_fmt gray "$tmp/alpha.yuv"
encode "$tmp/alpha.yuv" 1024 1024 i400 alpha.hevc

python3 - <<'PY'
import struct
# Big-endian TIFF with one IFD: Make, Model, Orientation.
entries = []
strings = b""
base = 8 + 2 + 3 * 12 + 4  # header, count, three entries, next-IFD offset
def ascii_tag(tag, text):
    global strings
    data = text.encode() + b"\0"
    entries.append(struct.pack(">HHII", tag, 2, len(data), base + len(strings)))
    strings += data
ascii_tag(0x010F, "libtarn")
ascii_tag(0x0110, "tarn sample camera")
entries.append(struct.pack(">HHIHH", 0x0112, 3, 1, 1, 0))
tiff = b"MM\0*" + struct.pack(">I", 8) + struct.pack(">H", len(entries)) + b"".join(entries) + struct.pack(">I", 0) + strings
open("exif.bin", "wb").write(b"Exif\0\0" + tiff)
PY
ls -l ./*.hevc exif.bin
