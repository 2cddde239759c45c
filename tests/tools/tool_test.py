#!/usr/bin/env python3
"""Tests of the tarn tool against the corpus and independent tools.

Usage: tool_test.py CASE --tarn PATH --corpus DIR --samples DIR --work DIR
Exit status: 0 passed, 1 failed, 77 skipped (a needed tool or folder is absent).
"""
import argparse
import concurrent.futures
import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import threading

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
        strict = run([a.tarn, "info", "--json", "--strict", path])
        # Tolerant reading opens everything strict reading opens, and every
        # file a peer reader opens.
        check(strict.returncode != 0 or r.returncode == 0, f"{fact['file']}: strict opens it, tolerant does not")
        if r.returncode != 0:
            check(line and '"ok":false' in line[0], f"{fact['file']}: failed without a JSON error record")
            check(not heif_info_images(path), f"{fact['file']}: heif-info opens it, tolerant does not")
            continue
        info = json.loads(line[0])
        checked += 1
        name = fact["file"]
        check(info["major_brand"] == fact["major_brand"], f"{name}: major brand {info['major_brand']}")
        images = {img["id"]: img for img in info["images"]}
        by_id = {it["id"]: it for it in fact["items"]}
        primary_type = by_id.get(fact.get("primary"), {}).get("type")
        if primary_type in ("hvc1", "grid", "iovl", "jpeg"):
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


def conformance_errors(a, path):
    """The '] Error' lines the HEIF/MIAF conformance checker prints for a
    file, or None without the checker (said once)."""
    if not a.cw:
        if not getattr(a, "cw_missing_said", False):
            print("conformance checker not built (../shared/tools/cw absent): conformance not checked")
            a.cw_missing_said = True
        return None
    r = run([a.cw, "-s", "miaf", path])
    return [l for l in r.stdout.decode(errors="replace").splitlines() if "] Error" in l]


def check_conforms(a, path, allowed=0):
    """Every '] Error' line beyond the allowed number is a failure."""
    errors = conformance_errors(a, path)
    if errors is not None:
        check(len(errors) <= allowed, f"{os.path.basename(path)} is not conformant: {errors}")


def ftyp_brands(path):
    """(major brand, [compatible brands]) of a file's leading ftyp box."""
    with open(path, "rb") as f:
        head = f.read(64)
    size = int.from_bytes(head[:4], "big")
    brands = [head[i:i + 4].decode("latin-1") for i in range(16, min(size, len(head)), 4)]
    return head[8:12].decode("latin-1"), brands


def case_mux(a):
    os.makedirs(a.work, exist_ok=True)
    s = a.samples
    tiles = sum((["--tile", os.path.join(s, f"tile_{i}.hevc")] for i in range(4)), [])
    thumb = os.path.join(s, "thumbnail.hevc")
    xmp = os.path.join(a.work, "packet.xmp")
    with open(xmp, "w") as f:
        f.write('<?xpacket begin="" id="W5M0MpCehiHzreSzNTczkc9d"?><x:xmpmeta xmlns:x="adobe:ns:meta/"/>'
                '<?xpacket end="w"?>')
    basic = ["mif1", "miaf", "heic", "MiHB"]
    table = [
        # (output, arguments, roles of the images, compatible brands): the
        # monochrome alpha plane is outside the MIAF HEVC basic profile.
        ("demo.heic", ["--grid", "2x2"] + tiles + ["--thumbnail", thumb, "--alpha", os.path.join(s, "alpha.hevc"),
                                                   "--exif", os.path.join(s, "exif.bin")],
         {("primary",), ("thumbnail",), ("alpha",)}, ["mif1", "miaf", "heic"]),
        ("single.heic", ["--image", os.path.join(s, "tile_0.hevc"), "--rotate", "90", "--xmp", xmp],
         {("primary",)}, basic),
        ("cropped.heic", ["--grid", "1x2"] + tiles[:4] + ["--size", "1000x500", "--depth", thumb, "--rotate", "270"],
         {("primary",), ("depth",)}, basic),
    ]
    for name, args, roles, brands in table:
        out = os.path.join(a.work, name)
        r = run([a.tarn, "mux", "-o", out] + args)
        if not check(r.returncode == 0, f"mux {name}: {r.stderr.decode(errors='replace')}"):
            continue
        info = json.loads(run([a.tarn, "info", "--json", out]).stdout)
        got = {tuple(i["roles"]) for i in info["images"] if i["roles"]}
        check(roles <= got, f"{name}: roles {got}, expected {roles}")
        check(ftyp_brands(out) == ("heic", brands), f"{name}: brands {ftyp_brands(out)}")
        check_conforms(a, out)
    needed = {"heif-convert": which("heif-convert"), "ffmpeg": which("ffmpeg")}
    missing = [k for k, v in needed.items() if not v]
    if missing:
        print(f"{', '.join(missing)} not installed: decoding not compared")
        return 0
    out = os.path.join(a.work, "demo.heic")
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


