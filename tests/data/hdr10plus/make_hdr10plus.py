#!/usr/bin/env python3
"""Builds HEVC streams that carry HDR10+ (ST 2094-40) metadata.

For every *.json here: serialises the metadata it describes into an ITU-T T.35
payload, wraps it in a prefix SEI NAL unit (user_data_registered_itu_t_t35,
with emulation-prevention bytes), inserts that unit into the first access
unit of base.hevc (a real x265 stream) just before the first slice, and
writes <name>.hevc and <name>.expect (the JSON flattened to "field value"
lines, the field names of omni_sei_t35). Then ffprobe, an independent
decoder, must report exactly the JSON's values for the first frame.

  python3 make_hdr10plus.py          # regenerate and check
  python3 make_hdr10plus.py --check  # only check the committed streams

base.hevc comes from: ffmpeg -f lavfi -i testsrc2=size=64x64:rate=25
-frames:v 2 -pix_fmt yuv420p base.y4m; x265 --input base.y4m --preset
ultrafast --keyint 1 --no-info --output base.hevc (made when absent).
"""
import json
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))


class Bits:
    def __init__(self):
        self.bits = []

    def put(self, value, width, name=""):
        if value < 0 or value >= 1 << width:
            raise ValueError(f"{name}={value} does not fit in {width} bits")
        for i in range(width - 1, -1, -1):
            self.bits.append((value >> i) & 1)

    def bytes(self):
        bits = self.bits + [0] * (-len(self.bits) % 8)
        return bytes(int("".join(map(str, bits[i:i + 8])), 2) for i in range(0, len(bits), 8))


def windows_of(meta):
    wins = meta["windows"]
    if len(wins) != meta["num_windows"]:
        raise ValueError("num_windows does not match the window list")
    return wins


def t35_payload(meta):
    b = Bits()
    b.put(0xB5, 8)      # itu_t_t35_country_code: United States
    b.put(0x003C, 16)   # terminal provider: SMPTE
    b.put(0x0001, 16)   # provider oriented code
    b.put(4, 8)         # application_identifier
    b.put(meta["application_version"], 8)
    b.put(meta["num_windows"], 2)
    wins = windows_of(meta)
    for w in wins[1:]:
        for key in ("window_upper_left_corner_x", "window_upper_left_corner_y",
                    "window_lower_right_corner_x", "window_lower_right_corner_y",
                    "center_of_ellipse_x", "center_of_ellipse_y"):
            b.put(w[key], 16, key)
        b.put(w["rotation_angle"], 8)
        for key in ("semimajor_axis_internal_ellipse", "semimajor_axis_external_ellipse",
                    "semiminor_axis_external_ellipse"):
            b.put(w[key], 16, key)
        b.put(w["overlap_process_option"], 1)
    b.put(meta["targeted_system_display_maximum_luminance"], 27)
    put_matrix(b, meta.get("targeted_system_display_actual_peak_luminance"))
    for w in wins:
        for v in w["maxscl"]:
            b.put(v, 17, "maxscl")
        b.put(w["average_maxrgb"], 17)
        pct, val = w["distribution_maxrgb_percentages"], w["distribution_maxrgb_percentiles"]
        if len(pct) != len(val):
            raise ValueError("percentages and percentiles differ in length")
        b.put(len(pct), 4)
        for p, v in zip(pct, val):
            b.put(p, 7)
            b.put(v, 17)
        b.put(w["fraction_bright_pixels"], 10)
    put_matrix(b, meta.get("mastering_display_actual_peak_luminance"))
    for w in wins:
        b.put(w["tone_mapping_flag"], 1)
        if w["tone_mapping_flag"]:
            b.put(w["knee_point_x"], 12)
            b.put(w["knee_point_y"], 12)
            b.put(len(w["bezier_curve_anchors"]), 4)
            for a in w["bezier_curve_anchors"]:
                b.put(a, 10)
        b.put(w["color_saturation_mapping_flag"], 1)
        if w["color_saturation_mapping_flag"]:
            b.put(w["color_saturation_weight"], 6)
    return b.bytes()


