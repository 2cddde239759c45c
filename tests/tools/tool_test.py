#!/usr/bin/env python3
"""Tests of the tarn tool against the corpus and independent tools.

Usage: tool_test.py CASE --tarn PATH --corpus DIR --samples DIR --work DIR
Exit status: 0 passed, 1 failed, 77 skipped (a needed tool or folder is absent).
"""
import argparse
import json
import os
import re
import shutil
import subprocess
import sys

SKIP = 77
failures = []


def check(condition, message):
    if not condition:
        failures.append(message)
        print("FAIL: " + message)
    return condition


def run(cmd, **kw):
    return subprocess.run(cmd, capture_output=True, **kw)


def which(*names):
    for n in names:
        p = shutil.which(n)
        if p:
            return p
    return None


def corpus_files(corpus):
    out = {}
    for root, _, files in os.walk(corpus):
        for f in files:
            if f.endswith((".heic", ".heif", ".hif")):
                out[f] = os.path.join(root, f)
    return out


def case_usage(a):
    tarn = a.tarn
    table = [
        # (arguments, expected exit status, text expected on stderr)
        ([], 2, "usage"),
        (["frobnicate"], 2, "unknown command"),
        (["info"], 2, "no FILE"),
        (["info", "--bogus", "x"], 2, "unknown option '--bogus'"),
        (["extract", "x.heic"], 2, "-o OUT"),
        (["extract", "x.heic", "--tile", "two", "-o", "o"], 2, "--tile needs a tile number"),
        (["mux", "-o", "o.heic"], 2, "either --image or --grid"),
        (["mux", "-o", "o.heic", "--grid", "2y2"], 2, "ROWSxCOLUMNS"),
        (["mux", "-o", "o.heic", "--image", "a.hevc", "--rotate", "45"], 2, "--rotate takes"),
        (["boxes"], 2, "expected one FILE"),
        (["info", os.path.join(a.work, "missing.heic")], 1, "missing.heic: cannot open"),
        (["exif", os.path.join(a.work, "missing.heic"), "-o", "-"], 1, "missing.heic"),
        (["info", a.work], 1, ""),  # a folder is not a file
        (["info", os.path.join(a.work, "text.heic")], 1, "text.heic: not a readable HEIF file"),
        (["mux", "-o", os.path.join(a.work, "o.heic"), "--image", os.path.join(a.work, "text.heic")], 1,
         "no start code"),
    ]
    os.makedirs(a.work, exist_ok=True)
    with open(os.path.join(a.work, "text.heic"), "w") as f:
        f.write("this is not a HEIF file\n" * 10)
    for args, status, text in table:
        r = run([tarn] + args)
        err = r.stderr.decode(errors="replace")
        check(r.returncode == status, f"tarn {' '.join(args)}: exit {r.returncode}, expected {status}: {err}")
        check(text in err or text in r.stdout.decode(errors="replace"),
              f"tarn {' '.join(args)}: stderr lacks {text!r}: {err}")
    for sub in ["info", "extract", "exif", "xmp", "mux", "boxes"]:
        r = run([tarn, sub, "--help"])
        check(r.returncode == 0 and b"usage: tarn " + sub.encode() in r.stdout, f"tarn {sub} --help")
    r = run([tarn, "--version"])
    check(r.returncode == 0 and r.stdout.startswith(b"tarn "), "tarn --version")
    # Several files: the bad one is reported, the good one still described.
    sample = os.path.join(a.work, "text.heic")
    r = run([tarn, "info", "--json", sample, sample])
    check(r.returncode == 1 and r.stdout.count(b'"ok":false') == 2, "info on two bad files")
    return 0


def heif_info_images(path):
    """Images that heif-info reports: {id: (w, h, primary, alpha, depth)}."""
    tool = which("heif-info")
    if not tool:
        return None
    r = run([tool, path])
    if r.returncode != 0:
        return None
    images = {}
    current = None
    for line in r.stdout.decode(errors="replace").splitlines():
        m = re.match(r"image: (\d+)x(\d+) \(id=(\d+)\)(, primary)?", line)
        if m:
            current = int(m.group(3))
            images[current] = {"w": int(m.group(1)), "h": int(m.group(2)), "primary": bool(m.group(4))}
        elif current is not None and "alpha channel:" in line:
            images[current]["alpha"] = "yes" in line
        elif current is not None and "depth channel:" in line:
            images[current]["depth"] = "yes" in line
    return images


