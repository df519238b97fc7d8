"""The artifact classifier: a small plain CNN with multi-label outputs.

Input: 1x3xHxW float, BGR pixel values minus 128 (the detector hands the
inference library the frame that way). Output "Identity": twelve logits;
position 0 is trained as "clean frame" and never read by the detector,
positions 1..11 are the artifact classes in id order.
"""
import torch
import torch.nn as nn

NUM_OUTPUTS = 12
# (output channels, stride) per 3x3 convolution. The first layer still sees
# every input pixel (noise, moire and slight defocus live there); the last
# ones see the whole frame for shadows, glare and reflections.
LAYERS = [(16, 2), (32, 2), (32, 1), (64, 2), (64, 1), (96, 2), (96, 1), (160, 2)]


class ArtifactNet(nn.Module):
    def __init__(self, layers=LAYERS):
        super().__init__()
        blocks = []
        c = 3
        for out, stride in layers:
            blocks += [nn.Conv2d(c, out, 3, stride, 1, bias=False),
                       nn.BatchNorm2d(out), nn.ReLU(inplace=True)]
            c = out
        self.features = nn.Sequential(*blocks)
        # Mean pooling answers "how much of the frame", max pooling "anywhere
        # in the frame" (a flare or a shadow covers only part of it).
        self.avg = nn.AdaptiveAvgPool2d(1)
        self.max = nn.AdaptiveMaxPool2d(1)
        self.dropout = nn.Dropout(0.2)
        self.head = nn.Linear(2 * c, NUM_OUTPUTS)

    def forward(self, x):
        # Input range is [-128, 127]; a fixed scale keeps the first layer's
        # weights in the usual range.
        f = self.features(x * (1.0 / 64.0))
        pooled = torch.cat([torch.flatten(self.avg(f), 1), torch.flatten(self.max(f), 1)], 1)
        return self.head(self.dropout(pooled))


def build(arch="cnn"):
    """The classifier by architecture name; the candidates beside today's
    CNN live in arch_candidates.py."""
    if arch == "cnn":
        return ArtifactNet()
    import arch_candidates
    return arch_candidates.build(arch)