def put_matrix(b, rows):
    b.put(1 if rows else 0, 1)
    if rows:
        b.put(len(rows), 5)
        b.put(len(rows[0]), 5)
        for row in rows:
            for v in row:
                b.put(v, 4)


def escape(rbsp):
    out, zeros = bytearray(), 0
    for byte in rbsp:
        if zeros >= 2 and byte <= 3:
            out.append(3)
            zeros = 0
        out.append(byte)
        zeros = zeros + 1 if byte == 0 else 0
    return bytes(out)


def sei_nal(payload):
    body = bytearray([4])  # payload_type: user_data_registered_itu_t_t35
    size = len(payload)
    while size >= 255:
        body.append(0xFF)
        size -= 255
    body.append(size)
    body += payload
    body.append(0x80)  # rbsp_trailing_bits
    return b"\x00\x00\x00\x01" + bytes([39 << 1, 1]) + escape(bytes(body))


def insert_before_first_slice(stream, nal):
    i = 0
    while True:
        i = stream.index(b"\x00\x00\x01", i)
        nal_type = (stream[i + 3] >> 1) & 0x3F
        if nal_type < 32:  # first VCL unit
            start = i - 1 if i > 0 and stream[i - 1] == 0 else i
            return stream[:start] + nal + stream[start:]
        i += 3


def flatten(meta):
    lines = []
    for key in ("application_version", "num_windows", "targeted_system_display_maximum_luminance"):
        lines.append((key, meta[key]))
    for prefix in ("targeted_system_display_actual_peak_luminance",
                   "mastering_display_actual_peak_luminance"):
        rows = meta.get(prefix) or []
        lines.append((prefix + "_flag", 1 if rows else 0))
        lines.append(("num_rows_" + prefix, len(rows)))
        lines.append(("num_cols_" + prefix, len(rows[0]) if rows else 0))
        for r, row in enumerate(rows):
            for c, v in enumerate(row):
                lines.append((f"{prefix}[{r}][{c}]", v))
    for n, w in enumerate(windows_of(meta)):
        for key, v in w.items():
            if isinstance(v, list):
                for i, x in enumerate(v):
                    lines.append((f"{key}[{n}][{i}]", x))
            else:
                lines.append((f"{key}[{n}]", v))
        lines.append((f"num_distribution_maxrgb_percentiles[{n}]",
                      len(w["distribution_maxrgb_percentiles"])))
        if w["tone_mapping_flag"]:
            lines.append((f"num_bezier_curve_anchors[{n}]", len(w["bezier_curve_anchors"])))
    return "".join(f"{k} {v}\n" for k, v in lines)


