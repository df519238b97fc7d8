"""Builds the synthesised, preprocessed training and validation sets.

Sources are the photographs unpacked by fetch_data (sources.py lists them).
They are grouped by scene (size and colour variants and near-duplicates of one
picture form one group). Whole packages are held out for validation, so the
validation frames show collections the network never saw.
Each sample is a camera-like 4:3 (or 3:4) frame of up to 1-2 Mpixel cut from a
source, given none, one or two artifacts at full resolution, and then put
through exactly the detector's preprocessing: area resize to the network
size and a JPEG quality-95 round trip. The network views are cached as .npy.
"""
import argparse
import hashlib
import json
import math
import multiprocessing as mp
import os
import sys
import time

import cv2
import numpy as np

import scenes
import sources as src
import synthesis as syn
import synthesis_alt as alt

HERE = os.path.dirname(os.path.abspath(__file__))
DATA = os.path.join(HERE, "data")
SOURCES = os.path.join(DATA, "sources")
# Whole packages kept out of training: validation measures scenes from collections
# the network never saw (personal snapshots, object photos, nature close-ups).
HOLDOUT = ("kphotoalbum", "darknet", "tuxpaint-data", "lxqt-themes")
MAX_SOURCE_SIDE = 2880  # frames are at most ~1.6k wide; keep zoom-out headroom
# Small photographs give smaller frames, never upscaled ones.
MIN_SOURCE_PIXELS = 0.15e6
# Each picture is stored at a few scales; a frame is cut from one of them
# without further resampling, which gives zoomed-out views cheaply.
SOURCE_LEVELS = (1.0, 0.72, 0.52)
# Crisp-edge strength a frame needs at the network size to pass as sharp;
# slight defocus brings typical frames to a third of their strength.
MIN_EDGE_STRENGTH = 25.0
JPEG_QUALITY = 95


def load_opaque(img, rel):
    """Some wallpapers are overlays with transparency, shown on the desktop
    colour: composite them on a vertical two-colour gradient instead."""
    if img is None or img.ndim != 3:
        return None if img is None else cv2.cvtColor(img, cv2.COLOR_GRAY2BGR)
    if img.shape[2] == 3:
        return img
    alpha = img[..., 3:].astype(np.float32) / 255.0
    if alpha.min() >= 0.99:
        return np.ascontiguousarray(img[..., :3])
    rng = np.random.default_rng(sum(rel.encode()))
    top, bottom = rng.uniform(30, 200, (2, 3))
    t = np.linspace(0, 1, img.shape[0], dtype=np.float32)[:, None, None]
    back = top * (1 - t) + bottom * t
    out = img[..., :3].astype(np.float32) * alpha + back * (1 - alpha)
    return np.clip(out + 0.5, 0, 255).astype(np.uint8)


def prepare_sources(holdout=HOLDOUT):
    """Decodes every usable picture once into .npy (memory-mapped later); the
    pictures of the held-out packages form the validation split."""
    index_path = os.path.join(SOURCES, "index.json")
    holdout = sorted(holdout)
    if os.path.exists(index_path):
        with open(index_path) as f:
            index = json.load(f)
        if index.get("holdout") == holdout and index.get("code") == sources_digest():
            return index
    os.makedirs(SOURCES, exist_ok=True)
    files, hashes = [], []
    for package, rel, load in src.pictures(os.path.join(DATA, "root")):
        img = load()
        img = None if img is None else load_opaque(img, rel)
        if img is None or img.shape[0] * img.shape[1] < MIN_SOURCE_PIXELS:
            continue
        f = min(1.0, MAX_SOURCE_SIDE / max(img.shape[:2]))
        if f < 1.0:
            img = cv2.resize(img, (int(img.shape[1] * f), int(img.shape[0] * f)),
                             interpolation=cv2.INTER_AREA)
        levels = []
        for li, lf in enumerate(SOURCE_LEVELS):
            lvl = img if lf == 1.0 else cv2.resize(
                img, (int(img.shape[1] * lf), int(img.shape[0] * lf)),
                interpolation=cv2.INTER_AREA)
            if lf < 1.0 and lvl.shape[0] * lvl.shape[1] < MIN_SOURCE_PIXELS:
                break
            out = "%03d_%d.npy" % (len(files), li)
            np.save(os.path.join(SOURCES, out), lvl)
            levels.append(out)
        files.append({"levels": levels, "package": package, "rel": rel,
                      "group": src.name_group(package, rel), "shape": list(img.shape),
                      "split": "val" if package in holdout else "train"})
        hashes.append(src.dhash(img))
    # Near-duplicates (the same subject shot twice, one photograph in two bundles)
    # share a scene, within a package only: across packages the hash matches
    # unrelated dark or smooth pictures.
    for package in src.PACKAGES:
        ids = [i for i, e in enumerate(files) if e["package"] == package]
        merged = src.group_near_duplicates([files[i]["group"] for i in ids],
                                           [hashes[i] for i in ids])
        for i, g in zip(ids, merged):
            files[i]["group"] = g
    index = {"holdout": holdout, "code": sources_digest(), "files": files}
    with open(index_path, "w") as f:
        json.dump(index, f, indent=1)
    return index


