#!/usr/bin/python3
"""ImageNet-initialised MobileNetV2 from the npm package nsfwjs@4.3.0 (MIT).

The package ships the network as TF.js files wrapped in JavaScript modules:
`model.min.js` holds the Keras topology and the weights manifest as an object
literal, `group1-shard1of1.min.js` the weights as one base64 string, 8-bit
quantised per tensor (value = q * scale + min). This module reads both
without running any JavaScript, rebuilds the network in PyTorch (RGB input in
[0, 1], Keras "same" padding: stride-2 layers pad right and bottom by 1,
batch normalisation epsilon 1e-3) and offers its first blocks as a trunk.

  /usr/bin/python3 training/backbone_mnv2.py IMAGE...   # the nsfwjs head's answer
"""
import base64
import json
import math
import os
import re
import sys

import numpy as np
import torch
import torch.nn as nn
import torch.nn.functional as F

HERE = os.path.dirname(os.path.abspath(__file__))
MODEL_DIR = os.path.join(HERE, "data", "npm", "package", "dist", "models", "mobilenet_v2")
HEAD_CLASSES = ["drawing", "hentai", "neutral", "porn", "sexy"]
BN_EPS = 1e-3
# (expansion, output channels, stride) of block_1 .. block_16; the first
# block ("expanded_conv") has no expansion and 16 channels.
BLOCKS = [(6, 24, 2), (6, 24, 1), (6, 32, 2), (6, 32, 1), (6, 32, 1),
          (6, 64, 2), (6, 64, 1), (6, 64, 1), (6, 64, 1),
          (6, 96, 1), (6, 96, 1), (6, 96, 1),
          (6, 160, 2), (6, 160, 1), (6, 160, 1), (6, 320, 1)]


# --------------------------------------------------------------------------
# The TF.js files

_TOKEN = re.compile(r'\s*(?:(?P<str>"(?:[^"\\]|\\.)*")|(?P<num>-?(?:\d+\.?\d*|\.\d+)(?:[eE][-+]?\d+)?)'
                    r'|(?P<bool>!0|!1)|(?P<word>[A-Za-z_$][\w$]*)|(?P<punct>[{}\[\]:,]))')


def parse_js_literal(text, pos=0):
    """Parses one minified JavaScript object literal (quoted or bare keys,
    !0 / !1 for true / false, numbers like .5) into Python values.
    Returns (value, end position)."""
    def token(p):
        m = _TOKEN.match(text, p)
        if not m:
            raise ValueError("unexpected text at %d: %r" % (p, text[p:p + 20]))
        return m.lastgroup, m.group(m.lastgroup), m.end()

    def value(p):
        kind, tok, p = token(p)
        if kind == "str":
            return json.loads(tok), p
        if kind == "num":
            return float(tok) if re.search(r"[.eE]", tok) else int(tok), p
        if kind == "bool":
            return tok == "!0", p
        if kind == "word":
            consts = {"true": True, "false": False, "null": None}
            if tok not in consts:
                raise ValueError("unexpected word %r" % tok)
            return consts[tok], p
        if tok == "[":
            out = []
            kind, tok, q = token(p)
            if tok == "]":
                return out, q
            while True:
                v, p = value(p)
                out.append(v)
                kind, tok, p = token(p)
                if tok == "]":
                    return out, p
                if tok != ",":
                    raise ValueError("expected , or ] at %d" % p)
        if tok == "{":
            out = {}
            kind, tok, q = token(p)
            if tok == "}":
                return out, q
            while True:
                kind, key, p = token(p)
                key = json.loads(key) if kind == "str" else key
                kind, tok, p = token(p)
                if tok != ":":
                    raise ValueError("expected : at %d" % p)
                out[key], p = value(p)
                kind, tok, p = token(p)
                if tok == "}":
                    return out, p
                if tok != ",":
                    raise ValueError("expected , or } at %d" % p)
        raise ValueError("unexpected %r at %d" % (tok, p))

    return value(pos)


def module_export(path):
    """The value a bundled TF.js file assigns to its module's exports."""
    with open(path) as f:
        text = f.read()
    m = re.search(r"\b\w\.exports=", text)
    if not m:
        raise ValueError("%s: no module export found" % path)
    return parse_js_literal(text, m.end())[0]


def dequantize(raw, entry):
    """One tensor of the weights manifest from its bytes."""
    n = int(np.prod(entry["shape"])) if entry["shape"] else 1
    q = entry.get("quantization")
    if q is None:
        return np.frombuffer(raw, "<f4", n).reshape(entry["shape"]), 4 * n
    if q["dtype"] != "uint8":
        raise ValueError("%s: unsupported quantisation %s" % (entry["name"], q["dtype"]))
    v = np.frombuffer(raw, np.uint8, n).astype(np.float64) * q["scale"] + q["min"]
    return v.astype(np.float32).reshape(entry["shape"]), n