# The lines ffprobe -show_frames prints for the metadata, in its order. It
# prints values as rationals over fixed denominators (so the integer syntax
# values compare exactly), omits the presence flags (a value's presence shows
# the flag), and repeats each extra window's upper-left corner after its
# lower-right corner.
def ffprobe_lines(meta):
    wins = windows_of(meta)
    out = [f"application version={meta['application_version']}", f"num_windows={meta['num_windows']}"]
    for w in wins[1:]:
        for key in ("window_upper_left_corner_x", "window_upper_left_corner_y",
                    "window_lower_right_corner_x", "window_lower_right_corner_y",
                    "window_upper_left_corner_x", "window_upper_left_corner_y"):
            out.append(f"{key}={w[key]}/1")
        for key in ("center_of_ellipse_x", "center_of_ellipse_y", "rotation_angle",
                    "semimajor_axis_internal_ellipse", "semimajor_axis_external_ellipse",
                    "semiminor_axis_external_ellipse", "overlap_process_option"):
            out.append(f"{key}={w[key]}")
    out.append(f"targeted_system_display_maximum_luminance="
               f"{meta['targeted_system_display_maximum_luminance']}/1")
    out += matrix_lines(meta, "targeted_system_display_actual_peak_luminance")
    for w in wins:
        out += [f"maxscl={v}/100000" for v in w["maxscl"]]
        out.append(f"average_maxrgb={w['average_maxrgb']}/100000")
        out.append(f"num_distribution_maxrgb_percentiles={len(w['distribution_maxrgb_percentiles'])}")
        for p, v in zip(w["distribution_maxrgb_percentages"], w["distribution_maxrgb_percentiles"]):
            out += [f"distribution_maxrgb_percentage={p}", f"distribution_maxrgb_percentile={v}/100000"]
        out.append(f"fraction_bright_pixels={w['fraction_bright_pixels']}/1000")
    out += matrix_lines(meta, "mastering_display_actual_peak_luminance")
    for w in wins:
        if w["tone_mapping_flag"]:
            out += [f"knee_point_x={w['knee_point_x']}/4095", f"knee_point_y={w['knee_point_y']}/4095",
                    f"num_bezier_curve_anchors={len(w['bezier_curve_anchors'])}"]
            out += [f"bezier_curve_anchors={a}/1023" for a in w["bezier_curve_anchors"]]
        if w["color_saturation_mapping_flag"]:
            out.append(f"color_saturation_weight={w['color_saturation_weight']}/8")
    return out


def matrix_lines(meta, key):
    rows = meta.get(key) or []
    if not rows:
        return []
    out = [f"num_rows_{key}={len(rows)}", f"num_cols_{key}={len(rows[0])}"]
    return out + [f"{key}={v}/15" for row in rows for v in row]


def ffprobe_side_data(path):
    text = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v:0", "-read_intervals",
                           "%+#1", "-show_frames", path],
                          check=True, capture_output=True, text=True).stdout
    block, inside = [], False
    for line in text.splitlines():
        if line == "[SIDE_DATA]":
            block, inside = [], True
        elif line == "[/SIDE_DATA]":
            inside = False
            if block and "2094-40" in block[0]:
                return block[1:]
        elif inside:
            block.append(line)
    raise AssertionError(f"{path}: ffprobe shows no HDR10+ side data")


def check_with_ffprobe(path, meta):
    got, want = ffprobe_side_data(path), ffprobe_lines(meta)
    problems = [f"line {i}: ffprobe {g!r}, JSON {w!r}"
                for i, (g, w) in enumerate(zip(got, want)) if g != w]
    if len(got) != len(want):
        problems.append(f"ffprobe printed {len(got)} lines, JSON gives {len(want)}")
    return got, problems


def main():
    check_only = "--check" in sys.argv
    base_path = os.path.join(HERE, "base.hevc")
    if not os.path.exists(base_path):
        y4m = os.path.join(HERE, "base.y4m")
        subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                        "testsrc2=size=64x64:rate=25", "-frames:v", "2", "-pix_fmt", "yuv420p",
                        y4m], check=True)
        subprocess.run(["x265", "--input", y4m, "--preset", "ultrafast", "--keyint", "1",
                        "--no-info", "--log-level", "error", "--output", base_path], check=True)
        os.remove(y4m)
    base = open(base_path, "rb").read()
    for name in sorted(f[:-5] for f in os.listdir(HERE) if f.endswith(".json")):
        meta = json.load(open(os.path.join(HERE, name + ".json")))
        out_path = os.path.join(HERE, name + ".hevc")
        if not check_only:
            nal = sei_nal(t35_payload(meta))
            open(out_path, "wb").write(insert_before_first_slice(base, nal))
            open(os.path.join(HERE, name + ".expect"), "w").write(flatten(meta))
        _, problems = check_with_ffprobe(out_path, meta)
        if problems:
            print(f"{name}: MISMATCH\n  " + "\n  ".join(problems))
            sys.exit(1)
        print(f"{name}: ffprobe agrees")


if __name__ == "__main__":
    main()