def case_info(a):
    facts_path = os.path.join(a.corpus, "facts.json")
    if not os.path.exists(facts_path):
        print(f"corpus not found at {a.corpus}: skipped")
        return SKIP
    facts = json.load(open(facts_path))
    files = corpus_files(a.corpus)
    checked = 0
    for fact in facts:
        path = files.get(fact["file"])
        if path is None or not fact.get("items"):
            continue
        r = run([a.tarn, "info", "--json", path])
        line = r.stdout.decode(errors="replace").strip().splitlines()
        if r.returncode != 0:
            # Files the library refuses by design are covered by its own tests.
            check(line and '"ok":false' in line[0], f"{fact['file']}: failed without a JSON error record")
            continue
        info = json.loads(line[0])
        checked += 1
        name = fact["file"]
        check(info["major_brand"] == fact["major_brand"], f"{name}: major brand {info['major_brand']}")
        images = {img["id"]: img for img in info["images"]}
        by_id = {it["id"]: it for it in fact["items"]}
        primary_type = by_id.get(fact.get("primary"), {}).get("type")
        if primary_type in ("hvc1", "grid"):
            check(info["primary"] == fact["primary"], f"{name}: primary {info['primary']} != {fact['primary']}")
        for it in fact["items"]:
            img = images.get(it["id"])
            if it["type"] in ("hvc1", "jpeg", "grid") and img is not None:
                if "width" in it:
                    check((img["width"], img["height"]) == (it["width"], it["height"]),
                          f"{name}: item {it['id']} size {img['width']}x{img['height']}")
                if "grid" in it and img.get("grid") and "rows" in img["grid"]:
                    g = it["grid"]
                    got = img["grid"]
                    check((got["rows"], got["columns"], got["output_width"], got["output_height"]) ==
                          (g["rows"], g["columns"], g["output_width"], g["output_height"]),
                          f"{name}: grid {it['id']} layout {got}")
                    dimg = [r["to"] for r in it.get("refs", []) if r["type"] == "dimg"]
                    if dimg:
                        check(got["tiles"] == dimg[0], f"{name}: grid {it['id']} tiles")
            for ref in it.get("refs", []):
                if ref["type"] == "thmb" and img is not None:
                    check("thumbnail" in img["roles"] and img["of"] == ref["to"][0],
                          f"{name}: item {it['id']} should be a thumbnail of {ref['to'][0]}")
                if ref["type"] == "auxl" and img is not None and it.get("auxC") == "urn:mpeg:hevc:2015:auxid:1":
                    check("alpha" in img["roles"], f"{name}: item {it['id']} should be alpha")
        # heif-info, where both report a value.
        peer = heif_info_images(path)
        if peer:
            for pid, p in peer.items():
                img = images.get(pid)
                if img is None or img["type"] not in ("hvc1", "grid"):
                    continue
                if img["rotation"] == 0 and img["crop"] is None:
                    check((img["width"], img["height"]) == (p["w"], p["h"]),
                          f"{name}: item {pid} size differs from heif-info ({p['w']}x{p['h']})")
                if p["primary"] and primary_type in ("hvc1", "grid"):
                    check(info["primary"] == pid, f"{name}: heif-info says primary is {pid}")
                alpha_ids = [i["id"] for i in info["images"] if "alpha" in i["roles"] and i["of"] == pid]
                if p.get("alpha") is not None:
                    check(bool(alpha_ids) == p["alpha"], f"{name}: item {pid} alpha {bool(alpha_ids)} vs heif-info")
    print(f"{checked} corpus files described and compared")
    check(checked >= 20, f"only {checked} corpus files were described")
    return 0


def dec265():
    return which("dec265", "libde265-dec265")


