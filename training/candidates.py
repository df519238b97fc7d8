#!/usr/bin/python3
"""Size and forward time of the candidate architectures, as the detector
would run them: exported to ONNX the way export.py does, read with
cv2.dnn.readNetFromONNX, one thread, fed the HWC frame minus 128 laid out as
channels-first planes (what the reference inference library does).

  /usr/bin/python3 training/candidates.py [--archs cnn dwsep mnv2-s8 mnv2-s16]
                                          [--sizes 224 256 320] [--runs 60]
                                          [--out rows.json] [--onnx-dir DIR]
"""
import argparse
import json
import os
import tempfile
import time

import cv2
import numpy as np
import onnx
import torch

import model as M
from export import export_onnx


def dnn_forward_ms(path, size, runs):
    """Median and fastest wall time of one forward pass, input preparation
    included; on a shared machine the fastest is the better estimate."""
    net = cv2.dnn.readNetFromONNX(path)
    frame = np.random.default_rng(0).integers(0, 256, (size, size, 3), np.uint8)
    times = []
    for i in range(runs + 5):
        t0 = time.perf_counter()
        planes = (frame.astype(np.float32) - 128.0).transpose(2, 0, 1)[None]
        net.setInput(np.ascontiguousarray(planes))
        net.forward()
        if i >= 5:  # the first runs allocate
            times.append(time.perf_counter() - t0)
    return round(1000.0 * float(np.median(times)), 2), round(1000.0 * min(times), 2)


def check_export(net, path, size):
    """Largest difference between the training-form network, the exported
    (input-folded) one in torch and OpenCV's dnn, on one random frame."""
    frame = np.random.default_rng(1).integers(0, 256, (1, size, size, 3), np.uint8)
    x = torch.from_numpy(frame).permute(0, 3, 1, 2).float() - 128.0
    with torch.no_grad():
        before = net(x).numpy()
        if hasattr(net, "prepare_export"):
            net.prepare_export()
        after = net(x).numpy()
    export_onnx(net, size, path)
    dnn = cv2.dnn.readNetFromONNX(path)
    dnn.setInput(np.ascontiguousarray(x.numpy()))
    got = dnn.forward().reshape(after.shape)
    return float(np.abs(after - before).max()), float(np.abs(got - after).max())


def measure(arch, size, runs, workdir):
    torch.manual_seed(0)
    net = M.build(arch).eval()
    path = os.path.join(workdir, "%s_%d.onnx" % (arch, size))
    fold_diff, dnn_diff = check_export(net, path, size)
    params = sum(int(np.prod(t.dims)) for t in onnx.load(path).graph.initializer)
    median, fastest = dnn_forward_ms(path, size, runs)
    return {"arch": arch, "input": size, "params": params, "bytes": os.path.getsize(path),
            "forward_ms": median, "fastest_ms": fastest,
            "fold_max_diff": fold_diff, "dnn_max_diff": dnn_diff}


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--archs", nargs="+", default=["cnn", "dwsep", "mnv2-s8", "mnv2-s16"])
    p.add_argument("--sizes", nargs="+", type=int, default=[224, 256, 320])
    p.add_argument("--runs", type=int, default=60)
    p.add_argument("--out", help="also write the rows as JSON here")
    p.add_argument("--onnx-dir", help="keep the exported models here (ad_bench --model)")
    a = p.parse_args()
    cv2.setNumThreads(1)
    torch.set_num_threads(1)
    rows = []
    with tempfile.TemporaryDirectory() as tmp:
        workdir = a.onnx_dir or tmp
        os.makedirs(workdir, exist_ok=True)
        for arch in a.archs:
            for size in a.sizes:
                rows.append(measure(arch, size, a.runs, workdir))
                print(json.dumps(rows[-1]), flush=True)
    if a.out:
        with open(a.out, "w") as f:
            json.dump(rows, f, indent=1)


if __name__ == "__main__":
    main()
