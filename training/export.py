"""Calibrates the trained classifier for the detector's built-in thresholds,
exports it to ONNX and checks it with OpenCV's dnn reader.

Calibration: for every class the validation set gives the decision point
with the best F1; the cuts are then raised, all by the same clean-frame
quantile, until at most 5% of the clean validation frames would report
anything, and Blur's and MildBlur's until motion-blurred frames rarely
report them; OtherBlur's is lowered until most motion-blurred frames pass the
blur rule's limit. A per-class bias added to the output logit moves each cut
onto the class's built-in threshold, so the detector's unchanged rule
"probability strictly above threshold" reports there. The bias is folded into
the last layer, so the model stays a plain CNN.
"""
import argparse
import json
import math
import os
import shutil
import time

import cv2
import numpy as np
import onnx
import torch

import model as M
from synthesis import CLASSES

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
MODEL_DIR = os.path.join(REPO, "models", "artifact_detector")
ONNX_NAME = "artifact_detector.onnx"
OPSET = 11  # read by OpenCV 4.6's dnn module
MAX_BYTES = 8 * 1024 * 1024

# The detector's built-in thresholds, by class id.
THRESHOLDS = {1: 0.74, 2: 0.64, 3: 0.73, 4: 0.73, 5: 0.69, 6: 0.52, 7: 0.48,
              8: 0.72, 9: 0.2, 10: 0.58, 11: 1.0}
OTHERBLUR = 11
# OtherBlur is never reported with the built-in table; its score matters only
# through the blur rule's limit, so that is where its best point is placed.
OTHERBLUR_LIMIT = 0.6
MIN_PROBABILITY = np.float32(0.01)
CLEAN_REPORT_LIMIT = 0.05  # share of clean frames allowed to report anything
MOTION_AS_BLUR_LIMIT = 0.1  # share of motion-blurred frames reported as Blur or MildBlur
# Share of motion-blurred calibration frames with OtherBlur above 0.6. The aim is 85 % on
# collections the calibration never saw; a calibration placed exactly there lands
# a few points under it on them.
MOTION_RECALL = 0.9
BLUR, MILDBLUR = 6, 10


def logit(p):
    return math.log(p / (1.0 - p))


def detector_probabilities(logits):
    """The detector's logistic function: expf in single precision, the rest
    in double, rounded to single."""
    e = np.exp(-logits.astype(np.float32)).astype(np.float64)
    return (1.0 / (1.0 + e)).astype(np.float32)


def detector_decisions(logits, thresholds):
    """Per frame and class id 1..11: would the detector report it?"""
    p = detector_probabilities(logits[:, 1:12])
    th = np.array([np.float32(thresholds[c]) for c in range(1, 12)], np.float32)
    ok = (p > MIN_PROBABILITY) & (p <= np.float32(1.0)) & (th < p)
    # Blur rule: a confident OtherBlur withdraws Blur and MildBlur.
    strong_other = ok[:, OTHERBLUR - 1] & (p[:, OTHERBLUR - 1] > np.float32(0.6))
    ok[strong_other, 6 - 1] = False
    ok[strong_other, 10 - 1] = False
    return ok


def best_cut(scores, labels):
    """Logit cut with the best F1 for 'score > cut', midway between the two
    neighbouring validation scores."""
    order = np.argsort(-scores, kind="stable")
    s = scores[order]
    y = labels[order].astype(np.float64)
    tp = np.cumsum(y)
    fp = np.cumsum(1 - y)
    f1 = 2 * tp / (tp + fp + y.sum())
    k = int(np.argmax(f1))  # report the first k+1 scores
    below = s[k + 1] if k + 1 < len(s) else s[k] - 1.0
    return 0.5 * (s[k] + below), float(f1[k])


# A cut placed on a frame's own score must leave that frame below it after the
# single-precision bias and logistic function: keep this much clear.
CUT_MARGIN = 1e-3


