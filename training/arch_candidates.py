"""Candidate architectures beside today's plain CNN (model.ArtifactNet).

All take what the detector hands the network (1x3xHxW float, BGR pixel values
minus 128) once exported, and give the same twelve logits.

- "cnn-deep": today's CNN with a wider, deeper tail at 14x14 and 7x7, where
  the frame-level classes (shadow, reflection, flare) are decided; the tail
  is cheap at that resolution.
- "dwsep": a larger CNN of depthwise-separable blocks, trained from scratch.
- "mnv2-s4", "mnv2-s8", "mnv2-s16": the first blocks of the
  ImageNet-initialised MobileNetV2 (backbone_mnv2.py) up to output stride 4,
  8 or 16, with a small head. They see RGB in [0, 1] while training; `prepare_export` folds the
  detector's input into the stem.
"""
import torch
import torch.nn as nn
import torch.nn.functional as F

import backbone_mnv2 as B
from model import NUM_OUTPUTS, ArtifactNet

DEEP_LAYERS = [(16, 2), (32, 2), (32, 1), (64, 2), (64, 1), (96, 2), (96, 1), (128, 1),
               (192, 2), (192, 1)]


def conv_bn_relu(cin, cout, k, stride=1, groups=1):
    return [nn.Conv2d(cin, cout, k, stride, k // 2, groups=groups, bias=False),
            nn.BatchNorm2d(cout), nn.ReLU(inplace=True)]


class PooledHead(nn.Module):
    """Mean and max pooling side by side ("how much of the frame" and
    "anywhere in the frame"), dropout, one linear layer."""

    def __init__(self, c):
        super().__init__()
        self.dropout = nn.Dropout(0.2)
        self.head = nn.Linear(2 * c, NUM_OUTPUTS)

    def forward(self, f):
        pooled = torch.cat([torch.flatten(F.adaptive_avg_pool2d(f, 1), 1),
                            torch.flatten(F.adaptive_max_pool2d(f, 1), 1)], 1)
        return self.head(self.dropout(pooled))


# (output channels, stride) of each depthwise-separable block after a full 3x3
# stem of 32 channels at stride 2: twice the depth of today's CNN at about
# the same arithmetic, the width where the frame is small.
DWSEP_BLOCKS = [(64, 2), (64, 1), (128, 2), (128, 1), (128, 1), (256, 2), (256, 1),
                (256, 1), (384, 2), (384, 1)]


class DWSepNet(nn.Module):
    def __init__(self, blocks=DWSEP_BLOCKS):
        super().__init__()
        layers = conv_bn_relu(3, 32, 3, 2)
        c = 32
        for cout, stride in blocks:
            layers += conv_bn_relu(c, c, 3, stride, groups=c) + conv_bn_relu(c, cout, 1)
            c = cout
        self.features = nn.Sequential(*layers)
        self.pool = PooledHead(c)
        self.head = self.pool.head  # the layer calibration adds its bias to

    def forward(self, x):
        return self.pool(self.features(x * (1.0 / 64.0)))


# Inverted residual blocks of MobileNetV2 kept (stem excluded) per output stride,
# and the depthwise-separable blocks trained from scratch after them: the
# stride-4 trunk leaves the expensive 28x28 blocks to cheaper layers.
TRUNK_BLOCKS = {"mnv2-s4": (3, [(64, 2), (128, 2), (256, 2)]),
                "mnv2-s8": (6, []), "mnv2-s16": (13, [])}


class TrunkNet(nn.Module):
    """Pretrained MobileNetV2 blocks, a 1x1 convolution to 256 channels, the
    pooled head."""

    # OpenCV 4.6 reads Clip (ReLU6) only with the min/max attributes of
    # opset 10, not with the inputs that opset 11 gives it.
    onnx_opset = 10

    def __init__(self, blocks, tail=(), pretrained=True):
        super().__init__()
        self.trunk = B.pretrained_trunk(blocks) if pretrained else B.MobileNetV2Trunk(blocks)
        layers, c = [], self.trunk.out_channels
        for cout, stride in tail:
            layers += conv_bn_relu(c, c, 3, stride, groups=c) + conv_bn_relu(c, cout, 1)
            c = cout
        self.mix = nn.Sequential(*layers, B.conv_bn(c, 256, 1))
        self.pool = PooledHead(256)
        self.head = self.pool.head
        self.folded = False

    def forward(self, x):
        if not self.folded:  # training form: detector input to RGB in [0, 1]
            x = (x.flip(1) + 128.0) * (1.0 / 255.0)
        return self.pool(self.mix(self.trunk(x)))

    def prepare_export(self):
        self.trunk.fold_detector_input()
        self.folded = True


def build(arch):
    if arch == "cnn-deep":
        return ArtifactNet(DEEP_LAYERS)
    if arch == "dwsep":
        return DWSepNet()
    if arch in TRUNK_BLOCKS:
        return TrunkNet(*TRUNK_BLOCKS[arch])
    raise ValueError("unknown architecture %r" % arch)