def sources_digest():
    with open(os.path.join(HERE, "sources.py"), "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()[:16]


# --------------------------------------------------------------------------
# Per-worker state

_W = {}


def only_packages(index, names):
    """The source index cut down to the pictures of the named packages."""
    keep = set(names)
    return dict(index, files=[e for e in index["files"] if e["package"] in keep],
                holdout=sorted(keep & set(index["holdout"])))


def _init_worker(index, split, net_size):
    cv2.setNumThreads(1)
    files = [e for e in index["files"] if e["split"] == split]
    groups = {}
    for e in files:
        groups.setdefault(e["group"], []).append(
            [np.load(os.path.join(SOURCES, f), mmap_mode="r") for f in e["levels"]])
    _W["groups"] = [groups[g] for g in sorted(groups)]
    package = {e["group"]: e["package"] for e in files}
    _W["packages"] = [package[g] for g in sorted(groups)]
    # Generated scenes are drawn for training only: validation stays on held-out photographs.
    _W["generated"] = GENERATED_SHARE if split == "train" else 0.0
    _W["typesetter"] = scenes.Typesetter(scenes.font_files(os.path.join(DATA, "root")))
    _W["net"] = net_size


def _cut_frame(rng, levels, check, size=None):
    """A camera-like frame: 4:3 or 3:4, 1-2 Mpixel, from one of the source's
    scales; `size` forces the frame size (never upscaled: cut smaller)."""
    if size is None:
        portrait = rng.random() < 0.25
        area = rng.uniform(1.0e6, 2.0e6)
        long_side = math.sqrt(area * 4 / 3)
        fw, fh = (long_side * 3 / 4, long_side) if portrait else (long_side, long_side * 3 / 4)
    else:
        fw, fh = size
    usable = [lv for lv in levels if lv.shape[1] >= fw and lv.shape[0] >= fh]
    if usable:
        src = usable[int(rng.integers(len(usable)))]
    else:  # small source: the largest frame of that shape it holds
        src = levels[0]
        fit = min(src.shape[1] / fw, src.shape[0] / fh)
        fw, fh = fw * fit, fh * fit
    sh, sw = src.shape[:2]
    fw, fh = int(fw) // 2 * 2, int(fh) // 2 * 2
    x0 = int(rng.integers(0, sw - fw + 1))
    y0 = int(rng.integers(0, sh - fh + 1))
    crop = src[y0:y0 + fh, x0:x0 + fw]
    if rng.random() < 0.5:
        crop = crop[:, ::-1]
    crop = np.ascontiguousarray(crop)
    if size is not None and crop.shape[:2] != (size[1], size[0]):
        crop = cv2.resize(crop, tuple(size), interpolation=cv2.INTER_LINEAR)
    if check and not base_usable(crop, _W["net"]):
        return None
    return crop


def base_usable(frame_u8, net_size):
    """A frame a camera could plausibly deliver as a clean picture: some
    structure (a pure gradient would read as blur), ordinary exposure (a
    near-black picture would read as low light) and little pure black or
    white (which would read as clipping)."""
    v = syn.quick_view(frame_u8, net_size).astype(np.float32)
    y = syn.luma(v)
    if syn.edge_strength(y) < MIN_EDGE_STRENGTH:
        return False
    if not 45.0 <= float(y.mean()) <= 210.0:
        return False
    return syn.clipped_fraction(v) <= 0.15


def _pick_frame(rng, check=True, exclude=None, size=None):
    groups = _W["groups"]
    for _ in range(200):
        gi = int(rng.integers(len(groups)))
        if gi == exclude:
            continue
        srcs = groups[gi]
        levels = srcs[int(rng.integers(len(srcs)))]
        crop = _cut_frame(rng, levels, check, size)
        if crop is not None:
            return gi, crop
    raise RuntimeError("no usable frame found")


def _frame_size(rng):
    portrait = rng.random() < 0.25
    long_side = math.sqrt(rng.uniform(0.6e6, 1.4e6) * 4 / 3)
    return (int(long_side * 3 / 4) // 2 * 2, int(long_side) // 2 * 2) if portrait else \
        (int(long_side) // 2 * 2, int(long_side * 3 / 4) // 2 * 2)


def _patch(rng, d):
    """A d x d patch of a random training photograph (resized when it is smaller)."""
    levels = _W["groups"][int(rng.integers(len(_W["groups"])))][0]
    src = levels[int(rng.integers(len(levels)))]
    side = min(src.shape[0], src.shape[1], d * int(rng.integers(1, 3)))
    y, x = int(rng.integers(0, src.shape[0] - side + 1)), int(rng.integers(0, src.shape[1] - side + 1))
    return cv2.resize(np.ascontiguousarray(src[y:y + side, x:x + side]), (d, d),
                      interpolation=cv2.INTER_AREA)


def _generated_frame(rng):
    """A document/screen or collage scene that passes as a clean capture, with its kind."""
    for _ in range(20):
        size = _frame_size(rng)
        if rng.random() < 0.6:
            _, back = _pick_frame(rng, check=False, size=size)
            frame, kind = scenes.document_scene(rng, _W["typesetter"], back, size), "documents"
        else:
            frame, kind = scenes.collage_scene(rng, _patch, size), "collages"
        if base_usable(frame, _W["net"]):
            return frame, "generated " + kind
    return None, None


def _single_weights():
    """Classes that take part in fewer compatible pairs are drawn more often
    alone, so every class ends up with about the same number of frames."""
    in_pairs = np.zeros(12)
    for a, b in syn.COMPATIBLE_PAIRS:
        in_pairs[a] += 1
        in_pairs[b] += 1
    share = PAIR_SHARE / len(syn.COMPATIBLE_PAIRS) * in_pairs[1:]
    target = (SINGLE_SHARE + PAIR_SHARE * 2) / 11
    w = np.maximum(target - share, 0.2 * target)
    return w / w.sum()


CLEAN_SHARE, SINGLE_SHARE, PAIR_SHARE = 0.2, 0.5, 0.3
GENERATED_SHARE = 0.2  # training frames on a generated document, screen or collage
SINGLE_WEIGHTS = _single_weights()


def choose_artifacts(rng):
    r = rng.random()
    if r < CLEAN_SHARE:
        return []
    if r < CLEAN_SHARE + SINGLE_SHARE:
        return [int(rng.choice(11, p=SINGLE_WEIGHTS)) + 1]
    return list(syn.COMPATIBLE_PAIRS[int(rng.integers(len(syn.COMPATIBLE_PAIRS)))])


OPTICAL_ORDER = [syn.SHADOW, syn.REFLECTION, syn.FLARE, syn.MOIRE, syn.DONUT,
                 syn.BLUR, syn.MILDBLUR, syn.OTHERBLUR, syn.LOWLIGHT]
# Two independent renderers per artifact (synthesis.py and synthesis_alt.py), drawn
# half and half, so the network cannot learn one renderer's signature.
RENDERERS = {
    name: (getattr(syn, "apply_" + name), getattr(alt, "apply_" + name))
    for name in ("reflection", "shadow", "flare", "moire", "donut_blur", "blur", "mild_blur",
                 "motion", "low_light", "ldr", "noise")
}
OPTICAL = {
    syn.SHADOW: "shadow",
    syn.REFLECTION: "reflection",
    syn.FLARE: "flare",
    syn.MOIRE: "moire",
    syn.DONUT: "donut_blur",
    syn.BLUR: "blur",
    syn.MILDBLUR: "mild_blur",
    syn.OTHERBLUR: "motion",
    syn.LOWLIGHT: "low_light",
}


def renderer(rng, name):
    return RENDERERS[name][int(rng.random() < 0.5)]


ATTEMPTS = 3


def render(rng, artifacts, net_size):
    """Full-resolution frame (uint8 BGR) with the artifacts and the package of
    its scene, or (None, None)."""
    crop = None
    if rng.random() < _W["generated"]:
        gi = -1
        crop, package = _generated_frame(rng)
    if crop is None:
        gi, crop = _pick_frame(rng)
        package = _W["packages"][gi]
    fr = syn.Frame(syn.to_linear(crop), net_size)
    # Ordinary variation of exposure and white balance between clean captures.
    fr.lin *= (rng.uniform(0.8, 1.2) * rng.uniform(0.92, 1.08, 3)).astype(np.float32)
    if rng.random() < 0.3:  # slight softness any lens has: below MildBlur
        fr.lin = syn.gaussian_large(fr.lin, rng.uniform(0.1, 0.35) * fr.scale)
    for a in OPTICAL_ORDER:
        if a not in artifacts:
            continue
        before = fr.lin
        for _ in range(ATTEMPTS):
            fr.lin = before
            step = renderer(rng, OPTICAL[a])
            if a == syn.REFLECTION:
                _, other = _pick_frame(rng, exclude=gi, size=(fr.w, fr.h))
                ok = step(fr, rng, syn.to_linear(other))
            else:
                ok = step(fr, rng)
            if ok:
                break
        else:
            return None, None
    img = syn.to_display(fr.lin)
    if syn.LDR in artifacts:
        before = img
        for _ in range(ATTEMPTS):
            img = renderer(rng, "ldr")(before, rng)
            if syn.ldr_visible(before, img, net_size):
                break
        else:
            return None, None
    if syn.NOISE in artifacts:
        img = renderer(rng, "noise")(img, rng, net_size)
    elif syn.LOWLIGHT not in artifacts:
        # Every sensor is a little noisy: far below what counts as Noise.
        img = syn.apply_noise(img, rng, net_size, target=rng.uniform(0.0, 1.5))
    img = np.clip(np.round(img), 0, 255).astype(np.uint8)
    return alt.camera_chain(img, rng), package


def preprocess(frame_u8, net_size):
    """The detector's own path: area resize, then a JPEG quality-95 round trip."""
    small = cv2.resize(frame_u8, (net_size, net_size), interpolation=cv2.INTER_AREA)
    ok, buf = cv2.imencode(".jpg", small, [cv2.IMWRITE_JPEG_QUALITY, JPEG_QUALITY])
    return cv2.imdecode(buf, cv2.IMREAD_COLOR) if ok else small


def make_sample(args):
    seed, split_id, i = args
    rng = np.random.default_rng([seed, split_id, i])
    net = _W["net"]
    artifacts = choose_artifacts(rng)
    for _ in range(50):
        frame, package = render(rng, artifacts, net)
        if frame is not None:
            break
    else:
        raise RuntimeError("sample %d: artifacts %s never visible" % (i, artifacts))
    label = np.zeros(syn.NUM_OUTPUTS, np.uint8)
    label[artifacts] = 1
    label[0] = 1 if not artifacts else 0  # position 0: clean frame
    return preprocess(frame, net), label, frame if _W.get("keep") else None, package


def code_digest():
    h = hashlib.sha256()
    for name in ("synthesis.py", "synthesis_alt.py", "build_dataset.py", "sources.py", "scenes.py"):
        with open(os.path.join(HERE, name), "rb") as f:
            h.update(f.read())
    return h.hexdigest()[:16]


def build(split, count, seed, net_size, index, workers, out_dir):
    # A split already synthesised by this code with these settings is kept.
    stamp = {"split": split, "count": count, "seed": seed, "net_size": net_size,
             "code": code_digest(), "holdout": index["holdout"]}
    stamp_path = os.path.join(out_dir, "%s_stamp.json" % split)
    if os.path.exists(stamp_path) and os.path.exists(os.path.join(out_dir, "%s_y.npy" % split)):
        with open(stamp_path) as f:
            if json.load(f) == stamp:
                print("%s: reusing the cached %d samples" % (split, count), flush=True)
                return
    split_id = {"train": 1, "val": 2}[split]
    x = np.zeros((count, net_size, net_size, 3), np.uint8)
    y = np.zeros((count, syn.NUM_OUTPUTS), np.uint8)
    jobs = [(seed, split_id, i) for i in range(count)]
    t0 = time.time()
    with mp.get_context("fork").Pool(workers, _init_worker, (index, split, net_size)) as pool:
        for i, (img, label, _, _) in enumerate(pool.imap(make_sample, jobs, chunksize=8)):
            x[i], y[i] = img, label
            if (i + 1) % 500 == 0:
                print("%s: %d/%d samples, %.0f s" % (split, i + 1, count, time.time() - t0),
                      flush=True)
    np.save(os.path.join(out_dir, "%s_x.npy" % split), x)
    np.save(os.path.join(out_dir, "%s_y.npy" % split), y)
    with open(stamp_path, "w") as f:
        json.dump(stamp, f)
    print("%s: %d samples in %.0f s, positives per class %s" % (
        split, count, time.time() - t0, y.sum(0).tolist()), flush=True)


def stream(index, seed, net_size, out_dir, shard, shards):
    """Fresh training frames while the network trains: shard after shard of new
    artifacts on the training scenes, each file pair renamed into place when
    complete, so train.py swaps them in at the start of an epoch."""
    os.makedirs(out_dir, exist_ok=True)
    _init_worker(index, "train", net_size)
    for k in range(shards):
        x = np.zeros((shard, net_size, net_size, 3), np.uint8)
        y = np.zeros((shard, syn.NUM_OUTPUTS), np.uint8)
        for i in range(shard):
            x[i], y[i], _, _ = make_sample((seed, 4, k * shard + i))
        for name, arr in (("y", y), ("x", x)):  # x last: its presence marks the pair
            tmp = os.path.join(out_dir, "tmp_%s.npy" % name)
            np.save(tmp, arr)
            os.replace(tmp, os.path.join(out_dir, "fresh_%03d_%s.npy" % (k, name)))
        print("stream: shard %d of %d frames written" % (k + 1, shard), flush=True)


def preview(index, split, net_size, seed, count, out_dir):
    """Writes a few full frames and their network views for inspection."""
    os.makedirs(out_dir, exist_ok=True)
    _init_worker(index, split, net_size)
    _W["keep"] = True
    for i in range(count):
        small, label, frame, _ = make_sample((seed, 9, i))
        names = [syn.CLASSES[k - 1] for k in np.nonzero(label[1:])[0] + 1] or ["clean"]
        tag = "%03d_%s" % (i, "+".join(names))
        view = cv2.resize(frame, (frame.shape[1] * 448 // frame.shape[0], 448),
                          interpolation=cv2.INTER_AREA)
        cv2.imwrite(os.path.join(out_dir, tag + "_frame.jpg"), view)
        cv2.imwrite(os.path.join(out_dir, tag + "_net.png"), small)


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--seed", type=int, default=20240611)
    p.add_argument("--net-size", type=int, default=224)
    p.add_argument("--train", type=int, default=16000)
    p.add_argument("--val", type=int, default=3000)
    p.add_argument("--holdout", default=",".join(HOLDOUT),
                   help="packages kept out of training, comma-separated")
    p.add_argument("--workers", type=int, default=2)
    p.add_argument("--out", default=os.path.join(DATA, "cache"))
    p.add_argument("--stream", help="write fresh training shards into this folder")
    p.add_argument("--shard", type=int, default=1000)
    p.add_argument("--shards", type=int, default=100)
    p.add_argument("--preview", type=int, default=0,
                   help="only write this many sample frames to --out")
    a = p.parse_args()
    index = prepare_sources(tuple(x for x in a.holdout.split(",") if x))
    groups = {s: sorted({e["group"] for e in index["files"] if e["split"] == s})
              for s in ("train", "val")}
    print("sources: %d pictures; %d train scenes, %d validation scenes" % (
        len(index["files"]), len(groups["train"]), len(groups["val"])), flush=True)
    if a.preview:
        preview(index, "train", a.net_size, a.seed, a.preview, a.out)
        return
    if a.stream:
        stream(index, a.seed, a.net_size, a.stream, a.shard, a.shards)
        return
    os.makedirs(a.out, exist_ok=True)
    meta = {"seed": a.seed, "net_size": a.net_size, "train": a.train, "val": a.val,
            "holdout": sorted(index["holdout"]),
            "val_scenes": groups["val"], "train_scenes": groups["train"]}
    with open(os.path.join(a.out, "meta.json"), "w") as f:
        json.dump(meta, f, indent=1)
    build("val", a.val, a.seed, a.net_size, index, a.workers, a.out)
    build("train", a.train, a.seed, a.net_size, index, a.workers, a.out)


if __name__ == "__main__":
    sys.exit(main())
