"""Camera-frame artifact synthesis at the frame's full resolution.

Every artifact is rendered on the full-size frame, before the detector's own
preprocessing, with a strength chosen so that it is still visible once the
frame is shrunk to the network's input size. Optical effects (ghosted scenes,
shadows, glare, defocus, motion) are applied in linear light, sensor effects
(exposure, clipping, noise) in display space, as a camera would produce them.
"""
import math

import cv2
import numpy as np

# Class ids as the detector reports them; position 0 of the output is unused.
CLASSES = ["Reflection", "Shadow", "Flare", "Moire", "DonutBlur", "Blur",
           "LDR", "LowLight", "Noise", "MildBlur", "OtherBlur"]
REFLECTION, SHADOW, FLARE, MOIRE, DONUT, BLUR, LDR, LOWLIGHT, NOISE, MILDBLUR, \
    OTHERBLUR = range(1, 12)
NUM_OUTPUTS = 12

BLUR_GROUP = {DONUT, BLUR, MILDBLUR, OTHERBLUR}
# Pairs that cannot be told apart or that mask each other: a dark frame hides
# shadows, ghosts and glare; noise and clipping hide slight defocus; defocus
# and motion wash out the screen grid that causes moire.
INCOMPATIBLE = set()
for _a in BLUR_GROUP:
    for _b in BLUR_GROUP:
        if _a < _b:
            INCOMPATIBLE.add((_a, _b))
for _b in BLUR_GROUP:
    INCOMPATIBLE.add(tuple(sorted((MOIRE, _b))))
for _b in (REFLECTION, SHADOW, FLARE, MOIRE, LDR, NOISE, MILDBLUR, DONUT):
    INCOMPATIBLE.add(tuple(sorted((LOWLIGHT, _b))))
for _b in (NOISE, LDR):
    INCOMPATIBLE.add(tuple(sorted((MILDBLUR, _b))))
COMPATIBLE_PAIRS = [(a, b) for a in range(1, 12) for b in range(a + 1, 12)
                    if (a, b) not in INCOMPATIBLE]

# Display <-> linear light with a plain gamma of 2: close enough to a camera's
# tone curve, and a square root is far cheaper than pow on a 2 Mpixel frame.
_TO_LIN = ((np.arange(256, dtype=np.float32) / 255.0) ** 2).reshape(1, 256)


def to_linear(img_u8):
    return cv2.LUT(img_u8, _TO_LIN)


def to_display(lin):
    """Linear float to display-space float [0,255]; clips highlights."""
    x = np.minimum(lin, 1.0)
    np.maximum(x, 0.0, out=x)
    x = cv2.sqrt(x)
    x *= 255.0
    return x


def net_view(img, size):
    """What the network sees of an image: one area-interpolated shrink."""
    return cv2.resize(img, (size, size), interpolation=cv2.INTER_AREA)