def case_boxes(a):
    files = corpus_files(a.corpus)
    good = files.get("autumn_1440x960.heic")
    if good is None or "truncated.heic" not in files:
        print(f"corpus not found at {a.corpus}: skipped")
        return SKIP
    data = open(good, "rb").read()
    meta_end = 24 + int.from_bytes(data[24:28], "big")
    cuts = {"cut_header.heic": data[:28], "cut_ipco.heic": data[:300]}
    for name, content in cuts.items():
        with open(os.path.join(a.work, name), "wb") as f:
            f.write(content)
    table = [
        # (file, exit status, text on stdout, text on stderr)
        (files["empty.heic"], 1, "", "offset 0: the file is empty"),
        (files["truncated.heic"], 1, "607  mdat       3051  (cut short: 3050 bytes present)",
         "offset 607: mdat declares 3051 bytes, only 3050 remain in the file"),
        (files["corrupted.heic"], 1, "0  ftyp         36", "offset 36: .... declares 7627008 bytes, only 4749"),
        (files["invalid_id.heic"], 0, "661  dimg         14", ""),
        ("cut_header.heic", 1, "24  (4 bytes, too few", "offset 24: a box header needs 8 bytes, only 4 remain"),
        ("cut_ipco.heic", 1, "223  thmb", "offset 253: hvcC declares 108 bytes, only 47 remain in ipco at 245"),
    ]
    for path, status, out, err in table:
        r = run([a.tarn, "boxes", os.path.join(a.work, path)])
        text, errors = r.stdout.decode(errors="replace"), r.stderr.decode(errors="replace")
        check(r.returncode == status and out in text and err in errors,
              f"boxes {os.path.basename(path)}: exit {r.returncode}\n{text}{errors}")
    # A cut through the header boxes (at every byte of the first ones) lists
    # what it can and fails cleanly; only a cut between top-level boxes
    # leaves a well-formed file.
    cut = os.path.join(a.work, "cut.heic")
    for length in sorted(set(range(64)) | set(range(64, meta_end + 9, 5)) | {meta_end}):
        with open(cut, "wb") as f:
            f.write(data[:length])
        r = run([a.tarn, "boxes", cut])
        expected = 0 if length in (24, meta_end) else 1
        check(r.returncode == expected and (expected == 0 or r.stderr.startswith(b"tarn: boxes: ")),
              f"boxes on the first {length} bytes: exit {r.returncode}: {r.stderr[-200:]}")
    return 0


# Files the edit must refuse without the options that allow it, with a word
# of the message; each may also fail to open before the tolerant reader is in.
EDIT_REFUSALS = {
    "overlay_1000x680.heic": "overlay",
    "sony_grid_jpeg_thumb.hif": "JPEG",
    "sony_mono_exif_xmp.heic": "iptc",
    "bird_burst.heic": "moov",
    "alpha_1440x960.heic": "overlay",
    "stereo_1200x800.heic": "stereo",
    "L_8__29x100.heif": "clean aperture",
    "L_10__29x100.heif": "clean aperture",
    "L_12__29x100.heif": "clean aperture",
    "RGB_8_chroma444.heif": "clean aperture",
    "invalid_id.heic": "thumbnail",
}


def edit_signature(tarn, path):
    """What an edit must keep of a file's images, without ids."""
    info = json.loads(run([tarn, "info", "--json", path]).stdout)
    keys = ("type", "roles", "width", "height", "rotation", "colour", "exif_size", "xmp_size")
    images = []
    for i in info["images"]:
        if i["type"] == "grid" or i["colour"] == {"type": "icc", "icc_size": 0}:
            # A grid takes its tiles' colour when it has none of its own; an
            # empty profile is left out.
            i["colour"] = None
        grid = i["grid"] and {k: v for k, v in i["grid"].items() if k != "tiles"}
        images.append(json.dumps([i[k] for k in keys] + [grid, len(i["inputs"])], sort_keys=True))
    return sorted(images), info


def edit_streams(tarn, path, info, work):
    """Digests of every image's extracted stream (each tile of a grid)."""
    digests = []
    for n, image in enumerate(i for i in info["images"] if i["type"] in ("hvc1", "grid")):
        out = os.path.join(work, f"s{n}.hevc")
        run([tarn, "extract", path, "--item", str(image["id"]), "-o", out])
        for f in sorted(os.listdir(work)):
            if f.startswith(f"s{n}.") and f.endswith(".hevc"):
                digests.append(hashlib.sha256(open(os.path.join(work, f), "rb").read()).hexdigest())
                os.remove(os.path.join(work, f))
    return sorted(digests)


