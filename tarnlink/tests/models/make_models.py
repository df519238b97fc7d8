#!/usr/bin/python3
"""Writes the tiny test networks of the reference inference library.

Run from this directory with Debian's python3-onnx and python3-numpy; the outputs are
committed, so neither the build nor the tests need Python. The seed makes every run write
the same bytes.

  tiny.onnx        input "inputs_0" 1x3x48x64 (N, C, H, W): Conv 3x3 s2 -> Relu ->
                   GlobalAveragePool -> Flatten -> Gemm to 12 -> "Identity" (1x12)
  tiny_nhwc.onnx   input "inputs_0" 1x40x56x3 (N, H, W, C): Transpose to channels-first, then
                   the same layers with their own weights, output "Identity"
  tiny.prototxt    input "data" 1x3x32x40: Convolution 3x3 s2 -> ReLU -> global AVE Pooling
  tiny.caffemodel  -> InnerProduct to 12 -> Softmax "prob"; weights hand-encoded below
"""
import struct

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

rng = np.random.default_rng(20261121)

CHANNELS, FEATURES, OUTPUTS = 3, 4, 12


def weights():
    conv_w = rng.normal(0.0, 0.02, (FEATURES, CHANNELS, 3, 3)).astype(np.float32)
    conv_b = rng.normal(0.0, 0.1, FEATURES).astype(np.float32)
    fc_w = rng.normal(0.0, 0.5, (OUTPUTS, FEATURES)).astype(np.float32)
    fc_b = rng.normal(0.0, 0.1, OUTPUTS).astype(np.float32)
    return conv_w, conv_b, fc_w, fc_b


def onnx_model(name, input_dims, channels_last):
    conv_w, conv_b, fc_w, fc_b = weights()
    nodes = []
    first = "inputs_0"
    if channels_last:
        nodes.append(helper.make_node("Transpose", ["inputs_0"], ["nchw"], perm=[0, 3, 1, 2]))
        first = "nchw"
    nodes += [
        helper.make_node("Conv", [first, "conv_w", "conv_b"], ["conv"],
                         kernel_shape=[3, 3], strides=[2, 2]),
        helper.make_node("Relu", ["conv"], ["relu"]),
        helper.make_node("GlobalAveragePool", ["relu"], ["pool"]),
        helper.make_node("Flatten", ["pool"], ["flat"], axis=1),
        helper.make_node("Gemm", ["flat", "fc_w", "fc_b"], ["Identity"], transB=1),
    ]
    graph = helper.make_graph(
        nodes, name,
        [helper.make_tensor_value_info("inputs_0", TensorProto.FLOAT, input_dims)],
        [helper.make_tensor_value_info("Identity", TensorProto.FLOAT, [1, OUTPUTS])],
        [numpy_helper.from_array(conv_w, "conv_w"), numpy_helper.from_array(conv_b, "conv_b"),
         numpy_helper.from_array(fc_w, "fc_w"), numpy_helper.from_array(fc_b, "fc_b")])
    model = helper.make_model(graph, producer_name="make_models.py",
                              opset_imports=[helper.make_opsetid("", 11)])
    model.ir_version = 6
    onnx.checker.check_model(model)
    onnx.save(model, name + ".onnx")


# Protocol buffer wire format, enough for caffe.NetParameter.
def varint(value):
    out = bytearray()
    while True:
        byte = value & 0x7F
        value >>= 7
        if value:
            out.append(byte | 0x80)
        else:
            out.append(byte)
            return bytes(out)


def field(number, payload):
    return varint(number << 3 | 2) + varint(len(payload)) + payload


def blob(array):
    shape = field(1, b"".join(varint(d) for d in array.shape))        # BlobShape.dim, packed
    data = field(5, struct.pack("<%df" % array.size, *array.ravel()))  # BlobProto.data, packed
    return field(7, field(7, shape) + data)                            # LayerParameter.blobs


def caffe_layer(name, kind, *arrays):
    body = field(1, name.encode()) + field(2, kind.encode())
    return field(100, body + b"".join(blob(a) for a in arrays))       # NetParameter.layer


PROTOTXT = """name: "tiny_caffe"
input: "data"
input_shape { dim: 1 dim: 3 dim: 32 dim: 40 }
layer { name: "conv1" type: "Convolution" bottom: "data" top: "conv1"
        convolution_param { num_output: 4 kernel_size: 3 stride: 2 } }
layer { name: "relu1" type: "ReLU" bottom: "conv1" top: "conv1" }
layer { name: "pool1" type: "Pooling" bottom: "conv1" top: "pool1"
        pooling_param { pool: AVE global_pooling: true } }
layer { name: "fc" type: "InnerProduct" bottom: "pool1" top: "fc"
        inner_product_param { num_output: 12 } }
layer { name: "prob" type: "Softmax" bottom: "fc" top: "prob" }
"""


def caffe_model():
    conv_w, conv_b, fc_w, fc_b = weights()
    with open("tiny.prototxt", "w") as f:
        f.write(PROTOTXT)
    with open("tiny.caffemodel", "wb") as f:
        f.write(field(1, b"tiny_caffe"))
        f.write(caffe_layer("conv1", "Convolution", conv_w, conv_b))
        f.write(caffe_layer("fc", "InnerProduct", fc_w, fc_b))


onnx_model("tiny", [1, CHANNELS, 48, 64], channels_last=False)
onnx_model("tiny_nhwc", [1, 40, 56, CHANNELS], channels_last=True)
caffe_model()
