#!/usr/bin/python3
"""Writes the demo's sample photographs with synthesised artifacts into samples/.

Each is one of the freely licensed originals in samples/ with one artifact added by the
same synthesis as training (seeded, so rerunning writes the same pictures):

  /usr/bin/python3 training/make_samples.py
"""
import os

import cv2
import numpy as np

import synthesis as syn

HERE = os.path.dirname(os.path.abspath(__file__))
SAMPLES = os.path.join(os.path.dirname(HERE), "samples")
NET_SIZE = 224
JPEG_QUALITY = 92

# (original, artifact id, synthesis step, output name)
VARIANTS = [
    ("coffee.jpg", syn.BLUR, syn.apply_blur, "coffee_defocused.jpg"),
    ("chelsea.jpg", syn.LOWLIGHT, syn.apply_low_light, "chelsea_low_light.jpg"),
    ("astronaut.jpg", syn.FLARE, syn.apply_flare, "astronaut_flare.jpg"),
    ("rocket.jpg", syn.OTHERBLUR, syn.apply_motion, "rocket_shaken.jpg"),
]


def main():
    for i, (source, artifact, step, name) in enumerate(VARIANTS):
        rng = np.random.default_rng([2026, i])
        image = cv2.imread(os.path.join(SAMPLES, source), cv2.IMREAD_COLOR)
        for _ in range(20):  # until the artifact is visible at the network size
            frame = syn.Frame(syn.to_linear(image), NET_SIZE)
            if step(frame, rng):
                break
        out = np.clip(np.round(syn.to_display(frame.lin)), 0, 255).astype(np.uint8)
        cv2.imwrite(os.path.join(SAMPLES, name), out, [cv2.IMWRITE_JPEG_QUALITY, JPEG_QUALITY])
        print("%s: %s from %s" % (name, syn.CLASSES[artifact - 1], source))


if __name__ == "__main__":
    main()
