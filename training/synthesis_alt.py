"""A second, independently modelled renderer for every artifact, and the camera chain.

synthesis.py draws each artifact one way; a network trained on one renderer learns
its signature (a ramp-masked ghost, a disk kernel, one kind of band). The renderers
here use other physical models for the same faults, with the same visibility
checks at the network size, so a frame is labelled only when the fault shows:

- Reflection: screen blend of a bright room (windows, lamps, a defocused photo) with
  a Fresnel-like strength that grows towards one edge;
- Shadow: dappled foliage or a hand with a penumbra that widens with distance;
- Flare: contrast-robbing veil from a long-tailed spread of the frame's own
  highlights, a halo ring, chromatic ghost polygons and a ray starburst; or the sun
  (or a pair of lamps) inside a frame exposed for it, with small coloured ghosts;
- Moire: beats of two fine gratings (a display's pixel grid against the sensor's)
  low-passed to their difference frequency;
- DonutBlur, Blur, MildBlur: Gaussian-edged rings, polygonal apertures and
  aberrated (centre- or edge-weighted) disks;
- OtherBlur: rotation about a point, or a jittery shake path with varying speed;
- LDR: exposure in linear light and a hard sensor clip, or a steep tone curve;
- LowLight: per-channel raw-like shot and read noise after white-balance gains,
  then in-camera smoothing;
- Noise: heteroscedastic per-channel raw noise in linear light.
"""
import math

import cv2
import numpy as np

import synthesis as syn


# --------------------------------------------------------------------------
# Reflection


