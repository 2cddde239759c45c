#!/bin/sh
# Regenerates the HEVC test streams of this folder with the Debian x265 and
# ffmpeg command-line tools. Every stream is one intra frame in Annex-B form
# (4-byte start codes before VPS, SPS, PPS and the slice), and the picture
# that went into the encoder is kept as a PNG beside it for PSNR checks.
#
#   sh tests/data/hevc/gen.sh        (from anywhere; writes into this folder)
#
# Needs: x265 (built with 8 and 10 bit), ffmpeg.
set -eu
cd "$(dirname "$0")"

FF="ffmpeg -hide_banner -loglevel error -y"
X265_COMMON="--preset medium --frames 1 --keyint 1 --fps 1 --no-info --log-level error --no-progress"

# encode PNG WIDTH HEIGHT PIXFMT CSP DEPTH QP OUT
encode() {
  png=$1 w=$2 h=$3 pixfmt=$4 csp=$5 depth=$6 qp=$7 out=$8
  $FF -i "$png" -pix_fmt "$pixfmt" -f rawvideo raw.tmp
  x265 $X265_COMMON --input raw.tmp --input-res "${w}x${h}" --input-depth "$depth" \
       --output-depth "$depth" --input-csp "$csp" --qp "$qp" --output "$out"
  rm -f raw.tmp
}

# One 512x512 picture: the single image, the source of the tiles and of the
# thumbnail. testsrc2 has flat areas and sharp edges and compresses well.
$FF -f lavfi -i testsrc2=size=512x512:rate=1 -frames:v 1 src512.png
encode src512.png 512 512 yuv420p i420 8 22 single512.hevc

# 2x2 grid of 256x256 tiles cut from the same picture, row by row. Encoded
# with the same settings, the four tiles carry identical VPS, SPS and PPS.
i=0
for y in 0 256; do
  for x in 0 256; do
    $FF -i src512.png -vf "crop=256:256:$x:$y" tile$i.png
    encode tile$i.png 256 256 yuv420p i420 8 22 tile$i.hevc
    rm -f tile$i.png
    i=$((i + 1))
  done
done

# 128x128 thumbnail of the same picture.
$FF -i src512.png -vf scale=128:128:flags=area thumb128.png
encode thumb128.png 128 128 yuv420p i420 8 22 thumb128.hevc

# 8-bit monochrome (4:0:0) alpha plane of the same size as the single image:
# a radial gradient.
$FF -f lavfi -i "nullsrc=size=512x512,format=gray,geq=lum='clip(255-hypot(X-256,Y-256),0,255)'" \
    -frames:v 1 alpha512.png
encode alpha512.png 512 512 gray i400 8 22 alpha512.hevc

# 10-bit 4:2:0 image.
$FF -f lavfi -i testsrc2=size=320x240:rate=1 -frames:v 1 -pix_fmt rgb48be src10bit.png
encode src10bit.png 320 240 yuv420p10le i420 10 22 image10bit.hevc

# Sizes that are not multiples of 8 (the encoder pads to its coding unit and
# signals a conformance window).
$FF -f lavfi -i testsrc2=size=302x198:rate=1 -frames:v 1 src302x198.png
encode src302x198.png 302 198 yuv420p i420 8 22 odd302x198.hevc
$FF -f lavfi -i testsrc2=size=150x90:rate=1 -frames:v 1 src150x90.png
encode src150x90.png 150 90 yuv420p i420 8 22 odd150x90.hevc

ls -l ./*.hevc ./*.png