def quick_view(img, size):
    """Nearly the same as net_view, much cheaper: a whole-factor area shrink
    first (OpenCV's fast path), then the rest. Used only for measurements."""
    h, w = img.shape[:2]
    k = min(h, w) // size
    if k >= 2:
        img = img[:h - h % k, :w - w % k]
        img = cv2.resize(img, (img.shape[1] // k, img.shape[0] // k),
                         interpolation=cv2.INTER_AREA)
    return cv2.resize(img, (size, size), interpolation=cv2.INTER_AREA)


def luma(img):
    return img[..., 0] * 0.114 + img[..., 1] * 0.587 + img[..., 2] * 0.299


def ghost_shows(base_view, after_view, added, share=0.35, blocks=6):
    """Whether a superimposed scene (`added`: what it adds to the view) plainly shows: it
    carries structure, not just a veil, changes the frame, and over a large part of it
    (`share` of the blocks) its own contrast comes close to the scene's, which would
    otherwise hide it."""
    b, a = luma(base_view), luma(added)
    if float(a.std()) < 9.0 or float(np.mean(np.abs(after_view - base_view))) < 8.0:
        return False
    h, w = b.shape
    seen = 0
    for i in range(blocks):
        for j in range(blocks):
            ys = slice(i * h // blocks, (i + 1) * h // blocks)
            xs = slice(j * w // blocks, (j + 1) * w // blocks)
            sa = float(a[ys, xs].std())
            seen += sa >= 5.0 and sa >= 0.5 * float(b[ys, xs].std())
    return seen >= share * blocks * blocks


def shadow_shows(base_view, after_view, mask_view):
    """Whether a cast shadow clearly darkens part of the frame: at least about 15 % of
    it, by a good part of the light and more than the scene's own texture varies
    there, with enough of the frame left in the light and an edge sharp enough to show."""
    inside = mask_view > 0.6
    if inside.mean() < 0.12 or (mask_view < 0.2).mean() < 0.25:
        return False
    # A penumbra as wide as the shadow itself reads as the scene's own lighting.
    if ((mask_view >= 0.2) & (mask_view <= 0.6)).mean() > 0.4 * inside.mean():
        return False
    before = luma(base_view)[inside]
    drop = float(before.mean() - luma(after_view)[inside].mean())
    return drop >= max(22.0, 0.3 * float(before.mean()), 0.8 * float(before.std()))


def edge_strength(gray):
    """Laplacian magnitude of the crispest 0.5% of a view: high when the
    view holds sharp edges, however few (flat graphics count as sharp)."""
    lap = np.abs(cv2.Laplacian(gray, cv2.CV_32F, ksize=1)).ravel()
    k = int(lap.size * 0.995)
    return float(np.partition(lap, k)[k])


class NoiseBank:
    """Gaussian noise drawn once; frames take shifted, flipped windows of it.
    Drawing millions of normals per frame would dominate synthesis time."""

    SIDE = 2304

    def __init__(self, seed):
        rng = np.random.default_rng(seed)
        self.bank = rng.standard_normal((self.SIDE, self.SIDE, 3), dtype=np.float32)

    def take(self, rng, h, w, channels=3):
        if h > self.SIDE or w > self.SIDE:
            return rng.standard_normal((h, w, channels), dtype=np.float32)
        y0 = int(rng.integers(0, self.SIDE - h + 1))
        x0 = int(rng.integers(0, self.SIDE - w + 1))
        c0 = int(rng.integers(0, 3))
        win = self.bank[y0:y0 + h, x0:x0 + w]
        if rng.random() < 0.5:
            win = win[::-1]
        if rng.random() < 0.5:
            win = win[:, ::-1]
        if channels == 1:
            return np.ascontiguousarray(win[..., c0])
        return np.ascontiguousarray(np.roll(win, c0, axis=2))


_BANK = None


def noise(rng, h, w, channels=3):
    global _BANK
    if _BANK is None:
        _BANK = NoiseBank(12345)
    return _BANK.take(rng, h, w, channels)


def gaussian_large(img, sigma):
    """Gaussian blur; wide ones run on a whole-factor shrink of the image,
    which loses nothing the blur would keep."""
    f = int(max(1, min(8, sigma // 3)))
    if f == 1:
        return cv2.GaussianBlur(img, (0, 0), sigma, borderType=cv2.BORDER_REFLECT)
    h, w = img.shape[:2]
    small = cv2.resize(img, (w // f, h // f), interpolation=cv2.INTER_AREA)
    small = cv2.GaussianBlur(small, (0, 0), sigma / f, borderType=cv2.BORDER_REFLECT)
    return cv2.resize(small, (w, h), interpolation=cv2.INTER_LINEAR)


class Frame:
    """One full-resolution frame in linear light plus its network view size."""

    def __init__(self, lin, net_size):
        self.lin = lin
        self.h, self.w = lin.shape[:2]
        self.net_size = net_size
        # Full-resolution pixels per network pixel along the more squeezed
        # axis: strengths given in network pixels stay visible on both axes.
        self.scale = max(self.h, self.w) / float(net_size)

    def view(self, lin=None):
        """Display-space network view of a linear image (default: the frame)."""
        lin = self.lin if lin is None else lin
        return to_display(quick_view(lin, self.net_size))

    def coords(self):
        """Pixel coordinates as a row and a column (for broadcasting)."""
        return (np.arange(self.w, dtype=np.float32)[None, :],
                np.arange(self.h, dtype=np.float32)[:, None])


# --------------------------------------------------------------------------
# Smooth random fields and kernels


def smooth_field(rng, h, w, cells, channels=1):
    """Low-frequency noise of unit-ish amplitude, `cells` bumps across."""
    ch = max(2, int(round(cells * h / max(h, w))))
    cw = max(2, int(round(cells * w / max(h, w))))
    shape = (ch, cw) if channels == 1 else (ch, cw, channels)
    coarse = rng.standard_normal(shape).astype(np.float32)
    mid = cv2.resize(coarse, (max(8, w // 16), max(8, h // 16)),
                     interpolation=cv2.INTER_CUBIC)
    return cv2.resize(mid, (w, h), interpolation=cv2.INTER_LINEAR)


def disk_kernel(radius, inner_ratio=0.0, rim=0.0):
    """Anti-aliased disk (or ring when inner_ratio > 0) point spread."""
    r = max(radius, 0.5)
    n = int(math.ceil(r)) + 1
    y, x = np.mgrid[-n:n + 1, -n:n + 1].astype(np.float32)
    d = np.sqrt(x * x + y * y)
    k = np.clip(r + 0.5 - d, 0.0, 1.0)
    if inner_ratio > 0:
        ri = r * inner_ratio
        k *= np.clip(d - ri + 0.5, 0.0, 1.0)
        if rim > 0:
            # Catadioptric rings are brighter towards their outer edge.
            k *= 1.0 + rim * np.clip((d - ri) / max(r - ri, 1e-3), 0.0, 1.0)
    return k / k.sum()


def path_kernel(rng, length):
    """Motion or hand-shake path: straight line or a smooth random walk."""
    n = int(math.ceil(length)) + 3
    size = 2 * n + 1
    k = np.zeros((size * 4, size * 4), np.float32)  # 4x supersampled
    steps = max(8, int(length * 3))
    if rng.random() < 0.5:
        ang = rng.uniform(0, math.pi)
        t = np.linspace(-0.5, 0.5, steps) * length
        pts = np.stack([t * math.cos(ang), t * math.sin(ang)], 1)
    else:
        ang = rng.uniform(0, 2 * math.pi)
        turn = np.cumsum(rng.normal(0, 0.35, steps))
        turn = np.convolve(turn, np.ones(5) / 5, mode="same")
        d = np.stack([np.cos(ang + turn), np.sin(ang + turn)], 1)
        d *= length / steps
        pts = np.cumsum(d, 0)
        pts -= pts.mean(0)
    pts = (pts + n + 0.5) * 4
    cv2.polylines(k, [pts.astype(np.int32).reshape(-1, 1, 2)], False, 1.0,
                  thickness=3, lineType=cv2.LINE_AA)
    k = cv2.resize(k, (size, size), interpolation=cv2.INTER_AREA)
    return k / max(k.sum(), 1e-6)


def convolve_large(lin, kernel, radius, boost=None):
    """Convolution of a frame with a wide point spread.

    A kernel of radius r removes all detail finer than about r pixels, so the
    frame is shrunk by a whole factor well below r, convolved and brought
    back: the result matches a full-size convolution for all detail that
    survives the kernel. `boost` (a highlight gain) is applied on the shrunk
    frame, before the convolution.
    """
    f = int(max(1, min(8, radius // 4)))
    h, w = lin.shape[:2]
    small = lin if f == 1 else cv2.resize(lin, (w // f, h // f),
                                          interpolation=cv2.INTER_AREA)
    if boost is not None:
        small = boost_highlights(small, boost)
    k = kernel
    if f > 1:
        new = max(3, int(round(kernel.shape[0] / f)) | 1)
        k = cv2.resize(kernel, (new, new), interpolation=cv2.INTER_AREA)
        k /= k.sum()
    small = cv2.filter2D(small, -1, k, borderType=cv2.BORDER_REFLECT)
    if f == 1:
        return small
    return cv2.resize(small, (w, h), interpolation=cv2.INTER_LINEAR)


def boost_highlights(lin, gain):
    """Scene highlights are brighter than the sensor's clip point; give them
    headroom so defocus spreads them into visible disks or rings."""
    peak = np.max(lin, axis=2)
    peak -= 0.75
    peak *= 4.0
    np.clip(peak, 0.0, 1.0, out=peak)
    peak *= peak
    peak *= gain
    peak += 1.0
    return lin * peak[..., None]


# --------------------------------------------------------------------------
# Artifacts. Each takes the frame and a generator, changes frame.lin and
# returns True when the artifact is visible at the network size.


def apply_reflection(fr, rng, other_lin):
    base_view = fr.view()
    s = fr.scale
    scene = gaussian_large(other_lin, rng.uniform(0.3, 2.5) * s)
    if rng.random() < 0.5:
        # The glass's two surfaces give a doubled, offset ghost.
        dx, dy = rng.uniform(-6, 6, 2) * s
        m = np.float32([[1, 0, dx], [0, 1, dy]])
        shifted = cv2.warpAffine(scene, m, (fr.w, fr.h), borderMode=cv2.BORDER_REFLECT)
        scene = cv2.addWeighted(scene, 0.6, shifted, 0.4, 0.0)
    strength = rng.uniform(0.25, 0.6)
    # Reflections are stronger on part of the glass: a tilted ramp.
    ang = rng.uniform(0, 2 * math.pi)
    x, y = fr.coords()
    ramp = (x / fr.w - 0.5) * math.cos(ang) + (y / fr.h - 0.5) * math.sin(ang)
    lo = rng.uniform(0.2, 1.0)
    mask = lo + (1 - lo) * np.clip(ramp + 0.5, 0, 1)
    tint = (rng.uniform(0.85, 1.1, 3) * strength).astype(np.float32)
    ghost = scene * tint
    ghost *= mask[..., None]
    transmit = np.float32(rng.uniform(0.65, 0.9))
    fr.lin = fr.lin * transmit + ghost
    after = fr.view()
    added = after - fr.view(fr.lin - ghost)
    return ghost_shows(base_view, after, added)


def _shadow_mask(rng, h, w):
    lh, lw = max(16, h // 8), max(16, w // 8)
    m = np.zeros((lh, lw), np.float32)
    kind = rng.integers(3)
    if kind == 0:  # irregular occluder
        c = rng.uniform([0.2 * lw, 0.2 * lh], [0.8 * lw, 0.8 * lh])
        n = rng.integers(5, 10)
        angs = np.sort(rng.uniform(0, 2 * math.pi, n))
        rad = rng.uniform(0.2, 0.6, n) * max(lw, lh)
        pts = np.stack([c[0] + rad * np.cos(angs), c[1] + rad * np.sin(angs)], 1)
        cv2.fillPoly(m, [pts.astype(np.int32)], 1.0)
    elif kind == 1:  # a head-and-arm like blob entering from an edge
        cx, cy = rng.uniform(0.2, 0.8) * lw, rng.uniform(0.2, 0.8) * lh
        ax, ay = rng.uniform(0.12, 0.3) * lw, rng.uniform(0.12, 0.35) * lh
        cv2.ellipse(m, (int(cx), int(cy)), (int(ax), int(ay)),
                    rng.uniform(0, 180), 0, 360, 1.0, -1)
        edge = rng.integers(4)
        ex = [cx, cx, 0, lw][edge]
        ey = [0, lh, cy, cy][edge]
        cv2.line(m, (int(cx), int(cy)), (int(ex), int(ey)), 1.0,
                 int(rng.uniform(0.1, 0.25) * min(lw, lh)))
    else:  # straight cast edge (building, wall), slightly wavy
        ang = rng.uniform(0, 2 * math.pi)
        y, x = np.mgrid[0:lh, 0:lw].astype(np.float32)
        d = (x / lw - 0.5) * math.cos(ang) + (y / lh - 0.5) * math.sin(ang)
        d += 0.05 * smooth_field(rng, lh, lw, 4)
        m = (d > rng.uniform(-0.3, 0.25)).astype(np.float32)
    soft = rng.uniform(0.005, 0.04) * max(lw, lh)
    m = cv2.GaussianBlur(m, (0, 0), max(soft, 0.5))
    return cv2.resize(m, (w, h), interpolation=cv2.INTER_LINEAR)


def apply_shadow(fr, rng):
    for _ in range(6):
        mask = _shadow_mask(rng, fr.h, fr.w)
        area = float(np.mean(mask[::8, ::8] > 0.5))
        if SHADOW_AREA[0] <= area <= SHADOW_AREA[1]:
            break
    else:
        return False
    base_view = fr.view()
    dark = rng.uniform(0.12, 0.4)
    # Shade is lit by the sky: slightly blue (BGR order).
    tint = np.array([1.0 + rng.uniform(0, 0.35), 1.0, 1.0 - rng.uniform(0, 0.15)],
                    np.float32)
    loss = (1.0 - np.clip(dark * tint, 0, 1)).astype(np.float32)
    factor = 1.0 - mask[..., None] * loss
    fr.lin = fr.lin * factor
    return shadow_shows(base_view, fr.view(), quick_view(mask, fr.net_size))


def apply_flare(fr, rng):
    base_view = fr.view()
    h, w = fr.h, fr.w
    lw, lh = w // 4, h // 4  # glare is smooth: render at a quarter size
    diag = math.hypot(lw, lh)
    if rng.random() < 0.65:
        sx, sy = rng.uniform(0.05, 0.95) * lw, rng.uniform(0.05, 0.95) * lh
    else:  # source just outside the frame
        side = rng.integers(4)
        t = rng.uniform(0, 1)
        off = rng.uniform(0.02, 0.25)
        sx = [t * lw, t * lw, -off * lw, (1 + off) * lw][side]
        sy = [-off * lh, (1 + off) * lh, t * lh, t * lh][side]
    color = np.array([rng.uniform(0.55, 1.0), rng.uniform(0.8, 1.0), 1.0], np.float32)
    y, x = np.mgrid[0:lh, 0:lw].astype(np.float32)
    r = np.sqrt((x - sx) ** 2 + (y - sy) ** 2)
    glare = np.zeros((lh, lw, 3), np.float32)
    # Veiling glare around the source.
    r0 = rng.uniform(0.03, 0.12) * diag
    glow = rng.uniform(0.6, 2.5) / (1.0 + (r / r0) ** 2) ** rng.uniform(0.9, 1.4)
    glare += glow[..., None].astype(np.float32) * color
    # Streaks (aperture blades and scratches).
    n_streaks = int(rng.choice([0, 4, 6, 8, 12]))
    if n_streaks:
        canvas = np.zeros((lh, lw), np.float32)
        a0 = rng.uniform(0, math.pi)
        for i in range(n_streaks):
            a = a0 + i * 2 * math.pi / n_streaks + rng.normal(0, 0.03)
            length = rng.uniform(0.2, 0.7) * diag
            steps = 12
            for j in range(steps):
                t0, t1 = j / steps * length, (j + 1) / steps * length
                val = rng.uniform(0.3, 0.9) * (1 - j / steps) ** 1.5
                p0 = (int(sx + t0 * math.cos(a)), int(sy + t0 * math.sin(a)))
                p1 = (int(sx + t1 * math.cos(a)), int(sy + t1 * math.sin(a)))
                cv2.line(canvas, p0, p1, float(val), 1, cv2.LINE_AA)
        canvas = cv2.GaussianBlur(canvas, (0, 0), 0.7)
        glare += canvas[..., None] * color
    # Ghosts: reflections between lens elements, mirrored through the centre.
    n_ghosts = int(rng.integers(2, 8))
    cx, cy = lw / 2, lh / 2
    for _ in range(n_ghosts):
        t = rng.uniform(-1.6, 0.6)
        gx, gy = cx + t * (sx - cx), cy + t * (sy - cy)
        gr = rng.uniform(0.015, 0.09) * diag
        gcol = (rng.uniform(0.3, 1.0, 3) * rng.uniform(0.04, 0.2)).astype(np.float32)
        one = np.zeros((lh, lw), np.float32)
        if rng.random() < 0.5:
            cv2.circle(one, (int(gx), int(gy)), int(gr), 1.0, -1, cv2.LINE_AA)
        else:
            pts = [(gx + gr * math.cos(k * math.pi / 3 + 0.3),
                    gy + gr * math.sin(k * math.pi / 3 + 0.3)) for k in range(6)]
            cv2.fillPoly(one, [np.int32(pts)], 1.0, cv2.LINE_AA)
        one = cv2.GaussianBlur(one, (0, 0), max(0.5, gr * rng.uniform(0.05, 0.3)))
        glare += one[..., None] * gcol
    veil = rng.uniform(0.0, 0.08)
    glare += (veil * color).astype(np.float32)
    glare = cv2.resize(glare, (w, h), interpolation=cv2.INTER_LINEAR)
    fr.lin = cv2.scaleAdd(fr.lin, float(1 - veil), glare)
    return float(np.mean(np.abs(fr.view() - base_view))) >= 10.0


def half_grid(fr):
    """Size and coordinates of a half-size grid: moire bands are at least a few
    network pixels wide, so patterns are computed there and interpolated up."""
    h, w = fr.h // 2, fr.w // 2
    return h, w, np.arange(w, dtype=np.float32)[None, :], np.arange(h, dtype=np.float32)[:, None]


def apply_moire(fr, rng):
    base_view = fr.view()
    h, w, x, y = half_grid(fr)
    diag = math.hypot(w, h)
    layers = 1 if rng.random() < 0.6 else 2
    total = np.zeros((h, w, 3), np.float32)
    for _ in range(layers):
        period = rng.uniform(2.6, 12.0) * fr.scale / 2
        ang = rng.uniform(0, math.pi)
        curv = rng.uniform(-0.5, 0.5) / (diag * period)
        phase = (x * (math.cos(ang) / period) + curv * (x - w / 2) ** 2) + \
                (y * (math.sin(ang) / period) + curv * (y - h / 2) ** 2)
        phase += np.float32(rng.uniform(0.5, 3.0)) * smooth_field(rng, h, w, 3)
        phase *= np.float32(2 * math.pi)
        offs = rng.uniform(0.3, 1.0) * np.array([0, 2.1, 4.2])
        for c in range(3):
            total[..., c] += np.cos(phase + np.float32(offs[c]))
    # Bands fade in and out across the screen.
    env = np.clip(0.6 + 0.6 * smooth_field(rng, h, w, 3), 0.25, 1.0)
    env *= np.float32(rng.uniform(0.12, 0.4) / layers)
    total *= env[..., None]
    total += 1.0
    fr.lin = fr.lin * cv2.resize(total, (fr.w, fr.h), interpolation=cv2.INTER_LINEAR)
    return float(np.std(fr.view() - base_view)) >= 6.0


def _defocus(fr, rng, kernel, radius):
    base = edge_strength(luma(fr.view()))
    fr.lin = convolve_large(fr.lin, kernel, radius, boost=rng.uniform(1.0, 6.0))
    after = edge_strength(luma(fr.view()))
    return base, after


# Defocus radii in network pixels: a gap between slight and strong defocus
# keeps the two classes apart; frames of clean captures stay below 0.35.
# At 224 these are 0.54-0.89 % and 1.3-4 % of the long side.
MILD_RADIUS = (1.2, 2.0)
STRONG_RADIUS = (3.0, 9.0)
# Motion smear: 2-5 % of the long side at 224.
MOTION_LENGTH = (4.5, 11.2)
# Shadows cover at least about 15 % of the frame.
SHADOW_AREA = (0.15, 0.65)
# Underexposure: mean brightness below about 45 of 255.
LOW_LIGHT_MEAN = 45.0


def low_light_visible(fr, base_y):
    y = float(np.mean(luma(fr.view())))
    return y <= LOW_LIGHT_MEAN and y <= 0.55 * base_y


def apply_blur(fr, rng):
    radius = rng.uniform(*STRONG_RADIUS) * fr.scale
    base, after = _defocus(fr, rng, disk_kernel(radius), radius)
    return after <= 0.3 * base


def apply_mild_blur(fr, rng):
    radius = rng.uniform(*MILD_RADIUS) * fr.scale
    base, after = _defocus(fr, rng, disk_kernel(radius), radius)
    return after <= 0.7 * base


def apply_donut_blur(fr, rng):
    radius = rng.uniform(*STRONG_RADIUS) * fr.scale
    k = disk_kernel(radius, inner_ratio=rng.uniform(0.4, 0.7), rim=rng.uniform(0, 1.5))
    base, after = _defocus(fr, rng, k, radius)
    return after <= 0.4 * base


def apply_motion(fr, rng):
    length = rng.uniform(*MOTION_LENGTH) * fr.scale
    k = path_kernel(rng, length)
    base = edge_strength(luma(fr.view()))
    fr.lin = convolve_large(fr.lin, k, length / 2)
    after = edge_strength(luma(fr.view()))
    return after <= 0.5 * base


def apply_low_light(fr, rng):
    base_y = float(np.mean(luma(fr.view())))
    gain = np.float32(rng.uniform(0.03, 0.16))
    dark = fr.lin * gain
    h, w = fr.h, fr.w
    # Shot noise grows with the signal, read noise does not; demosaicing and
    # in-camera denoising leave it partly blotchy.
    shot = rng.uniform(0.0003, 0.0025)
    read = rng.uniform(0.001, 0.006)
    sd = cv2.sqrt(dark * np.float32(shot) + np.float32(read * read))
    blot_s = rng.uniform(1.5, 3.0)
    blot = cv2.resize(noise(rng, int(h / blot_s), int(w / blot_s)), (w, h),
                      interpolation=cv2.INTER_LINEAR)
    mix = rng.uniform(0.3, 0.8)
    field = cv2.addWeighted(noise(rng, h, w), 1 - mix, blot, mix * 1.6, 0.0)
    field *= sd
    field += dark
    fr.lin = np.maximum(field, 0.0)
    return low_light_visible(fr, base_y)


def apply_ldr(img, rng):
    """Display-space float [0,255] in, out. Clips and compresses the range."""
    if rng.random() < 0.5:
        lo, hi = rng.uniform(0.08, 0.3), rng.uniform(0.55, 0.85)
    else:  # overexposed capture: highlights blown, little shadow loss
        e = rng.uniform(1.6, 3.0)
        lo, hi = rng.uniform(0.0, 0.12), 1.0 / e
    y = (img - np.float32(lo * 255)) * np.float32(1.0 / (hi - lo))
    np.clip(y, 0, 255, out=y)
    if rng.random() < 0.4:  # few tonal levels left: banding
        step = 255.0 / rng.integers(12, 40)
        y = np.round(y / step) * np.float32(step)
    return y


def clipped_fraction(view):
    peak = view.max(axis=2)
    return float(np.mean((peak >= 250) | (peak <= 6)))


def ldr_visible(before, after, net_size):
    a = quick_view(after, net_size)
    b = quick_view(before, net_size)
    clipped = clipped_fraction(a)
    # About a fifth of the frame newly clipped, at an ordinary mean brightness
    # (a dark frame is LowLight's).
    return clipped >= 0.25 and clipped - clipped_fraction(b) >= 0.18 and \
        40.0 <= float(np.mean(a)) <= 215.0 and \
        float(np.mean(np.abs(a - b))) >= 12.0


def noise_field(rng, h, w, target_std, net_size, chroma=True):
    """Luminance and chroma noise whose std at the network size is target_std."""
    ls = rng.uniform(1.0, 2.5)
    lum_c = cv2.resize(noise(rng, int(h / ls), int(w / ls), 1), (w, h),
                       interpolation=cv2.INTER_LINEAR)
    mix = rng.uniform(0.2, 0.8)
    lum = cv2.addWeighted(noise(rng, h, w, 1), 1 - mix, lum_c, mix, 0.0)
    field = cv2.merge([lum, lum, lum])
    if chroma:
        cs = rng.uniform(2.0, 6.0)
        col = cv2.resize(noise(rng, int(h / cs), int(w / cs)), (w, h),
                         interpolation=cv2.INTER_LINEAR)
        field = cv2.scaleAdd(col, float(rng.uniform(0.2, 1.0)), field)
    measured = float(np.std(quick_view(field, net_size)))
    field *= np.float32(target_std / max(measured, 1e-6))
    return field


def apply_noise(img, rng, net_size, target=None):
    h, w = img.shape[:2]
    faint = target is not None
    target = rng.uniform(4.0, 12.0) if target is None else target
    field = noise_field(rng, h, w, target, net_size, chroma=not faint)
    # Sensors are noisier in the shadows.
    weight = 1.25 - luma(img) * np.float32(0.5 / 255.0)
    field *= weight[..., None]
    return img + field