def calibrate(raw, labels):
    """Per-class logit cuts (index = class id) and the best F1 of each class."""
    cuts = np.zeros(12)
    f1s = {}
    for c in range(1, 12):
        cuts[c], f1s[c] = best_cut(raw[:, c], labels[:, c])
    motion = labels[:, OTHERBLUR] == 1
    if motion.any():
        for c in (BLUR, MILDBLUR):
            cuts[c] = max(cuts[c], np.quantile(raw[motion, c], 1 - MOTION_AS_BLUR_LIMIT / 2)
                          + CUT_MARGIN)
        cuts[OTHERBLUR] = min(cuts[OTHERBLUR], np.quantile(raw[motion, OTHERBLUR],
                                                           1 - MOTION_RECALL) - CUT_MARGIN)
    clean = labels[:, 1:].sum(1) == 0
    if not clean.any():
        return clear_of_scores(raw, cuts), f1s
    reportable = range(1, 11)

    def raised(q):
        out = cuts.copy()
        for c in reportable:
            out[c] = max(out[c], np.quantile(raw[clean, c], 1 - q) + CUT_MARGIN)
        return out

    def clean_rate(cut):
        return float(np.mean(np.any([raw[clean, c] > cut[c] for c in reportable], axis=0)))

    if clean_rate(cuts) > CLEAN_REPORT_LIMIT:
        lo, hi = 0.0, CLEAN_REPORT_LIMIT  # per-class clean quantile: bisect the largest that fits
        for _ in range(30):
            mid = (lo + hi) / 2
            lo, hi = (mid, hi) if clean_rate(raised(mid)) <= CLEAN_REPORT_LIMIT else (lo, mid)
        cuts = raised(lo)
    return clear_of_scores(raw, cuts), f1s


def clear_of_scores(raw, cuts):
    """Moves each cut just above any score lying within CUT_MARGIN of it: such a frame
    would be decided by rounding, not by the cut."""
    out = cuts.copy()
    for c in range(1, 12):
        near = raw[:, c][np.abs(raw[:, c] - out[c]) < CUT_MARGIN]
        while near.size:
            out[c] = float(near.max()) + 1.5 * CUT_MARGIN
            near = raw[:, c][np.abs(raw[:, c] - out[c]) < CUT_MARGIN]
    return out


def cut_shift(cuts):
    """Per-output logit shift that moves each class's cut onto its threshold (OtherBlur's
    onto the blur rule's limit)."""
    shift = np.zeros(len(cuts), np.float32)
    for c in range(1, 12):
        target = OTHERBLUR_LIMIT if c == OTHERBLUR else THRESHOLDS[c]
        shift[c] = logit(target) - cuts[c]
    return shift


def metrics(decisions, labels):
    out = {}
    for c in range(1, 12):
        d = decisions[:, c - 1]
        y = labels[:, c].astype(bool)
        tp = int(np.sum(d & y))
        fp = int(np.sum(d & ~y))
        fn = int(np.sum(~d & y))
        prec = tp / (tp + fp) if tp + fp else 0.0
        rec = tp / (tp + fn) if tp + fn else 0.0
        f1 = 2 * prec * rec / (prec + rec) if prec + rec else 0.0
        out[CLASSES[c - 1]] = {"precision": round(prec, 4), "recall": round(rec, 4),
                               "f1": round(f1, 4), "positives": int(y.sum())}
    clean = labels[:, 1:].sum(1) == 0
    out["clean_false_positive_rate"] = round(float(decisions[clean].any(1).mean()), 4)
    out["clean_frames"] = int(clean.sum())
    return out


def export_onnx(net, size, path):
    net.eval()
    dummy = torch.zeros(1, 3, size, size)
    opset = getattr(net, "onnx_opset", OPSET)  # a network may need another
    torch.onnx.export(net, dummy, path, opset_version=opset, input_names=["input"],
                      output_names=["Identity"], do_constant_folding=True)
    inline_constant_identities(path)


def inline_constant_identities(path):
    """The exporter shares equal weight tensors through Identity nodes, which
    OpenCV's reader cannot take; give each user its own copy instead."""
    m = onnx.load(path)
    inits = {t.name: t for t in m.graph.initializer}
    keep = []
    for node in m.graph.node:
        if node.op_type == "Identity" and node.input[0] in inits:
            copy = onnx.TensorProto()
            copy.CopyFrom(inits[node.input[0]])
            copy.name = node.output[0]
            m.graph.initializer.append(copy)
        else:
            keep.append(node)
    del m.graph.node[:]
    m.graph.node.extend(keep)
    onnx.checker.check_model(m)
    onnx.save(m, path)


def dnn_logits(path, x_u8):
    """Runs the exported model the way the detector prepares its input."""
    dnn = cv2.dnn.readNetFromONNX(path)
    out = []
    for img in x_u8:
        f = img.astype(np.float32) - 128.0
        dnn.setInput(np.ascontiguousarray(f.transpose(2, 0, 1)[None]))
        out.append(dnn.forward().reshape(-1).copy())
    return np.array(out, np.float32)