def decoded_size(decoder, stream, out):
    r = run([decoder, "-q", stream, "-o", out])
    if r.returncode != 0:
        return None
    m = re.search(rb"\((\d+)x(\d+)", r.stdout + r.stderr)
    return (int(m.group(1)), int(m.group(2))) if m else None


def case_extract(a):
    decoder = dec265()
    if not decoder:
        print("dec265 not installed (Debian libde265-examples): skipped")
        return SKIP
    files = corpus_files(a.corpus)
    if not files:
        print(f"corpus not found at {a.corpus}: skipped")
        return SKIP
    os.makedirs(a.work, exist_ok=True)
    # (file, extract options, expected decoded size of each output)
    table = [
        ("iphone8plus_grid_thumb_exif.heic", ["--tile", "0"], (512, 512)),
        ("iphone8plus_grid_thumb_exif.heic", ["--thumbnail"], None),
        ("autumn_1440x960.heic", [], (1440, 960)),
        ("alpha_1440x960.heic", ["--item", "1008"], (1440, 960)),
        ("RGB_10__128x128.heif", [], (128, 128)),
        ("grid_960x640.heic", ["--all-tiles"], None),
    ]
    for name, opts, size in table:
        path = files.get(name)
        if path is None:
            continue
        out = os.path.join(a.work, name + ".hevc")
        r = run([a.tarn, "extract", path] + opts + ["-o", out])
        if not check(r.returncode == 0, f"extract {name} {opts}: {r.stderr.decode(errors='replace')}"):
            continue
        outputs = [out] if os.path.exists(out) else sorted(
            os.path.join(a.work, f) for f in os.listdir(a.work) if f.startswith(name + ".") and f.endswith(".hevc"))
        check(outputs, f"extract {name} {opts}: no output")
        for o in outputs:
            got = decoded_size(decoder, o, o + ".yuv")
            check(got is not None, f"dec265 cannot decode {o}")
            if size is not None and got is not None:
                check(got == size, f"{o}: decoded {got}, expected {size}")
    return 0


def exiftool_tags(path):
    r = run(["exiftool", "-s", "-s", "-s", "-Make", "-Model", "-Orientation", "-n", path])
    return r.stdout.decode(errors="replace").split("\n")[:3] if r.returncode == 0 else None


def case_exif(a):
    if not which("exiftool"):
        print("exiftool not installed (Debian libimage-exiftool-perl): skipped")
        return SKIP
    files = corpus_files(a.corpus)
    if not files:
        print(f"corpus not found at {a.corpus}: skipped")
        return SKIP
    os.makedirs(a.work, exist_ok=True)
    compared = 0
    for name in ["iphone8plus_grid_thumb_exif.heic", "sony_mono_exif_xmp.heic", "iphonexs_multi_grid_empty_icc.heic"]:
        path = files.get(name)
        if path is None:
            continue
        out = os.path.join(a.work, name + ".tiff")
        r = run([a.tarn, "exif", path, "-o", out])
        if r.returncode != 0:
            check("iphonexs" in name, f"exif {name}: {r.stderr.decode(errors='replace')}")
            continue
        original, extracted = exiftool_tags(path), exiftool_tags(out)
        check(original == extracted and original and original[0], f"{name}: exiftool reads {extracted}, original {original}")
        compared += 1
    check(compared >= 2, "fewer than two files compared")
    return 0


