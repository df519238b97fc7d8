"""Generated base scenes that cost no licence and cover what the packages lack.

- documents and screens: a page, receipt, form or slide set with Debian's fonts,
  printed on textured paper (or lit as a display), placed into a photograph with
  a perspective and lit unevenly;
- collages: dead-leaves compositions of patches cut from the training photographs,
  whose scene statistics no single picture has.
Both return a clean 8-bit BGR frame of the requested size; artifacts come later.
"""
import glob
import os

import cv2
import numpy as np

WORDS = ("total invoice date amount the of and to in is for on with as by at from page "
         "report summary quarterly meeting notes item qty price tax subtotal paid thank you "
         "name address phone email signature section figure table results method data value "
         "please sign here receipt store card change cash order number customer service "
         "project plan budget status review next steps agenda minutes draft final").split()


def font_files(extra_root=None):
    """TrueType fonts from Debian's font packages and from the unpacked packages."""
    found = sorted(glob.glob("/usr/share/fonts/truetype/**/*.ttf", recursive=True))
    if extra_root:
        found += sorted(glob.glob(os.path.join(extra_root, "**", "*.ttf"), recursive=True))
    return [f for f in found if os.path.isfile(f)]  # some are links to fonts not installed


class Typesetter:
    """One FreeType renderer per font file, loaded on first use."""

    def __init__(self, fonts):
        self.fonts = fonts
        self.loaded = {}

    def text(self, img, rng, s, org, height, color):
        path = self.fonts[int(rng.integers(len(self.fonts)))]
        ft = self.loaded.get(path)
        if ft is None:
            ft = cv2.freetype.createFreeType2()
            try:
                ft.loadFontData(path, 0)
            except cv2.error:  # not a face FreeType reads: use the first font instead
                path = self.fonts[0]
                ft = self.loaded.get(path) or cv2.freetype.createFreeType2()
                if path not in self.loaded:
                    ft.loadFontData(path, 0)
            self.loaded[path] = ft
        ft.putText(img, s, org, int(height), color, -1, cv2.LINE_AA, False)


def _words(rng, n):
    return " ".join(WORDS[int(i)] for i in rng.integers(len(WORDS), size=n))


def _page(rng, ts, w, h):
    """A document, receipt, form or slide at its own resolution."""
    kind = rng.choice(["document", "receipt", "form", "slide"], p=[0.4, 0.2, 0.2, 0.2])
    if kind == "slide":
        bg = rng.uniform(0, 255, 3)
        page = np.empty((h, w, 3), np.uint8)
        page[:] = bg
        ink = tuple(float(255 - c) if abs(255 - 2 * c).mean() > 60 else 255.0 * (c.mean() < 128)
                    for c in bg)
        ts.text(page, rng, _words(rng, 3).title(), (int(0.06 * w), int(0.08 * h)), 0.09 * h, ink)
        y = int(0.3 * h)
        while y < 0.9 * h:
            ts.text(page, rng, "- " + _words(rng, int(rng.integers(3, 7))),
                    (int(0.08 * w), y), 0.05 * h, ink)
            y += int(rng.uniform(0.08, 0.12) * h)
        if rng.random() < 0.5:  # a bar chart
            x0, base = int(0.6 * w), int(0.85 * h)
            for i in range(int(rng.integers(3, 7))):
                top = int(base - rng.uniform(0.1, 0.45) * h)
                cv2.rectangle(page, (x0 + i * int(0.05 * w), top),
                              (x0 + i * int(0.05 * w) + int(0.035 * w), base),
                              tuple(float(v) for v in rng.uniform(0, 255, 3)), -1)
        return page, False
    paper = np.array([rng.uniform(225, 255)] * 3) * rng.uniform(0.94, 1.0, 3)
    page = np.empty((h, w, 3), np.uint8)
    page[:] = paper
    ink = tuple(float(v) for v in rng.uniform(0, 70, 3) * [1, 1, 1])
    margin = int(rng.uniform(0.06, 0.12) * w)
    line = rng.uniform(0.018, 0.035) * h
    y = margin + int(line * 2)
    if kind != "receipt":
        ts.text(page, rng, _words(rng, int(rng.integers(2, 5))).title(), (margin, y), line * 1.8, ink)
        y += int(line * 3)
    while y < h - margin:
        if kind == "form" and rng.random() < 0.4:
            cv2.rectangle(page, (margin, y - int(line)), (w - margin, y + int(0.6 * line)),
                          ink, 1, cv2.LINE_AA)
            ts.text(page, rng, _words(rng, 2) + ":", (margin + 4, y), line * 0.8, ink)
        elif kind == "receipt":
            ts.text(page, rng, _words(rng, int(rng.integers(1, 3))), (margin, y), line, ink)
            ts.text(page, rng, "%d.%02d" % (rng.integers(1, 99), rng.integers(100)),
                    (int(w * 0.7), y), line, ink)
        else:
            n = int(rng.integers(4, 12))
            ts.text(page, rng, _words(rng, n), (margin, y), line, ink)
            if rng.random() < 0.15:
                y += int(line)  # paragraph break
        y += int(line * rng.uniform(1.3, 1.8))
    return page, True