def decoded_pngs(convert, path, work):
    for f in os.listdir(work):
        if f.endswith(".png"):
            os.remove(os.path.join(work, f))
    run([convert, "--quiet", path, os.path.join(work, "d.png")])
    return sorted(hashlib.sha256(open(os.path.join(work, f), "rb").read()).hexdigest()
                  for f in os.listdir(work) if f.endswith(".png"))


def case_edit(a):
    files = corpus_files(a.corpus)
    if not files:
        print(f"corpus not found at {a.corpus}: skipped")
        return SKIP
    convert = which("heif-convert")
    if not convert:
        print("heif-convert not installed (Debian libheif-examples): pixels not compared")
    work, out = a.work, os.path.join(a.work, "out.heic")
    # Round trips: an edit without options keeps images, metadata sizes,
    # coded streams and decoded pixels. Files go through a pool, each with a
    # folder of its own: the checker and the decoder are separate processes.
    pixel_kinds, pixel_lock = set(), threading.Lock()

    def round_trip(item):
        n, (name, path) = item
        own = os.path.join(work, f"rt{n}")
        os.makedirs(own)
        result = os.path.join(own, "out.heic")
        before = hashlib.sha256(open(path, "rb").read()).hexdigest()
        r = run([a.tarn, "edit", path, "-o", result])
        check(hashlib.sha256(open(path, "rb").read()).hexdigest() == before, f"edit {name} changed its input")
        message = r.stderr.decode(errors="replace")
        if r.returncode != 0:
            check(not os.path.exists(result), f"refused edit of {name} left {result}")
            if "not a readable HEIF file" in message:
                print(f"{name}: does not open yet, skipped")
            else:
                check(name in EDIT_REFUSALS or "/broken/" in path or "moov" in message or "entity group" in message,
                      f"edit {name} refused: {message}")
                check(EDIT_REFUSALS.get(name, "") in message, f"edit {name}: message '{message}'")
            return 0, 0
        check(name not in EDIT_REFUSALS, f"edit {name} was not refused")
        # An edit may not make a file less conformant than it was.
        # The original is only checked when the edit has errors at all.
        errors = conformance_errors(a, result)
        if errors:
            check(len(errors) <= len(conformance_errors(a, path)), f"{name}: edit adds checker errors: {errors}")
        (sig_in, info_in), (sig_out, info_out) = edit_signature(a.tarn, path), edit_signature(a.tarn, result)
        # Grid tiles that were also shown on their own come back hidden only.
        if name != "grid_960x640.heic":
            check(sig_in == sig_out, f"{name}: images differ after edit:\n{sig_in}\n{sig_out}")
        check(info_out["compatible_brands"] == ["mif1", "miaf", "heic"], f"{name}: brands {info_out['compatible_brands']}")
        check(edit_streams(a.tarn, path, info_in, own) == edit_streams(a.tarn, result, info_out, own),
              f"{name}: extracted streams differ")
        # Identical streams decode identically; what the container adds
        # (grid layout, rotation, auxiliaries, colour) is decoded once for
        # each combination of those that the corpus has.
        kind = json.dumps(sorted({json.dumps([i["type"], i["roles"], i["rotation"], bool(i["grid"]),
                                              (i["colour"] or {}).get("type")]) for i in info_in["images"]}))
        with pixel_lock:
            first_of_kind = kind not in pixel_kinds
            pixel_kinds.add(kind)
        same = 0
        if convert and first_of_kind:
            pix_in, pix_out = decoded_pngs(convert, path, own), decoded_pngs(convert, result, own)
            same = check(pix_out and set(pix_out) <= set(pix_in), f"{name}: decoded pixels differ")
        shutil.rmtree(own)
        return 1, int(bool(same))

    with concurrent.futures.ThreadPoolExecutor(max_workers=os.cpu_count() or 2) as pool:
        done = list(pool.map(round_trip, enumerate(sorted(files.items()))))
    round_trips, same_pixels = sum(d[0] for d in done), sum(d[1] for d in done)
    print(f"{round_trips} corpus files round-trip, {same_pixels} of them decoded and pixel-identical")
    check(round_trips >= 30, "fewer than 30 corpus files round-trip")

    # Options: (arguments, file, check of the output)
    iphone = files.get("iphone8plus_grid_thumb_exif.heic")
    sony = files.get("sony_mono_exif_xmp.heic")
    if not iphone or not sony:
        return 0
    exif, xmp = os.path.join(work, "gps.exif"), os.path.join(work, "new.xmp")
    run([a.tarn, "exif", iphone, "-o", exif])
    open(xmp, "wb").write(b"<x:xmpmeta xmlns:x='adobe:ns:meta/'/>")
    with_gps = os.path.join(work, "gps.heic")
    if which("exiftool"):
        run(["exiftool", "-q", "-overwrite_original", "-GPSLatitude=48.137", "-GPSLatitudeRef=N",
             "-GPSLongitude=11.575", "-GPSLongitudeRef=E", exif])
    run([a.tarn, "edit", iphone, "-o", with_gps, "--exif", exif])

    def meta(path, kind):
        r = run([a.tarn, kind, path, "-o", "-"])
        return r.stdout if r.returncode == 0 else None

    def tags(path):
        r = run(["exiftool", "-s", "-s", "-s", "-G1", "-Make", "-Model", "-DateTimeOriginal", "-Orientation", "-GPS:all", path])
        return r.stdout.decode().splitlines()

    def primary(path):
        return json.loads(run([a.tarn, "info", "--json", path]).stdout)["images"][0]

    table = [
        (["--strip-exif"], iphone, lambda o: meta(o, "exif") in (None, b"")),
        (["--strip-xmp"], sony, lambda o: meta(o, "xmp") in (None, b"") and meta(o, "exif")),
        (["--exif", exif], iphone, lambda o: meta(o, "exif") == open(exif, "rb").read()),
        (["--xmp", xmp], sony, lambda o: meta(o, "xmp") == open(xmp, "rb").read()),
        (["--drop-thumbnails"], iphone, lambda o: [i["roles"] for i in json.loads(run(
            [a.tarn, "info", "--json", o]).stdout)["images"]] == [["primary"]]),
        (["--rotate", "180"], iphone, lambda o: primary(o)["rotation"] == 180),
        (["--strip-gps"], iphone, lambda o: meta(o, "exif") == meta(iphone, "exif")),  # no GPS: Exif unchanged
    ]
    if which("exiftool"):
        table.append((["--strip-gps"], with_gps, lambda o: tags(o) == [t for t in tags(with_gps) if not t.startswith("GPS ")]
                      and any(t.startswith("GPS ") for t in tags(with_gps))))
    small_grid = files.get("iphonexs_multi_grid_empty_icc.heic")
    if convert and which("convert") and small_grid:
        def turned(o):
            # The file shows two images; heif-convert numbers its PNGs then,
            # and the first is the primary.
            run([a.tarn, "edit", small_grid, "-o", out + "0.heic", "--rotate", "0"])
            ref, got = (os.path.join(work, n) for n in ("ref.png", "got.png"))
            run([convert, "--quiet", out + "0.heic", ref])
            run([convert, "--quiet", o, got])
            ref, got = (p if os.path.exists(p) else p[:-4] + "-1.png" for p in (ref, got))
            run(["convert", ref, "-rotate", "90", ref])
            r = run(["compare", "-metric", "AE", ref, got, "null:"])
            return r.stderr.strip() == b"0"
        table.append((["--rotate", "90"], small_grid, turned))
    for args, path, ok in table:
        r = run([a.tarn, "edit", path, "-o", out] + args + ["--drop-unsupported"])
        if check(r.returncode == 0, f"edit {args}: {r.stderr.decode(errors='replace')}"):
            check(ok(out), f"edit {args} on {os.path.basename(path)}: output is not as asked")
            check_conforms(a, out)

    # Refusals and bad command lines: exit status, message, no output.
    os.remove(out)
    bad = [
        ([iphone, "-o", iphone], 2, "OUT is the input"),
        ([iphone, "-o", out, "--rotate", "45"], 2, "--rotate takes"),
        ([iphone, "-o", out, "--strip-exif", "--exif", exif], 2, "contradict"),
        ([os.path.join(work, "absent.heic"), "-o", out], 1, "No such file"),
        ([sony, "-o", out], 1, "--drop-unsupported"),
        ([iphone, "-o", out, "--xmp", os.path.join(work, "absent.xmp")], 1, "absent.xmp"),
    ]
    for args, status, text in bad:
        r = run([a.tarn, "edit"] + args)
        message = r.stderr.decode(errors="replace")
        check(r.returncode == status and text in message, f"edit {args}: status {r.returncode}, '{message}'")
        check(not os.path.exists(out), f"edit {args} left {out}")
    check(not [f for f in os.listdir(work) if ".tarn-" in f], "a temporary file was left behind")
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
    p.add_argument("--cw", help="the conformance checker's binary (cw.exe), when built")
    a = p.parse_args()
    a.corpus = os.environ.get("TARN_CORPUS_DIR") or a.corpus
    if a.cw and not os.path.exists(a.cw):
        a.cw = None
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