def case_mux(a):
    needed = {"heif-convert": which("heif-convert"), "ffmpeg": which("ffmpeg")}
    missing = [k for k, v in needed.items() if not v]
    if missing:
        print(f"{', '.join(missing)} not installed: skipped")
        return SKIP
    os.makedirs(a.work, exist_ok=True)
    s = a.samples
    out = os.path.join(a.work, "demo.heic")
    tiles = [os.path.join(s, f"tile_{i}.hevc") for i in range(4)]
    r = run([a.tarn, "mux", "-o", out, "--grid", "2x2"] + sum((["--tile", t] for t in tiles), []) +
            ["--thumbnail", os.path.join(s, "thumbnail.hevc"), "--alpha", os.path.join(s, "alpha.hevc"),
             "--exif", os.path.join(s, "exif.bin")])
    if not check(r.returncode == 0, f"mux: {r.stderr.decode(errors='replace')}"):
        return 0
    info = json.loads(run([a.tarn, "info", "--json", out]).stdout)
    roles = {tuple(i["roles"]) for i in info["images"]}
    check(("primary",) in roles and ("thumbnail",) in roles and ("alpha",) in roles, f"muxed roles {roles}")
    png = os.path.join(a.work, "demo.png")
    r = run([needed["heif-convert"], out, png])
    if not check(r.returncode == 0 and os.path.exists(png), f"heif-convert: {r.stderr.decode(errors='replace')}"):
        return 0
    source = os.path.join(a.work, "source.png")
    run([needed["ffmpeg"], "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=1024x1024:rate=1",
         "-frames:v", "1", source])
    # Compare the colour planes only: heif-convert writes the alpha plane too.
    r = run([needed["ffmpeg"], "-v", "info", "-i", png, "-i", source, "-lavfi",
             "[0:v]format=rgb24[a];[1:v]format=rgb24[b];[a][b]psnr", "-f", "null", "-"])
    m = re.search(rb"PSNR .* average:([0-9.inf]+)", r.stderr)
    check(m is not None, "ffmpeg psnr gave no figure")
    if m:
        psnr = float(m.group(1))
        print(f"PSNR of the decoded demo against the source: {psnr:.2f} dB")
        check(psnr >= 35.0, f"PSNR {psnr:.2f} dB below 35")
    exif_out = os.path.join(a.work, "demo.tiff")
    r = run([a.tarn, "exif", out, "-o", exif_out])
    if check(r.returncode == 0, "exif of the muxed file") and which("exiftool"):
        tags = exiftool_tags(exif_out)
        check(tags and tags[0] == "libtarn" and tags[1] == "tarn sample camera", f"exiftool on muxed Exif: {tags}")
    return 0


def dask_python():
    """An interpreter that imports Dask distributed: this one, or Debian's."""
    for python in (sys.executable, "/usr/bin/python3"):
        if python and os.path.exists(python) and \
                run([python, "-c", "import dask.bag, distributed"]).returncode == 0:
            return python
    return None


def case_scan(a):
    """examples/scan_archive.py on two local workers prints exactly the lines
    of one `tarn info --json` over the same files."""
    if not a.corpus:
        print("corpus not found: skipped")
        return SKIP
    python = dask_python()
    if python is None:
        print("Dask distributed not importable (Debian python3-dask python3-distributed): skipped")
        return SKIP
    script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples",
                          "scan_archive.py")
    paths = sorted(os.path.join(root, f) for root, _, files in os.walk(a.corpus) for f in files)
    single = run([a.tarn, "info", "--json", "--"] + paths)
    # Small batches, so that both workers get several.
    scan = run([python, script, a.corpus, "--workers", "2", "--batch-size", "8", "--tarn", a.tarn],
               timeout=300)
    check(scan.returncode == single.returncode,
          f"scan exit status {scan.returncode}, tarn info {single.returncode}: "
          f"{scan.stderr.decode(errors='replace')[-2000:]}")
    want = sorted(single.stdout.decode().splitlines())
    got = sorted(scan.stdout.decode().splitlines())
    check(len(want) == len(paths), f"tarn info printed {len(want)} lines for {len(paths)} files")
    check(got == want, f"scan printed {len(got)} lines, {len(set(got) ^ set(want))} differ from tarn info")
    return 0


def main():
    p = argparse.ArgumentParser()
    p.add_argument("case")
    p.add_argument("--tarn", required=True)
    p.add_argument("--corpus", required=True)
    p.add_argument("--samples", required=True)
    p.add_argument("--work", required=True)
    a = p.parse_args()
    a.corpus = os.environ.get("TARN_CORPUS_DIR") or a.corpus
    if not os.path.isdir(a.corpus):
        a.corpus = ""
    shutil.rmtree(a.work, ignore_errors=True)
    os.makedirs(a.work)
    status = globals()["case_" + a.case](a)
    if status == SKIP:
        return SKIP
    print(f"{a.case}: {'FAILED' if failures else 'passed'} ({len(failures)} failures)")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
