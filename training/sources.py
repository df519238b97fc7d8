"""The pictures training may use, package by package, as (package, rel, group, image).

Only real camera photographs are listed for the packages beyond the three wallpaper
sets; drawings, renders, icons and screenshots in them were left out by eye. Two
packages keep their pictures in containers: Qt resource bundles (.rcc, WebP inside)
and Eet files (.edj, JPEG payloads inside); both are read here without their tools.
"""
import os
import re
import struct
import xml.etree.ElementTree as ET
import zlib

import cv2
import numpy as np

WALLPAPER_DIRS = {  # where each wallpaper package puts its pictures
    "plasma-workspace-wallpapers": "usr/share/wallpapers",
    "mate-backgrounds": "usr/share/backgrounds/mate",
    "ukui-wallpapers": "usr/share/backgrounds",
}


# --------------------------------------------------------------------------
# Container readers

def rcc_files(path):
    """{resource path: bytes} of a Qt binary resource bundle (format 1 to 3)."""
    data = open(path, "rb").read()
    if data[:4] != b"qres":
        raise ValueError("%s: not a Qt resource bundle" % path)
    version, tree, payload, names = struct.unpack(">4I", data[4:20])
    entry = 14 if version == 1 else 22  # later versions add a modification time

    def name_at(off):
        n = struct.unpack(">H", data[names + off:names + off + 2])[0]
        return data[names + off + 6:names + off + 6 + 2 * n].decode("utf-16-be")

    out = {}

    def walk(index, prefix):
        base = tree + index * entry
        name_off, flags = struct.unpack(">IH", data[base:base + 6])
        name = name_at(name_off) if index else ""
        full = prefix + "/" + name if name else prefix
        if flags & 0x02:
            count, first = struct.unpack(">II", data[base + 6:base + 14])
            for child in range(first, first + count):
                walk(child, full)
            return
        off = payload + struct.unpack(">I", data[base + 10:base + 14])[0]
        size = struct.unpack(">I", data[off:off + 4])[0]
        blob = data[off + 4:off + 4 + size]
        if flags & 0x01:
            blob = zlib.decompress(blob[4:])  # 4-byte big-endian length first
        elif flags & 0x04:
            return  # zstd: not used by the bundles read here
        out[full] = blob

    walk(0, "")
    return out


def eet_jpegs(path, min_bytes=20000):
    """JPEG payloads inside an Eet file, largest first. Lossy Eet images are plain
    JPEG streams after a small header; decoding from each start marker finds them."""
    data = open(path, "rb").read()
    found = []
    for m in re.finditer(b"\xff\xd8\xff[\xdb\xe0\xe1\xc0\xc4\xee]", data):
        start = m.start()
        end = data.find(b"\xff\xd9", start)
        while end != -1:
            img = cv2.imdecode(np.frombuffer(data[start:end + 2], np.uint8), cv2.IMREAD_COLOR)
            if img is not None:
                if end + 2 - start >= min_bytes:
                    found.append((end + 2 - start, img))
                break
            end = data.find(b"\xff\xd9", end + 2)
    found.sort(key=lambda t: -t[0])
    return [img for _, img in found]


def kphotoalbum_rotations(index_xml):
    """{file name: clockwise degrees} from the demo album's database."""
    rot = {}
    for el in ET.parse(index_xml).getroot().iter("image"):
        angle = int(el.get("angle", el.get("rotate", "0")) or 0)
        if angle:
            rot[el.get("file")] = angle
    return rot


def rotate_cw(img, degrees):
    codes = {90: cv2.ROTATE_90_CLOCKWISE, 180: cv2.ROTATE_180,
             270: cv2.ROTATE_90_COUNTERCLOCKWISE}
    return cv2.rotate(img, codes[degrees]) if degrees in codes else img


# --------------------------------------------------------------------------
# What is kept, package by package (checked by eye on contact sheets)

SHARE = "usr/share"
# gcompris-qt-data: bundles whose pictures are all photographs, and the photographs
# among the others (the rest are drawings, paintings, maps, planets, cut-outs).
GCOMPRIS_ALL = ("erase", "explore_farm_animals", "explore_monuments",
                "explore_world_animals", "explore_world_music")
GCOMPRIS_SOME = {
    "clickgame": re.compile(r"/sea\d\.webp$"),
    "details": re.compile(r"/(Chenonceau|EgeskovSlotSpejling|EilanDonanCastle|FanoeWindmill|"
                          r"GizahPyramids|Louvre_2007_02_24_c|NDP|Nagoya|Neuschwanstein|"
                          r"OperaSidney|TajMahal|TourEiffel|TowerBridgeLondon)_background\.webp$"),
}
ENLIGHTENMENT = ("Bamboo", "Foggy-Trees", "God-Rays", "Green-Maple", "Lichen-Branches",
                 "Mountain", "Peaks", "Red-Maple", "Sea-of-Lanterns", "Snow-Trees",
                 "Spruce-Needles", "Sunset-Clouds", "White-Flower", "Yellow-Flower")
LXQT = ("Butterfly-Kenneth-Wimer.jpg", "Valendas.png", "after-the-rain.jpg", "appleflower.png",
        "beam.png", "butterfly.png", "cloud.png", "drop.png", "flowers.png", "fog.jpg",
        "this-is-not-windows.jpg")
DARKNET = ("dog.jpg", "eagle.jpg", "giraffe.jpg", "horses.jpg", "kite.jpg", "person.jpg")
TUXPAINT_STARTERS = ("reef-back.png", "skyline-sf-dusk-back.jpeg")
KPHOTOALBUM_SKIP = ("qt-logo.jpg",)

