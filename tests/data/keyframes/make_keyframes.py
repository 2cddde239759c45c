#!/usr/bin/env python3
"""Short clips from real encoders for the key-frame test, with the frame
types that ffprobe (an independent decoder) reports for them.

For each clip: <name>.<ext> holds the coded frames back to back exactly as
the encoder produced them (start codes for AVC and HEVC), and <name>.idx has
one line per frame in stream order: "offset size key pict_type", where key
and pict_type are ffprobe's key_frame and pict_type for the decoded frame.

  python3 make_keyframes.py
"""
import json
import os
import subprocess
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = ["-f", "lavfi", "-i", "testsrc2=size={size}:rate=25"]

# name, output extension, media type, size, frames, encoder arguments.
# Raw start-code streams (AVC, HEVC) are indexed as written; the others are
# muxed into Matroska first for their packet boundaries and copied out raw.
CLIPS = [
    ("hevc_x265_open_gop", "hevc", 120, "64x64", 14, "x265",
     ["--keyint", "6", "--min-keyint", "6", "--no-scenecut", "--bframes", "3", "--open-gop"]),
    ("hevc_x265_closed_gop", "hevc", 120, "64x64", 10, "x265",
     ["--keyint", "4", "--min-keyint", "4", "--no-scenecut", "--bframes", "2", "--no-open-gop",
      "--repeat-headers"]),
    ("avc_x264", "h264", 104, "64x64", 14, "ffmpeg",
     ["-c:v", "libx264", "-preset", "veryfast", "-bf", "2",
      "-x264-params", "keyint=5:min-keyint=5:scenecut=0:repeat-headers=1"]),
    ("mpeg4_part2", "m4v", 102, "64x64", 10, "mkv", ["-c:v", "mpeg4", "-g", "4", "-bf", "0"]),
    ("h263", "h263", 103, "128x96", 10, "mkv", ["-c:v", "h263", "-g", "4"]),
    ("flv1", "flv1", 111, "64x64", 10, "mkv", ["-c:v", "flv", "-g", "4"]),
    ("vp8", "vp8", 119, "64x64", 10, "mkv", ["-c:v", "libvpx", "-g", "4", "-b:v", "100k"]),
    ("vp9", "vp9", 121, "64x64", 10, "mkv", ["-c:v", "libvpx-vp9", "-g", "4", "-b:v", "100k",
                                             "-deadline", "realtime"]),
    ("wmv1", "wmv1", 105, "64x64", 8, "mkv", ["-c:v", "wmv1", "-g", "4"]),
    ("wmv2", "wmv2", 106, "64x64", 8, "mkv", ["-c:v", "wmv2", "-g", "4"]),
    ("div3", "div3", 110, "64x64", 8, "mkv", ["-c:v", "msmpeg4", "-g", "4"]),
]


def run(args):
    subprocess.run(args, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


def probe(path, what, entries):
    out = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v:0", "-show_" + what,
                          "-show_entries", f"{what[:-1]}={entries}", "-of", "json", path],
                         check=True, capture_output=True, text=True).stdout
    return json.loads(out)[what]


def frames_by_packet(path):
    """Packets in stream order joined with the decoded frames' types."""
    packets = probe(path, "packets", "pos,size")
    frames = {int(f["pkt_pos"]): f for f in probe(path, "frames", "pkt_pos,key_frame,pict_type")}
    rows = []
    for p in packets:
        f = frames[int(p["pos"])]
        rows.append((int(p["size"]), int(f["key_frame"]), f["pict_type"], int(p["pos"])))
    return rows


def make(name, ext, size, count, tool, args, tmp):
    out = os.path.join(HERE, f"{name}.{ext}")
    if tool == "x265":
        y4m = os.path.join(tmp, "in.y4m")
        run(["ffmpeg", "-y"] + [a.format(size=size) for a in SRC] +
            ["-frames:v", str(count), "-pix_fmt", "yuv420p", y4m])
        run(["x265", "--input", y4m, "--preset", "ultrafast", "--no-info", "--log-level", "error",
             "--output", out] + args)
    elif tool == "ffmpeg":
        run(["ffmpeg", "-y"] + [a.format(size=size) for a in SRC] +
            ["-frames:v", str(count), "-pix_fmt", "yuv420p"] + args + ["-f", "h264", out])
    if tool in ("x265", "ffmpeg"):
        rows = frames_by_packet(out)  # raw streams: packet positions are file offsets
        return [(pos, sz, key, pt) for sz, key, pt, pos in rows]
    mkv = os.path.join(tmp, name + ".mkv")
    run(["ffmpeg", "-y"] + [a.format(size=size) for a in SRC] +
        ["-frames:v", str(count), "-pix_fmt", "yuv420p"] + args + [mkv])
    run(["ffmpeg", "-y", "-i", mkv, "-c", "copy", "-f", "rawvideo", out])
    lines, offset = [], 0
    for sz, key, pt, _ in frames_by_packet(mkv):
        lines.append((offset, sz, key, pt))
        offset += sz
    if offset != os.path.getsize(out):
        raise AssertionError(f"{name}: packet sizes do not add up to the raw copy")
    return lines


def main():
    with tempfile.TemporaryDirectory() as tmp:
        for name, ext, _mt, size, count, tool, args in CLIPS:
            rows = make(name, ext, size, count, tool, args, tmp)
            with open(os.path.join(HERE, name + ".idx"), "w") as f:
                for offset, sz, key, pt in rows:
                    f.write(f"{offset} {sz} {key} {pt}\n")
            keys = sum(r[2] for r in rows)
            print(f"{name}: {len(rows)} frames, {keys} key, {os.path.getsize(os.path.join(HERE, name + '.' + ext))} bytes")


if __name__ == "__main__":
    main()