def markdown(m):
    lines = ["| Id | Class | Threshold | Precision | Recall | F1 | Positives |",
             "|---|---|---|---|---|---|---|"]
    for c in range(1, 12):
        r = m[CLASSES[c - 1]]
        lines.append("| %d | %s | %g | %.3f | %.3f | %.3f | %d |" % (
            c, CLASSES[c - 1], THRESHOLDS[c], r["precision"], r["recall"], r["f1"],
            r["positives"]))
    lines.append("")
    lines.append("Clean validation frames with any reported artifact: %.1f%% of %d." % (
        100 * m["clean_false_positive_rate"], m["clean_frames"]))
    return "\n".join(lines)


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--data", default=os.path.join(HERE, "data", "cache"))
    p.add_argument("--run", required=True, help="training run directory")
    p.add_argument("--arch", default=os.environ.get("ARCH", "cnn"),
                   help="the architecture the run was trained with")
    p.add_argument("--install", action="store_true",
                   help="copy the model into models/artifact_detector/")
    a = p.parse_args()
    torch.set_num_threads(2)
    xv = np.load(os.path.join(a.data, "val_x.npy"))
    yv = np.load(os.path.join(a.data, "val_y.npy"))
    size = xv.shape[1]

    net = M.build(a.arch)
    net.load_state_dict(torch.load(os.path.join(a.run, "model.pt")))
    net.eval()
    with torch.no_grad():
        raw = np.concatenate([net(torch.from_numpy(xv[i:i + 256]).permute(0, 3, 1, 2)
                                  .float() - 128.0).numpy()
                              for i in range(0, len(xv), 256)])

    # Per-class bias: the calibrated cut onto the built-in threshold.
    calib = {}
    cuts, f1s = calibrate(raw, yv)
    bias = cut_shift(cuts)
    for c in range(1, 12):
        cut, f1 = cuts[c], f1s[c]
        calib[CLASSES[c - 1]] = {"cut_logit": round(float(cut), 4), "bias": round(float(bias[c]), 4),
                                 "best_f1": round(f1, 4)}
    with torch.no_grad():
        net.head.bias += torch.from_numpy(bias)
    if hasattr(net, "prepare_export"):  # folds the detector's input into the graph
        net.prepare_export()

    onnx_path = os.path.join(a.run, ONNX_NAME)
    export_onnx(net, size, onnx_path)
    nbytes = os.path.getsize(onnx_path)

    with torch.no_grad():
        ref = np.concatenate([net(torch.from_numpy(xv[i:i + 256]).permute(0, 3, 1, 2)
                                  .float() - 128.0).numpy()
                              for i in range(0, len(xv), 256)])
    t0 = time.time()
    got = dnn_logits(onnx_path, xv)
    dnn_ms = (time.time() - t0) / len(xv) * 1000
    max_diff = float(np.abs(got - ref).max())
    dec_ref = detector_decisions(ref, THRESHOLDS)
    dec_dnn = detector_decisions(got, THRESHOLDS)
    disagree = int(np.sum(dec_ref != dec_dnn))
    m = metrics(dec_dnn, yv)
    # OtherBlur cannot be reported with the built-in table: show its quality
    # at the blur rule's limit instead.
    ob = detector_probabilities(got[:, OTHERBLUR]) > np.float32(OTHERBLUR_LIMIT)
    y = yv[:, OTHERBLUR].astype(bool)
    tp, fp, fn = int(np.sum(ob & y)), int(np.sum(ob & ~y)), int(np.sum(~ob & y))
    m["OtherBlur_at_0.6"] = {"precision": round(tp / max(tp + fp, 1), 4),
                             "recall": round(tp / max(tp + fn, 1), 4),
                             "f1": round(2 * tp / max(2 * tp + fp + fn, 1), 4)}
    report = {"input": [1, 3, size, size], "onnx_bytes": nbytes,
              "opset": getattr(net, "onnx_opset", OPSET),
              "torch_vs_dnn_max_abs_diff": max_diff, "decision_disagreements": disagree,
              "dnn_forward_ms": round(dnn_ms, 2), "calibration": calib, "metrics": m}
    with open(os.path.join(a.run, "metrics.json"), "w") as f:
        json.dump(report, f, indent=1)
    with open(os.path.join(a.run, "metrics.md"), "w") as f:
        f.write(markdown(m) + "\n")
    print(json.dumps({k: v for k, v in report.items() if k != "metrics"}, indent=1))
    print(markdown(m))
    print("OtherBlur at the blur rule's limit 0.6: %s" % m["OtherBlur_at_0.6"])

    if max_diff > 1e-3 or disagree:
        raise SystemExit("OpenCV dnn disagrees with torch: max diff %g, %d decisions"
                         % (max_diff, disagree))
    if nbytes > MAX_BYTES:
        raise SystemExit("model too large: %d bytes" % nbytes)
    if a.install:
        os.makedirs(MODEL_DIR, exist_ok=True)
        shutil.copyfile(onnx_path, os.path.join(MODEL_DIR, ONNX_NAME))
        print("installed %s" % os.path.join(MODEL_DIR, ONNX_NAME))


if __name__ == "__main__":
    main()
