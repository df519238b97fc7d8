"""Trains the artifact classifier on the cached, preprocessed dataset."""
import argparse
import json
import math
import os
import time

import numpy as np
import torch
import torch.nn as nn

import model as M

HERE = os.path.dirname(os.path.abspath(__file__))


def to_input(batch_u8):
    """Cached network views (N, H, W, 3 uint8 BGR) to what the detector feeds
    the network: float pixel values minus 128, channels first."""
    # The permuted view is already channels-last in memory, the layout the
    # CPU convolutions run fastest on.
    x = torch.from_numpy(batch_u8).permute(0, 3, 1, 2).float()
    return x - 128.0


def predict(net, x_u8, batch=256):
    net.eval()
    out = []
    with torch.no_grad():
        for i in range(0, len(x_u8), batch):
            out.append(net(to_input(x_u8[i:i + batch])).numpy())
    return np.concatenate(out)


def best_f1(scores, labels):
    """Best F1 over all thresholds 'score > t' for one class."""
    order = np.argsort(-scores)
    y = labels[order].astype(np.float64)
    tp = np.cumsum(y)
    fp = np.cumsum(1 - y)
    pos = y.sum()
    f1 = 2 * tp / (tp + fp + pos)
    return float(f1.max()) if pos else float("nan")


def swap_in_fresh(folder, used, xt, yt, slots, replaced):
    """Replaces cached frames by every complete fresh shard not used yet (oldest
    first, cycling); returns the running count of replaced frames."""
    if not os.path.isdir(folder):
        return replaced
    for name in sorted(os.listdir(folder)):
        if not (name.startswith("fresh_") and name.endswith("_x.npy")) or name in used:
            continue
        x = np.load(os.path.join(folder, name))
        y = np.load(os.path.join(folder, name[:-6] + "_y.npy")).astype(np.float32)
        idx = slots[(replaced + np.arange(len(x))) % len(slots)]
        xt[idx], yt[idx] = x, y
        replaced += len(x)
        used.add(name)
    return replaced


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--data", default=os.path.join(HERE, "data", "cache"))
    p.add_argument("--out", required=True)
    p.add_argument("--epochs", type=int, default=16)
    p.add_argument("--batch", type=int, default=64)
    p.add_argument("--lr", type=float, default=2e-3)
    p.add_argument("--seed", type=int, default=20240611)
    p.add_argument("--threads", type=int, default=2)
    p.add_argument("--fresh", help="folder where build_dataset.py --stream writes new frames")
    p.add_argument("--arch", default=os.environ.get("ARCH", "cnn"),
                   help="cnn (today's), dwsep, mnv2-s4, mnv2-s8 or mnv2-s16")
    p.add_argument("--init", help="model.pt of an earlier run to go on from (same --arch)")
    a = p.parse_args()
    torch.set_num_threads(a.threads)
    torch.manual_seed(a.seed)
    rng = np.random.default_rng(a.seed)
    os.makedirs(a.out, exist_ok=True)

    xt = np.load(os.path.join(a.data, "train_x.npy"), mmap_mode="r")
    yt = np.load(os.path.join(a.data, "train_y.npy")).astype(np.float32)
    xv = np.load(os.path.join(a.data, "val_x.npy"))
    yv = np.load(os.path.join(a.data, "val_y.npy"))
    xt = np.ascontiguousarray(xt)
    n = len(xt)
    print("train %d, val %d, input %s" % (n, len(xv), xt.shape[1:]), flush=True)

    net = M.build(a.arch)
    if a.init:
        net.load_state_dict(torch.load(a.init, map_location="cpu"))
    net = net.to(memory_format=torch.channels_last)
    print("parameters: %d" % sum(p.numel() for p in net.parameters()), flush=True)
    opt = torch.optim.AdamW(net.parameters(), lr=a.lr, weight_decay=5e-4)
    steps = a.epochs * (n // a.batch)
    sched = torch.optim.lr_scheduler.OneCycleLR(opt, max_lr=a.lr, total_steps=steps,
                                                pct_start=0.2)
    loss_fn = nn.BCEWithLogitsLoss()
    history = []
    t0 = time.time()
    slots = rng.permutation(n)  # frames replaced by fresh ones, in this order
    used, replaced = set(), 0
    for epoch in range(a.epochs):
        if a.fresh:
            replaced = swap_in_fresh(a.fresh, used, xt, yt, slots, replaced)
        net.train()
        order = rng.permutation(n)
        total = 0.0
        for s in range(n // a.batch):
            idx = np.sort(order[s * a.batch:(s + 1) * a.batch])
            xb = xt[idx]
            # Mirror half of the batch: no artifact class depends on left/right.
            flip = rng.random(len(idx)) < 0.5
            xb = np.where(flip[:, None, None, None], xb[:, :, ::-1], xb)
            x = to_input(np.ascontiguousarray(xb))
            y = torch.from_numpy(yt[idx])
            opt.zero_grad()
            loss = loss_fn(net(x), y)
            loss.backward()
            opt.step()
            sched.step()
            total += float(loss)
        logits = predict(net, xv)
        f1 = [best_f1(logits[:, c], yv[:, c]) for c in range(1, M.NUM_OUTPUTS)]
        rec = {"epoch": epoch + 1, "loss": total / (n // a.batch), "fresh_frames": replaced,
               "val_best_f1": [round(v, 4) for v in f1],
               "val_mean_best_f1": round(float(np.nanmean(f1)), 4),
               "seconds": round(time.time() - t0)}
        history.append(rec)
        print(json.dumps(rec), flush=True)
        torch.save(net.state_dict(), os.path.join(a.out, "model.pt"))
    with open(os.path.join(a.out, "history.json"), "w") as f:
        json.dump(history, f, indent=1)


if __name__ == "__main__":
    main()