def load_tfjs(model_dir=MODEL_DIR):
    """(Keras layer list, {weight name: float32 array})."""
    model = module_export(os.path.join(model_dir, "model.min.js"))
    weights = {}
    for group in model["weightsManifest"]:
        raw = b"".join(base64.b64decode(module_export(os.path.join(model_dir, p + ".min.js")))
                       for p in group["paths"])
        at = 0
        for entry in group["weights"]:
            weights[entry["name"]], used = dequantize(raw[at:], entry)
            at += used
        if at != len(raw):
            raise ValueError("weight shard holds %d bytes, manifest %d" % (len(raw), at))
    layers = model["modelTopology"]["model_config"]["config"]["layers"]
    return layers, weights


# --------------------------------------------------------------------------
# The network

def conv_bn(cin, cout, k, stride=1, groups=1, act=True):
    """Convolution, batch normalisation (Keras epsilon) and ReLU6; stride-2
    layers get Keras "same" padding (right and bottom) in `forward`."""
    layers = [nn.Conv2d(cin, cout, k, stride, k // 2 if stride == 1 else 0,
                        groups=groups, bias=False), nn.BatchNorm2d(cout, eps=BN_EPS)]
    if act:
        layers.append(nn.ReLU6(inplace=True))
    return nn.Sequential(*layers)


def same_pad(x, stride, value=0.0):
    return F.pad(x, (0, 1, 0, 1), value=value) if stride == 2 else x


class InvertedResidual(nn.Module):
    def __init__(self, cin, expand, cout, stride):
        super().__init__()
        mid = cin * expand
        self.stride = stride
        self.expand = conv_bn(cin, mid, 1) if expand != 1 else None
        self.depthwise = conv_bn(mid, mid, 3, stride, groups=mid)
        self.project = conv_bn(mid, cout, 1, act=False)
        self.residual = stride == 1 and cin == cout

    def forward(self, x):
        y = self.expand(x) if self.expand is not None else x
        y = self.project(self.depthwise(same_pad(y, self.stride)))
        return x + y if self.residual else y


class MobileNetV2Trunk(nn.Module):
    """Stem and the first `blocks` inverted residual blocks (1..17).

    `forward` takes RGB in [0, 1]; after `fold_detector_input` it takes what
    the detector hands the network instead (BGR pixel values minus 128), the
    conversion folded into the stem's weights."""

    def __init__(self, blocks=17):
        super().__init__()
        self.stem = conv_bn(3, 32, 3, 2)
        specs = [(1, 16, 1)] + BLOCKS
        layers, c = [], 32
        for expand, cout, stride in specs[:blocks]:
            layers.append(InvertedResidual(c, expand, cout, stride))
            c = cout
        self.blocks = nn.Sequential(*layers)
        self.out_channels = c
        self.pad_value = 0.0

    def forward(self, x):
        return self.blocks(self.stem(same_pad(x, 2, self.pad_value)))

    @torch.no_grad()
    def fold_detector_input(self):
        """rgb01 = (bgr - 128 reversed + 128) / 255: reverse the stem's input
        channels, scale its weights by 1/255 and pad with -128 (black), so the
        folded stem is exact at the border too. The bias goes into the
        batch normalisation's shift."""
        conv, bn = self.stem[0], self.stem[1]
        w = conv.weight.flip(1) / 255.0
        shift = (w * 128.0).sum((1, 2, 3))  # per output channel
        conv.weight.copy_(w)
        # bn(conv + shift) == bn'(conv) with mean' = mean - shift
        bn.running_mean -= shift
        self.pad_value = -128.0


class MobileNetV2(nn.Module):
    """The whole network with the nsfwjs head, for checking the conversion."""

    def __init__(self):
        super().__init__()
        self.trunk = MobileNetV2Trunk()
        self.top = conv_bn(320, 1280, 1)
        self.head = nn.Sequential(nn.Linear(1280, 256), nn.ReLU(), nn.Linear(256, 128),
                                  nn.ReLU(), nn.Linear(128, len(HEAD_CLASSES)))

    def forward(self, rgb01):
        f = self.top(self.trunk(rgb01))
        return F.softmax(self.head(torch.flatten(F.adaptive_avg_pool2d(f, 1), 1)), 1)