PHOTO_PACKAGES = ("gcompris-qt-data", "kphotoalbum", "tuxpaint-data", "enlightenment-data",
                  "lxqt-themes", "darknet")
PACKAGES = tuple(WALLPAPER_DIRS) + PHOTO_PACKAGES


def _decode(blob):
    return cv2.imdecode(np.frombuffer(blob, np.uint8), cv2.IMREAD_UNCHANGED)


def _read(path):
    return cv2.imread(path, cv2.IMREAD_UNCHANGED)


def _wallpapers(root):
    for package, sub in WALLPAPER_DIRS.items():
        base = os.path.join(root, sub)
        for dirpath, dirnames, files in os.walk(base):
            dirnames.sort()
            # the top-level backgrounds folder holds the mate folder too
            if package == "ukui-wallpapers" and dirpath != base:
                continue
            for name in sorted(files):
                path = os.path.join(dirpath, name)
                if not name.lower().endswith((".png", ".jpg", ".jpeg")) or \
                        name.startswith("screenshot") or os.path.islink(path):
                    continue  # thumbnails and size aliases of one picture
                yield package, os.path.relpath(path, base), lambda p=path: _read(p)


def _photo_packages(root):
    share = os.path.join(root, SHARE)
    rcc_dir = os.path.join(share, "gcompris-qt", "rcc")
    for bundle in sorted(os.listdir(rcc_dir)) if os.path.isdir(rcc_dir) else []:
        stem = bundle[:-4]
        if stem not in GCOMPRIS_ALL and stem not in GCOMPRIS_SOME:
            continue
        for name, blob in sorted(rcc_files(os.path.join(rcc_dir, bundle)).items()):
            if not name.endswith(".webp"):
                continue
            if stem in GCOMPRIS_SOME and not GCOMPRIS_SOME[stem].search(name):
                continue
            yield "gcompris-qt-data", stem + name, lambda b=blob: _decode(b)
    demo = os.path.join(share, "kphotoalbum", "demo")
    if os.path.isdir(demo):
        rot = kphotoalbum_rotations(os.path.join(demo, "index.xml"))
        for name in sorted(os.listdir(demo)):
            if name.endswith(".jpg") and name not in KPHOTOALBUM_SKIP:
                yield "kphotoalbum", name, lambda p=os.path.join(demo, name), a=rot.get(name, 0): \
                    rotate_cw(_read(p), a)
    tux = os.path.join(share, "tuxpaint")
    templates = os.path.join(tux, "templates")
    for name in sorted(os.listdir(templates)) if os.path.isdir(templates) else []:
        if name.endswith(".jpg"):
            yield "tuxpaint-data", "templates/" + name, lambda p=os.path.join(templates, name): _read(p)
    for name in TUXPAINT_STARTERS:
        path = os.path.join(tux, "starters", name)
        if os.path.exists(path):
            yield "tuxpaint-data", "starters/" + name, lambda p=path: _read(p)
    for name in ENLIGHTENMENT:
        path = os.path.join(share, "enlightenment", "data", "backgrounds", name + ".edj")
        if os.path.exists(path):
            yield "enlightenment-data", name + ".edj", lambda p=path: eet_jpegs(p)[0]
    for package, folder, names in (("lxqt-themes", "lxqt/wallpapers", LXQT),
                                   ("darknet", "darknet/data", DARKNET)):
        for name in names:
            path = os.path.join(share, folder, name)
            if os.path.exists(path):
                yield package, name, lambda p=path: _read(p)


def pictures(root):
    """(package, rel, load) for every usable picture under the unpacked packages."""
    yield from _wallpapers(root)
    yield from _photo_packages(root)


def name_group(package, rel):
    """Scene id from the name: size, colour and numbered variants of one picture."""
    if package == "plasma-workspace-wallpapers":
        return package + ":" + rel.split("/")[0]
    stem = os.path.splitext(os.path.basename(rel))[0]
    stem = re.sub(r"\.webp$", "", stem)
    stem = re.sub(r"_\d+x\d+$", "", stem)
    stem = re.sub(r"-(no-logo)$", "", stem)
    stem = re.sub(r"-(Dark|Light|Cold|Warm|Radioactive)$", "", stem)
    if package == "kphotoalbum":
        stem = re.sub(r"_\d$", "", stem)  # bar55 and bar55_2: the same evening
    return package + ":" + stem


def dhash(img):
    """64-bit gradient hash of a picture: near-duplicates differ in few bits."""
    g = cv2.cvtColor(img[..., :3], cv2.COLOR_BGR2GRAY) if img.ndim == 3 else img
    g = cv2.resize(g, (9, 8), interpolation=cv2.INTER_AREA).astype(np.int16)
    bits = (g[:, 1:] > g[:, :-1]).flatten()
    return int("".join("1" if b else "0" for b in bits), 2)


def group_near_duplicates(names, hashes, max_bits=10):
    """Merges name groups whose pictures hash within max_bits of each other."""
    parent = {n: n for n in names}

    def find(n):
        while parent[n] != n:
            parent[n] = parent[parent[n]]
            n = parent[n]
        return n

    for i in range(len(names)):
        for j in range(i + 1, len(names)):
            if bin(hashes[i] ^ hashes[j]).count("1") <= max_bits:
                parent[find(names[i])] = find(names[j])
    return [find(n) for n in names]