def _room(rng, h, w, other_lin):
    """What glass mirrors: a defocused photo with bright windows and lamps."""
    room = other_lin * np.float32(rng.uniform(0.4, 1.0))
    lw, lh = max(16, w // 8), max(16, h // 8)
    lights = np.zeros((lh, lw, 3), np.float32)
    for _ in range(int(rng.integers(1, 6))):
        col = rng.uniform(0.6, 1.0, 3).astype(np.float32) * np.float32(rng.uniform(0.5, 1.6))
        if rng.random() < 0.6:  # a window
            x0, y0 = rng.uniform(0, lw), rng.uniform(0, lh)
            cv2.rectangle(lights, (int(x0), int(y0)),
                          (int(x0 + rng.uniform(0.1, 0.4) * lw), int(y0 + rng.uniform(0.1, 0.5) * lh)),
                          tuple(float(c) for c in col), -1)
        else:  # a lamp
            cv2.circle(lights, (int(rng.uniform(0, lw)), int(rng.uniform(0, lh))),
                       int(rng.uniform(0.02, 0.08) * lw) + 1, tuple(float(c) for c in col), -1)
    lights = cv2.resize(lights, (w, h), interpolation=cv2.INTER_LINEAR)
    return room + lights


def apply_reflection(fr, rng, other_lin):
    base_view = fr.view()
    s = fr.scale
    room = syn.gaussian_large(_room(rng, fr.h, fr.w, other_lin), rng.uniform(0.0, 1.8) * s)
    if rng.random() < 0.3:
        room = room[:, ::-1]
    x, y = fr.coords()
    ang = rng.uniform(0, 2 * math.pi)
    t = np.clip((x / fr.w - 0.5) * math.cos(ang) + (y / fr.h - 0.5) * math.sin(ang) + 0.5, 0, 1)
    # Reflectance rises steeply towards grazing angles (Fresnel): a power of the ramp.
    r0, r1 = rng.uniform(0.08, 0.3), rng.uniform(0.35, 0.7)
    refl = (r0 + (r1 - r0) * t ** rng.uniform(1.0, 3.0)).astype(np.float32)
    ghost = room * refl[..., None]
    # Screen blend: glass adds light but never beyond white.
    fr.lin = 1.0 - (1.0 - np.clip(fr.lin, 0, 1)) * (1.0 - np.clip(ghost, 0, 1))
    after = fr.view()
    added = after - fr.view(np.clip(fr.lin - ghost, 0, None))
    return syn.ghost_shows(base_view, after, added)


# --------------------------------------------------------------------------
# Shadow


def _capsule(m, a, b, width):
    cv2.line(m, (int(a[0]), int(a[1])), (int(b[0]), int(b[1])), 1.0, max(1, int(width)))


def _person(rng, m, lh, lw):
    """The photographer's own shadow: from the bottom edge (or a side), head,
    torso and arms, stretched or shortened by the sun's height."""
    edge = rng.integers(3)  # bottom, left, right
    base = [(rng.uniform(0.2, 0.8) * lw, lh), (0, rng.uniform(0.4, 1.0) * lh),
            (lw, rng.uniform(0.4, 1.0) * lh)][edge]
    toward = [-math.pi / 2, -rng.uniform(0.3, 0.8), -math.pi + rng.uniform(0.3, 0.8)][edge]
    ang = toward + rng.uniform(-0.5, 0.5)
    u = np.array([math.cos(ang), math.sin(ang)])
    v = np.array([-u[1], u[0]])
    length = rng.uniform(0.6, 1.3) * max(lw, lh)
    width = length * rng.uniform(0.16, 0.3)
    b = np.array(base, float) - u * rng.uniform(0.0, 0.3) * length
    shoulder = b + u * 0.72 * length
    _capsule(m, b, shoulder, width)
    cv2.circle(m, tuple(int(c) for c in shoulder + u * 0.15 * length),
               int(length * 0.08) + 1, 1.0, -1)
    for side in (-1, 1):
        if rng.random() < 0.3:
            continue  # that arm hidden behind the body
        a = toward + side * rng.uniform(0.2, 2.2)
        root = shoulder + side * v * width * 0.45
        hand = root + np.array([math.cos(a), math.sin(a)]) * length * rng.uniform(0.3, 0.5)
        _capsule(m, root, hand, width * 0.28)
        if rng.random() < 0.5:  # holding the phone up
            cv2.circle(m, (int(hand[0]), int(hand[1])), int(width * 0.3) + 1, 1.0, -1)


def _hand(rng, m, lh, lw):
    """A hand with spread or closed fingers reaching in from an edge."""
    edge = rng.integers(4)
    c = np.array([rng.uniform(0.25, 0.75) * lw, rng.uniform(0.25, 0.75) * lh])
    e = np.array([[c[0], 0], [c[0], lh], [0, c[1]], [lw, c[1]]][edge], float)
    e += rng.uniform(-0.2, 0.2, 2) * [lw, lh]
    d = c - e
    d /= max(np.linalg.norm(d), 1e-6)
    palm = rng.uniform(0.08, 0.16) * max(lw, lh)
    _capsule(m, e - d * palm, c, palm * rng.uniform(1.0, 1.5))
    cv2.circle(m, (int(c[0]), int(c[1])), int(palm), 1.0, -1)
    base = math.atan2(d[1], d[0])
    spread = rng.uniform(0.12, 0.35)
    for k in range(4):
        a = base + (k - 1.5) * spread
        f = np.array([math.cos(a), math.sin(a)])
        start = c + f * palm * 0.7
        _capsule(m, start, start + f * palm * rng.uniform(1.2, 2.0), palm * 0.5)
    a = base + (1 if rng.random() < 0.5 else -1) * rng.uniform(0.9, 1.5)
    f = np.array([math.cos(a), math.sin(a)])
    _capsule(m, c + f * palm * 0.5, c + f * palm * 1.8, palm * 0.55)


def _branches(rng, m, lh, lw):
    """Bare branches: a trunk from an edge splitting into thinner twigs."""
    tips = [(np.array([rng.uniform(0, lw), lh + 2.0]), -math.pi / 2 + rng.uniform(-0.6, 0.6),
             rng.uniform(0.05, 0.1) * max(lw, lh), 0)]
    while tips:
        p, a, width, depth = tips.pop()
        seg = max(lw, lh) * rng.uniform(0.12, 0.25)
        q = p + seg * np.array([math.cos(a), math.sin(a)])
        _capsule(m, p, q, width)
        if depth < 6 and width > 0.6:
            for _ in range(int(rng.integers(2, 4))):
                tips.append((q, a + rng.uniform(-0.8, 0.8), width * rng.uniform(0.6, 0.85),
                             depth + 1))


def _occluder(rng, lh, lw):
    m = np.zeros((lh, lw), np.float32)
    kind = rng.random()
    if kind < 0.25:  # foliage: many overlapping leaves
        cx, cy = rng.uniform(0, lw), rng.uniform(0, lh)
        spread = rng.uniform(0.2, 0.6) * max(lw, lh)
        for _ in range(int(rng.integers(20, 80))):
            px, py = cx + rng.normal(0, spread), cy + rng.normal(0, spread)
            a = rng.uniform(0.02, 0.08) * max(lw, lh)
            cv2.ellipse(m, (int(px), int(py)), (int(a), int(a * rng.uniform(0.3, 0.7))),
                        rng.uniform(0, 180), 0, 360, 1.0, -1)
    elif kind < 0.4:  # hand or phone from an edge: a rounded bar with a blob at the tip
        edge = rng.integers(4)
        tipx, tipy = rng.uniform(0.25, 0.75) * lw, rng.uniform(0.25, 0.75) * lh
        ex = [tipx, tipx, 0, lw][edge]
        ey = [0, lh, tipy, tipy][edge]
        width = int(rng.uniform(0.15, 0.35) * min(lw, lh))
        _capsule(m, (ex, ey), (tipx, tipy), width)
        cv2.circle(m, (int(tipx), int(tipy)), int(width * rng.uniform(0.6, 1.1)), 1.0, -1)
    elif kind < 0.65:
        _person(rng, m, lh, lw)
    elif kind < 0.85:
        _hand(rng, m, lh, lw)
    else:
        _branches(rng, m, lh, lw)
    return m


def apply_shadow(fr, rng):
    lh, lw = max(16, fr.h // 8), max(16, fr.w // 8)
    for _ in range(6):
        m = _occluder(rng, lh, lw)
        if syn.SHADOW_AREA[0] <= float(m.mean()) <= syn.SHADOW_AREA[1] + 0.05:
            break
    else:
        return False
    # The penumbra widens away from the occluder's contact side: two blurs mixed.
    sharp = cv2.GaussianBlur(m, (0, 0), rng.uniform(0.3, 1.5))
    soft = cv2.GaussianBlur(m, (0, 0), rng.uniform(2.0, 6.0))
    mix = np.clip(syn.smooth_field(rng, lh, lw, 2) * 0.5 + 0.5, 0, 1)
    m = sharp * (1 - mix) + soft * mix
    mask = cv2.resize(m, (fr.w, fr.h), interpolation=cv2.INTER_LINEAR)
    base_view = fr.view()
    # Direct light removed, ambient (sky or room) remains with its own colour.
    keep = rng.uniform(0.1, 0.45)
    ambient = np.array([rng.uniform(0.9, 1.4), 1.0, rng.uniform(0.75, 1.05)], np.float32) * keep
    factor = 1.0 - mask[..., None] * (1.0 - np.clip(ambient, 0, 1))
    fr.lin = fr.lin * factor
    return syn.shadow_shows(base_view, fr.view(), syn.quick_view(mask, fr.net_size))


# --------------------------------------------------------------------------
# Flare


_GHOST_TINTS = np.array([[0.3, 1.0, 0.4], [1.0, 0.3, 0.9], [0.2, 0.6, 1.0], [1.0, 0.6, 0.2],
                         [0.5, 1.0, 1.0]], np.float32)  # BGR: green, magenta, orange, blue, yellow


def _sun_in_frame(fr, rng):
    """The sun or a pair of lamps inside the frame, the exposure set by them: the scene
    darkens, the source clips (hidden where the scene's own dark shapes stand in
    front of it), and small, saturated ghosts line up through the centre."""
    h, w = fr.h, fr.w
    lw, lh = w // 4, h // 4
    diag = math.hypot(lw, lh)
    lin = fr.lin * np.float32(rng.uniform(0.45, 0.85))
    base_view = fr.view(lin)
    if syn.luma(base_view).mean() < 60:  # darker would read as LowLight
        lin, base_view = fr.lin, fr.view()
    sx, sy = rng.uniform(0.1, 0.9) * lw, rng.uniform(0.05, 0.6) * lh
    sources = [(sx, sy)]
    if rng.random() < 0.3:  # headlights
        sources.append((sx + rng.uniform(0.05, 0.2) * lw * rng.choice([-1, 1]),
                        sy + rng.normal(0, 0.01) * lh))
    y, x = np.mgrid[0:lh, 0:lw].astype(np.float32)
    small = cv2.resize(cv2.cvtColor(fr.lin, cv2.COLOR_BGR2GRAY), (lw, lh),
                       interpolation=cv2.INTER_AREA)
    # Bright parts of the scene (sky) let the source through; dark shapes hide it.
    through = np.clip(small / max(float(np.quantile(small, 0.8)), 1e-4), 0, 1) ** 2
    tint = np.array([rng.uniform(0.75, 1.0), rng.uniform(0.9, 1.0), 1.0], np.float32)
    glare = np.zeros((lh, lw, 3), np.float32)
    core_r = rng.uniform(0.008, 0.03) * diag
    glow_r = rng.uniform(0.03, 0.12) * diag
    for px, py in sources:
        r2 = (x - px) ** 2 + (y - py) ** 2
        core = np.float32(rng.uniform(3, 8)) * np.exp(-r2 / (2 * core_r ** 2)) * through
        glow = np.float32(rng.uniform(0.4, 1.5)) * glow_r ** 2 / (r2 + glow_r ** 2)
        glare += (core + glow)[..., None] * tint
    cx, cy = lw / 2, lh / 2
    for _ in range(int(rng.integers(2, 9))):
        t = rng.uniform(-1.5, 0.7)
        gx, gy = cx + t * (sx - cx), cy + t * (sy - cy)
        gr = rng.uniform(0.008, 0.05) * diag
        one = np.zeros((lh, lw), np.float32)
        if rng.random() < 0.7:
            cv2.circle(one, (int(gx), int(gy)), max(1, int(gr)), 1.0, -1, cv2.LINE_AA)
        else:  # a ring
            cv2.circle(one, (int(gx), int(gy)), max(1, int(gr)), 1.0,
                       max(1, int(gr * 0.25)), cv2.LINE_AA)
        one = cv2.GaussianBlur(one, (0, 0), max(0.5, gr * rng.uniform(0.1, 0.4)))
        colour = _GHOST_TINTS[rng.integers(len(_GHOST_TINTS))] * np.float32(rng.uniform(0.08, 0.4))
        glare += one[..., None] * colour
    fr.lin = lin + cv2.resize(glare, (w, h), interpolation=cv2.INTER_LINEAR)
    return float(np.mean(np.abs(fr.view() - base_view))) >= 6.0


def apply_flare(fr, rng):
    if rng.random() < 0.35:
        return _sun_in_frame(fr, rng)
    base_view = fr.view()
    h, w = fr.h, fr.w
    lw, lh = w // 4, h // 4
    diag = math.hypot(lw, lh)
    sx, sy = rng.uniform(-0.15, 1.15) * lw, rng.uniform(-0.15, 1.15) * lh
    tint = np.array([rng.uniform(0.7, 1.0), rng.uniform(0.85, 1.0), rng.uniform(0.9, 1.0)],
                    np.float32)[rng.permutation(3) if rng.random() < 0.2 else [0, 1, 2]]
    y, x = np.mgrid[0:lh, 0:lw].astype(np.float32)
    dx, dy = x - sx, y - sy
    r = np.sqrt(dx * dx + dy * dy) + 1e-3
    glare = np.zeros((lh, lw, 3), np.float32)
    # Starburst: rays from an angular cosine power, falling off with distance.
    if rng.random() < 0.7:
        n = int(rng.choice([5, 6, 7, 8, 9]))
        theta = np.arctan2(dy, dx) + rng.uniform(0, math.pi)
        rays = np.abs(np.cos(theta * n / 2)) ** rng.uniform(20, 120)
        glare += (rays * rng.uniform(0.3, 1.2) / (1 + r / (0.05 * diag)))[..., None] * tint
    # Halo: a thin bright ring around the source.
    if rng.random() < 0.5:
        rr = rng.uniform(0.1, 0.35) * diag
        ring = np.exp(-((r - rr) / (rng.uniform(0.005, 0.02) * diag)) ** 2)
        glare += (ring * rng.uniform(0.1, 0.4))[..., None] * tint[::-1]
    # Ghost polygons with chromatic edges along the axis through the centre.
    cx, cy = lw / 2, lh / 2
    for _ in range(int(rng.integers(1, 7))):
        t = rng.uniform(-1.8, 0.8)
        gx, gy = cx + t * (sx - cx), cy + t * (sy - cy)
        gr = rng.uniform(0.02, 0.12) * diag
        sides = int(rng.choice([5, 6, 7, 8]))
        for c, grow in enumerate((0.97, 1.0, 1.03)):
            one = np.zeros((lh, lw), np.float32)
            pts = [(gx + gr * grow * math.cos(k * 2 * math.pi / sides),
                    gy + gr * grow * math.sin(k * 2 * math.pi / sides)) for k in range(sides)]
            cv2.fillPoly(one, [np.int32(pts)], 1.0, cv2.LINE_AA)
            glare[..., c] += cv2.GaussianBlur(one, (0, 0), max(0.5, 0.1 * gr)) * \
                np.float32(rng.uniform(0.03, 0.15))
    # Veil: a long-tailed spread of the source's light over the whole frame.
    core = rng.uniform(0.5, 2.0) * (0.04 * diag) ** 2 / (r * r + (0.04 * diag) ** 2)
    glare += core[..., None].astype(np.float32) * tint
    glare = cv2.resize(glare, (w, h), interpolation=cv2.INTER_LINEAR)
    veil = np.float32(rng.uniform(0.03, 0.2))
    mean = fr.lin.reshape(-1, 3).mean(0)
    fr.lin = fr.lin * (1 - veil) + veil * mean.astype(np.float32) * 2.0 + glare
    return float(np.mean(np.abs(fr.view() - base_view))) >= 10.0


# --------------------------------------------------------------------------
# Moire


def apply_moire(fr, rng):
    base_view = fr.view()
    h, w, x, y = syn.half_grid(fr)
    # Two gratings of nearly the same fine frequency; their product holds the sum
    # (removed by the low-pass, as the sensor's pixels would) and the difference,
    # which is the visible band.
    beat = rng.uniform(2.6, 12.0) * fr.scale / 2  # band period, half-size pixels
    f1 = rng.uniform(0.25, 0.45)  # cycles per half-size pixel
    a1 = rng.uniform(0, math.pi)
    k1 = np.array([math.cos(a1), math.sin(a1)]) * f1
    da = rng.uniform(0, 2 * math.pi)
    k2 = k1 + np.array([math.cos(da), math.sin(da)]) / beat
    warp = np.float32(rng.uniform(0.0, 2.0)) * syn.smooth_field(rng, h, w, 3)
    total = np.zeros((h, w, 3), np.float32)
    for c in range(3):
        shift = rng.uniform(0, 2 * math.pi) if rng.random() < 0.7 else 0.0
        g1 = np.cos(2 * math.pi * (x * k1[0] + y * k1[1]) + shift)
        g2 = np.cos(2 * math.pi * (x * k2[0] + y * k2[1]) + warp * 2 * math.pi + 2 * shift)
        total[..., c] = g1 * g2
    sigma = 0.3 / f1  # removes the sum frequency, keeps the beat
    total = cv2.GaussianBlur(total, (0, 0), sigma) * np.float32(2.0)
    env = np.clip(0.5 + 0.7 * syn.smooth_field(rng, h, w, 2), 0.2, 1.0)
    total *= (env * np.float32(rng.uniform(0.2, 0.5)))[..., None]
    total += 1.0
    fr.lin = fr.lin * cv2.resize(total, (fr.w, fr.h), interpolation=cv2.INTER_LINEAR)
    return float(np.std(fr.view() - base_view)) >= 6.0


# --------------------------------------------------------------------------
# Defocus kernels of another shape


def polygon_kernel(radius, sides, rot, profile):
    """Aperture of `sides` blades; profile > 0 brightens the rim (over-corrected
    lens), < 0 the centre (under-corrected), 0 flat."""
    n = int(math.ceil(radius)) + 2
    size = 2 * n + 1
    k = np.zeros((size * 4, size * 4), np.float32)
    c = size * 2
    pts = [(c + 4 * radius * math.cos(rot + i * 2 * math.pi / sides),
            c + 4 * radius * math.sin(rot + i * 2 * math.pi / sides)) for i in range(sides)]
    cv2.fillPoly(k, [np.int32(pts)], 1.0, cv2.LINE_AA)
    k = cv2.resize(k, (size, size), interpolation=cv2.INTER_AREA)
    yy, xx = np.mgrid[-n:n + 1, -n:n + 1].astype(np.float32)
    d = np.sqrt(xx * xx + yy * yy) / max(radius, 1e-3)
    k *= np.clip(1.0 + profile * (d - 0.5), 0.1, None)
    return k / k.sum()


def gaussian_ring_kernel(radius, inner_ratio, width):
    n = int(math.ceil(radius * 1.2)) + 2
    yy, xx = np.mgrid[-n:n + 1, -n:n + 1].astype(np.float32)
    d = np.sqrt(xx * xx + yy * yy)
    mid = radius * (1 + inner_ratio) / 2
    half = radius * (1 - inner_ratio) / 2
    k = np.exp(-np.maximum(np.abs(d - mid) - half, 0) ** 2 / (2 * (width * radius) ** 2))
    return (k / k.sum()).astype(np.float32)


def _aperture(rng, radius):
    if rng.random() < 0.5:
        return polygon_kernel(radius, int(rng.integers(5, 10)), rng.uniform(0, math.pi),
                              rng.uniform(-0.8, 0.8))
    sigma = radius / 1.8  # a Gaussian of about the same spread as the disk
    n = int(math.ceil(3 * sigma)) + 1
    k = cv2.getGaussianKernel(2 * n + 1, sigma)
    return (k @ k.T).astype(np.float32)


def apply_blur(fr, rng):
    radius = rng.uniform(*syn.STRONG_RADIUS) * fr.scale
    base, after = syn._defocus(fr, rng, _aperture(rng, radius), radius)
    return after <= 0.3 * base


def apply_mild_blur(fr, rng):
    radius = rng.uniform(*syn.MILD_RADIUS) * fr.scale
    base, after = syn._defocus(fr, rng, _aperture(rng, radius), radius)
    return after <= 0.7 * base


def apply_donut_blur(fr, rng):
    radius = rng.uniform(*syn.STRONG_RADIUS) * fr.scale
    k = gaussian_ring_kernel(radius, rng.uniform(0.35, 0.7), rng.uniform(0.03, 0.12))
    base, after = syn._defocus(fr, rng, k, radius)
    return after <= 0.4 * base


# --------------------------------------------------------------------------
# Motion


def shake_kernel(rng, length):
    """Hand shake: a jittery random walk whose speed varies (slow parts of the
    path collect more light)."""
    n = int(math.ceil(length)) + 3
    size = 2 * n + 1
    steps = max(16, int(length * 4))
    v = rng.normal(0, 1, (steps, 2))
    v = np.cumsum(v, 0) * 0.3 + rng.normal(0, 1, 2) * 2.0  # drifting velocity
    pts = np.cumsum(v, 0)
    span = np.max(np.linalg.norm(pts - pts.mean(0), axis=1)) * 2 + 1e-6
    pts = (pts - pts.mean(0)) * (length / span)
    k = np.zeros((size * 4, size * 4), np.float32)
    for p in (pts + n + 0.5) * 4:
        ix, iy = int(p[0]), int(p[1])
        if 0 <= ix < size * 4 and 0 <= iy < size * 4:
            k[iy, ix] += 1.0
    k = cv2.GaussianBlur(k, (0, 0), 1.5)
    k = cv2.resize(k, (size, size), interpolation=cv2.INTER_AREA)
    return k / max(k.sum(), 1e-6)


def _rotational(fr, rng, angle_deg):
    """Blur of a camera turning about a point near the frame: several rotated copies."""
    cx, cy = rng.uniform(-0.5, 1.5) * fr.w, rng.uniform(-0.5, 1.5) * fr.h
    f = 4
    small = cv2.resize(fr.lin, (fr.w // f, fr.h // f), interpolation=cv2.INTER_AREA)
    acc = np.zeros_like(small)
    steps = 15
    for i in range(steps):
        a = angle_deg * (i / (steps - 1) - 0.5)
        m = cv2.getRotationMatrix2D((cx / f, cy / f), a, 1.0)
        acc += cv2.warpAffine(small, m, (small.shape[1], small.shape[0]),
                              borderMode=cv2.BORDER_REFLECT)
    acc /= steps
    return cv2.resize(acc, (fr.w, fr.h), interpolation=cv2.INTER_LINEAR)


def apply_motion(fr, rng):
    base = syn.edge_strength(syn.luma(fr.view()))
    length = rng.uniform(*syn.MOTION_LENGTH) * fr.scale
    if rng.random() < 0.35:
        # Arc length at the frame centre of about `length` full-resolution pixels.
        cx_dist = math.hypot(fr.w, fr.h) * rng.uniform(0.4, 1.0)
        fr.lin = _rotational(fr, rng, math.degrees(length / cx_dist))
    else:
        fr.lin = syn.convolve_large(fr.lin, shake_kernel(rng, length), length / 2)
    after = syn.edge_strength(syn.luma(fr.view()))
    return after <= 0.5 * base


# --------------------------------------------------------------------------
# Exposure and sensor faults


def _backlit(lin, rng):
    """Exposed for the subject against a bright sky or window: the bright side of
    the scene (a fifth to a half of it, in smooth blobs) pushed past the clip."""
    y = cv2.cvtColor(lin, cv2.COLOR_BGR2GRAY)
    h, w = y.shape
    small = cv2.resize(y, (64, 64), interpolation=cv2.INTER_AREA)
    # Light comes from one side of the frame, most often above.
    ang = rng.uniform(-math.pi, 0) if rng.random() < 0.8 else rng.uniform(0, math.pi)
    gy, gx = np.mgrid[0:64, 0:64].astype(np.float32) / 63 - 0.5
    side = gx * math.cos(ang) + gy * math.sin(ang)
    score = cv2.GaussianBlur(small, (0, 0), rng.uniform(1.0, 4.0)) / max(float(small.mean()), 1e-4)
    score = score + rng.uniform(0.5, 2.0) * side
    frac = rng.uniform(0.22, 0.5)
    region = (score >= np.quantile(score, 1 - frac)).astype(np.float32)
    region = cv2.GaussianBlur(region, (0, 0), rng.uniform(0.5, 2.0))
    region = cv2.resize(region, (w, h), interpolation=cv2.INTER_LINEAR)[..., None]
    gain = np.float32(rng.uniform(4.0, 12.0))
    lin = lin * (1 + region * (gain - 1)) + region * np.float32(rng.uniform(0.3, 0.8))
    lin *= np.float32(rng.uniform(0.8, 1.3))
    return np.sqrt(np.clip(lin, 0, 1)) * np.float32(255.0)


def apply_ldr(img, rng):
    """Display-space float [0,255] in, out: a backlit capture, or exposure in linear
    light, a hard sensor clip, then a steep tone curve that crushes the shadows."""
    backlit = rng.random() < 0.4
    lin = (img / np.float32(255.0)) ** 2
    if backlit:
        return _backlit(lin, rng)
    lin *= np.float32(rng.uniform(2.0, 5.0) if rng.random() < 0.7 else rng.uniform(0.8, 1.4))
    np.clip(lin, 0, 1, out=lin)
    disp = np.sqrt(lin)
    k = rng.uniform(8, 16)  # logistic tone curve
    mid = rng.uniform(0.35, 0.6)
    curve = 1 / (1 + np.exp(-k * (disp - mid)))
    lo, hi = 1 / (1 + math.exp(k * mid)), 1 / (1 + math.exp(-k * (1 - mid)))
    out = (curve - lo) / (hi - lo) * 255.0
    return np.clip(out, 0, 255).astype(np.float32)


def _raw_noise(rng, lin, shot, read, gains):
    """Per-channel heteroscedastic noise of a raw sensor, after white-balance gains."""
    h, w = lin.shape[:2]
    raw = lin / gains
    sd = np.sqrt(np.maximum(raw, 0) * np.float32(shot) + np.float32(read * read))
    out = (raw + sd * syn.noise(rng, h, w)) * gains
    # Demosaicing correlates neighbours a little.
    return cv2.GaussianBlur(out, (0, 0), rng.uniform(0.4, 0.9))


def apply_low_light(fr, rng):
    base_y = float(np.mean(syn.luma(fr.view())))
    gains = np.array([rng.uniform(1.3, 2.2), 1.0, rng.uniform(1.2, 2.0)], np.float32)
    dark = fr.lin * np.float32(rng.uniform(0.03, 0.15))
    noisy = _raw_noise(rng, dark, rng.uniform(0.0005, 0.003), rng.uniform(0.002, 0.008), gains)
    if rng.random() < 0.5:  # in-camera denoising leaves blotches
        noisy = cv2.GaussianBlur(noisy, (0, 0), rng.uniform(1.0, 2.5))
    fr.lin = np.maximum(noisy, 0.0)
    return syn.low_light_visible(fr, base_y)


def apply_noise(img, rng, net_size):
    """Display-space float in, out: raw noise in linear light, scaled so that its
    std at the network size lies in Noise's range."""
    lin = (np.clip(img, 0, 255) / np.float32(255.0)) ** 2
    gains = np.array([rng.uniform(1.2, 2.2), 1.0, rng.uniform(1.1, 2.0)], np.float32)
    noisy = _raw_noise(rng, lin, rng.uniform(0.002, 0.02), rng.uniform(0.003, 0.02), gains)
    field = np.sqrt(np.clip(noisy, 0, None)) * np.float32(255.0) - np.clip(img, 0, 255)
    target = rng.uniform(4.0, 12.0)
    measured = float(np.std(syn.quick_view(field, net_size)))
    return img + field * np.float32(target / max(measured, 1e-6))


# --------------------------------------------------------------------------
# Camera chain: what a phone does to every frame after the optics and sensor.


def camera_chain(img_u8, rng):
    """Sharpening and JPEG at a varied quality, on the full frame."""
    out = img_u8
    if rng.random() < 0.7:
        amount = rng.uniform(0.2, 0.9)
        blur = cv2.GaussianBlur(out, (0, 0), rng.uniform(0.8, 2.0))
        out = cv2.addWeighted(out, 1 + amount, blur, -amount, 0)
    q = int(rng.integers(70, 97))
    ok, buf = cv2.imencode(".jpg", out, [cv2.IMWRITE_JPEG_QUALITY, q])
    return cv2.imdecode(buf, cv2.IMREAD_COLOR) if ok else out