def keras_names(blocks=17):
    """Keras layer names in the order of MobileNetV2Trunk's modules."""
    names = [("Conv1", "bn_Conv1", "conv")]
    for i in range(blocks):
        p = "expanded_conv" if i == 0 else "block_%d" % i
        if i:
            names.append((p + "_expand", p + "_expand_BN", "conv"))
        names.append((p + "_depthwise", p + "_depthwise_BN", "depthwise"))
        names.append((p + "_project", p + "_project_BN", "conv"))
    return names


def _set_conv_bn(seq, weights, conv, bn, kind):
    k = weights[conv + ("/depthwise_kernel" if kind == "depthwise" else "/kernel")]
    # Keras: (kh, kw, in, out) or (kh, kw, channels, 1); torch: (out, in, kh, kw)
    t = k.transpose(2, 3, 0, 1) if kind == "depthwise" else k.transpose(3, 2, 0, 1)
    seq[0].weight.data.copy_(torch.from_numpy(np.ascontiguousarray(t)))
    b = seq[1]
    for attr, key in (("weight", "gamma"), ("bias", "beta"), ("running_mean", "moving_mean"),
                      ("running_var", "moving_variance")):
        getattr(b, attr).data.copy_(torch.from_numpy(weights["%s/%s" % (bn, key)]))


def _conv_modules(trunk):
    mods = [trunk.stem]
    for blk in trunk.blocks:
        if blk.expand is not None:
            mods.append(blk.expand)
        mods += [blk.depthwise, blk.project]
    return mods


def load_trunk(trunk, weights):
    names = keras_names(len(trunk.blocks))
    mods = _conv_modules(trunk)
    for seq, (conv, bn, kind) in zip(mods, names):
        _set_conv_bn(seq, weights, conv, bn, kind)
    return trunk


def pretrained_trunk(blocks, model_dir=MODEL_DIR):
    return load_trunk(MobileNetV2Trunk(blocks), load_tfjs(model_dir)[1])


def pretrained_full(model_dir=MODEL_DIR):
    layers, weights = load_tfjs(model_dir)
    check_topology(layers)
    net = MobileNetV2()
    load_trunk(net.trunk, weights)
    _set_conv_bn(net.top, weights, "Conv_1", "Conv_1_bn", "conv")
    for lin, name in zip((net.head[0], net.head[2], net.head[4]),
                         ("dense_1", "dense_2", "dense_3")):
        lin.weight.data.copy_(torch.from_numpy(weights[name + "/kernel"].T.copy()))
        lin.bias.data.copy_(torch.from_numpy(weights[name + "/bias"]))
    return net.eval()


def check_topology(layers):
    """The Keras graph must be the MobileNetV2 rebuilt here: same strides,
    padding and epsilon in every layer that carries weights."""
    by_name = {l["name"]: l["config"] for l in layers}
    strides = [2] + [1] + [s for _, _, s in BLOCKS]
    convs = [n for n, _, k in keras_names() if k == "depthwise"]
    for name, stride in zip(["Conv1"] + convs, strides):
        cfg = by_name[name]
        if cfg["strides"][0] != stride:
            raise ValueError("%s: stride %s" % (name, cfg["strides"]))
        pad = by_name.get(name.replace("_depthwise", "") + "_pad", {})
        if stride == 2 and (cfg["padding"] != "valid" or pad.get("padding") != [[0, 1], [0, 1]]):
            raise ValueError("%s: padding is not right-and-bottom" % name)
    for cfg in by_name.values():
        if "epsilon" in cfg and not math.isclose(cfg["epsilon"], BN_EPS):
            raise ValueError("%s: epsilon %g" % (cfg["name"], cfg["epsilon"]))


def classify(net, path):
    """The nsfwjs head's probabilities for one image file (centre square)."""
    import cv2
    img = cv2.imread(path, cv2.IMREAD_COLOR)
    h, w = img.shape[:2]
    s = min(h, w)
    img = img[(h - s) // 2:(h - s) // 2 + s, (w - s) // 2:(w - s) // 2 + s]
    img = cv2.resize(img, (224, 224), interpolation=cv2.INTER_AREA)
    rgb = torch.from_numpy(img[:, :, ::-1].astype(np.float32) / 255.0).permute(2, 0, 1)
    with torch.no_grad():
        return net(rgb[None])[0].numpy()


def main(paths):
    net = pretrained_full()
    for path in paths:
        p = classify(net, path)
        k = int(np.argmax(p))
        print("%-9s %.3f  %s" % (HEAD_CLASSES[k], p[k], path))


if __name__ == "__main__":
    main(sys.argv[1:])