def _paper_texture(rng, shape):
    """Low-frequency shading and fine fibre grain as a multiplicative map."""
    h, w = shape[:2]
    low = cv2.resize(rng.normal(1.0, 0.03, (6, 8)).astype(np.float32), (w, h),
                     interpolation=cv2.INTER_CUBIC)
    fine = cv2.GaussianBlur(rng.normal(0, 0.02, (h, w)).astype(np.float32), (0, 0), 0.8)
    return (low + fine)[..., None]


def _lighting(rng, h, w):
    """Uneven light: a tilted ramp and an off-centre falloff."""
    yy, xx = np.mgrid[0:h, 0:w].astype(np.float32)
    a = rng.uniform(0, 2 * np.pi)
    ramp = (np.cos(a) * xx / w + np.sin(a) * yy / h)
    ramp = 1.0 + rng.uniform(0.05, 0.35) * (ramp - ramp.mean())
    cx, cy = rng.uniform(0, w), rng.uniform(0, h)
    r2 = ((xx - cx) ** 2 + (yy - cy) ** 2) / float(w * w + h * h)
    fall = 1.0 - rng.uniform(0.0, 0.35) * r2
    return (ramp * fall)[..., None]


def document_scene(rng, ts, background, size):
    """A page or screen photographed at an angle over a background photograph."""
    fw, fh = size
    portrait = rng.random() < 0.5
    pw, ph = (int(rng.uniform(700, 1100)), 0)
    ph = int(pw * (1.414 if portrait else 0.75))
    page, is_paper = _page(rng, ts, pw, ph)
    page = page.astype(np.float32)
    if is_paper:
        page *= _paper_texture(rng, page.shape)
    # The page fills 45-95% of the frame, corners jittered for perspective.
    scale = rng.uniform(0.45, 0.95) * min(fw / pw, fh / ph)
    cw, ch = pw * scale, ph * scale
    cx, cy = fw / 2 + rng.uniform(-0.15, 0.15) * fw, fh / 2 + rng.uniform(-0.15, 0.15) * fh
    corners = np.float32([[cx - cw / 2, cy - ch / 2], [cx + cw / 2, cy - ch / 2],
                          [cx + cw / 2, cy + ch / 2], [cx - cw / 2, cy + ch / 2]])
    corners += rng.uniform(-0.12, 0.12, (4, 2)).astype(np.float32) * [cw, ch]
    m = cv2.getPerspectiveTransform(np.float32([[0, 0], [pw, 0], [pw, ph], [0, ph]]), corners)
    warped = cv2.warpPerspective(page, m, (fw, fh), flags=cv2.INTER_AREA)
    mask = cv2.warpPerspective(np.ones((ph, pw), np.float32), m, (fw, fh), flags=cv2.INTER_LINEAR)
    out = background.astype(np.float32) * (1 - mask[..., None]) + warped * mask[..., None]
    out *= _lighting(rng, fh, fw)
    return np.clip(out + 0.5, 0, 255).astype(np.uint8)


def collage_scene(rng, patch_source, size):
    """Dead-leaves collage: occluding discs and rectangles of photo patches, sizes
    drawn from a power law, over a first patch that fills the frame (no gaps)."""
    fw, fh = size
    out = cv2.resize(patch_source(rng, max(fw, fh)), (fw, fh), interpolation=cv2.INTER_AREA)
    rmin, rmax = 0.02 * max(fw, fh), 0.35 * max(fw, fh)
    for _ in range(int(rng.integers(150, 300))):
        u = rng.random()
        r = (rmin ** -2 + u * (rmax ** -2 - rmin ** -2)) ** -0.5  # density ~ r^-3
        d = int(2 * r) | 1
        patch = patch_source(rng, d)
        x, y = int(rng.integers(-d // 2, fw)), int(rng.integers(-d // 2, fh))
        shape = np.zeros((d, d), np.uint8)
        if rng.random() < 0.6:
            cv2.circle(shape, (d // 2, d // 2), d // 2, 1, -1, cv2.LINE_AA)
        else:
            cv2.rectangle(shape, (int(d * 0.1), int(d * 0.2)), (int(d * 0.9), int(d * 0.8)), 1, -1)
        x0, y0, x1, y1 = max(x, 0), max(y, 0), min(x + d, fw), min(y + d, fh)
        if x1 <= x0 or y1 <= y0:
            continue
        sub = shape[y0 - y:y1 - y, x0 - x:x1 - x].astype(bool)
        out[y0:y1, x0:x1][sub] = patch[y0 - y:y1 - y, x0 - x:x1 - x][sub]
    return out
