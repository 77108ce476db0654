#!/usr/bin/env python3
"""Writes a ResNet-18-shaped network for a [1, 224, 224, 3] channels-last input,
as a float model and as an int8 model, in binary protobuf:

    resnet18_float.pb   conv1 7x7/2 + Relu, max pool 3x3/2, 4 stages of 2 basic blocks
                        (64, 128, 256, 512 channels; 1x1/2 downsample on the first block of
                        stages 2-4), residual adds with Relu, global average pool, 512 -> 1000
    resnet18_int8.pb    the same network on int8 codes: Z40Quantize -> Z40Conv2DInt8 ...
                        -> Z40MatMulInt8 -> Z40ReshapeInt8 -> Z40Dequantize
    resnet18_input.npy  the sample input, float32 [1, 224, 224, 3]

    make_resnet18.py OUT_DIR

Weights are random (seeded), He-scaled, with a random batch norm folded into every
convolution. Int8 weights are per-output-channel codes in [-127, 127]; activation
scales are calibrated per tensor on the sample input by a numpy forward pass of the
float network. bench/resnet18_peers.py rebuilds the same network (same seed) in torch.

"SAME" convolutions pad as the library's tiled kernels do: top = floor(total / 2),
the odd row at the bottom (e.g. conv1: 2 rows on top, 3 below; a 3x3/2: 0 and 1).
The 1x1/2 downsample is "VALID" (no padding), the max pool pads 1 on every side.
"""

import os
import struct
import sys

import numpy as np

SEED = 18
H = W = 224
CLASSES = 1000
STAGES = (64, 128, 256, 512)


# ---- network -------------------------------------------------------------------------------

def same_pads(size, kernel, stride):
    out = -(-size // stride)
    total = (out - 1) * stride + kernel - size
    return total // 2, total - total // 2


def build_network(seed=SEED):
    """Layers in execution order: dicts with 'kind', 'name', 'inputs' and the parameters."""
    rng = np.random.default_rng(seed)
    layers = []

    def conv(name, src, size, cin, cout, k, stride, relu, gamma_top=1.0):
        w = rng.standard_normal((k, k, cin, cout)) * np.sqrt(2.0 / (k * k * cin))
        # Folded batch norm; the last one of a residual branch is damped so that the
        # sum of branch and shortcut stays in range through eight blocks.
        gamma = rng.uniform(0.5, 1.0, cout) * gamma_top
        beta = rng.uniform(-0.1, 0.1, cout)
        mean = rng.uniform(-0.1, 0.1, cout)
        var = rng.uniform(0.5, 1.5, cout)
        factor = gamma / np.sqrt(var + 1e-5)
        if k == 1:
            pads, out = (0, 0), (size - 1) // stride + 1
        else:
            pads, out = same_pads(size, k, stride), -(-size // stride)
        layers.append(dict(kind="conv", name=name, inputs=[src], w=(w * factor).astype(np.float32),
                           b=(beta - mean * factor).astype(np.float32), stride=stride,
                           padding="VALID" if k == 1 else "SAME", pads=pads, relu=relu))
        return name, out

    x, size = conv("conv1", "input", H, 3, 64, 7, 2, True)
    layers.append(dict(kind="maxpool", name="pool1", inputs=[x]))
    x, size, cin = "pool1", (size + 2 - 3) // 2 + 1, 64
    for s, cout in enumerate(STAGES):
        for blk in range(2):
            stride = 2 if s > 0 and blk == 0 else 1
            prefix = "stage%d/block%d/" % (s + 1, blk + 1)
            a, out = conv(prefix + "conv1", x, size, cin, cout, 3, stride, True)
            a, _ = conv(prefix + "conv2", a, out, cout, cout, 3, 1, False, gamma_top=0.5)
            shortcut = x
            if stride != 1 or cin != cout:
                shortcut, _ = conv(prefix + "downsample", x, size, cin, cout, 1, stride, False)
            layers.append(dict(kind="add", name=prefix + "add", inputs=[a, shortcut]))
            x, size, cin = prefix + "add", out, cout
    layers.append(dict(kind="gap", name="gap", inputs=[x]))
    fc_w = rng.standard_normal((cin, CLASSES)) * np.sqrt(1.0 / cin)
    fc_b = rng.uniform(-0.1, 0.1, CLASSES)
    layers.append(dict(kind="fc", name="fc", inputs=["gap"], w=fc_w.astype(np.float32),
                       b=fc_b.astype(np.float32)))
    return layers


def sample_input(seed=SEED):
    rng = np.random.default_rng(seed + 1)
    return rng.standard_normal((1, H, W, 3)).astype(np.float32)


# ---- numpy forward pass (NHWC, float32) ----------------------------------------------------

def conv_forward(x, layer):
    w, stride = layer["w"], layer["stride"]
    kh, kw, cin, cout = w.shape
    top, bottom = layer["pads"]
    xp = np.pad(x, ((0, 0), (top, bottom), (top, bottom), (0, 0)))
    oh = (xp.shape[1] - kh) // stride + 1
    ow = (xp.shape[2] - kw) // stride + 1
    win = np.lib.stride_tricks.sliding_window_view(xp, (kh, kw), axis=(1, 2))
    win = win[:, : (oh - 1) * stride + 1 : stride, : (ow - 1) * stride + 1 : stride]
    cols = win.transpose(0, 1, 2, 4, 5, 3).reshape(-1, kh * kw * cin)
    y = (cols @ w.reshape(-1, cout) + layer["b"]).reshape(x.shape[0], oh, ow, cout)
    return np.maximum(y, 0) if layer["relu"] else y


def maxpool_forward(x):
    xp = np.pad(x, ((0, 0), (1, 1), (1, 1), (0, 0)), constant_values=-np.inf)
    win = np.lib.stride_tricks.sliding_window_view(xp, (3, 3), axis=(1, 2))[:, ::2, ::2]
    return win.max(axis=(4, 5))


def forward(layers, x):
    """Every layer's output by name; the network's output is values['fc'], [1, 1000]."""
    values = {"input": x}
    for layer in layers:
        a = values[layer["inputs"][0]]
        kind = layer["kind"]
        if kind == "conv":
            y = conv_forward(a, layer)
        elif kind == "maxpool":
            y = maxpool_forward(a)
        elif kind == "add":
            y = np.maximum(a + values[layer["inputs"][1]], 0)
        elif kind == "gap":
            y = a.mean(axis=(1, 2), keepdims=True)
        else:
            y = a.reshape(a.shape[0], -1) @ layer["w"] + layer["b"]
        values[layer["name"]] = y.astype(np.float32)
    return values


# ---- protobuf wire format (GraphDef, NodeDef, AttrValue, TensorProto) ---------------------

def varint(n):
    n &= (1 << 64) - 1  # negative int64 values take ten bytes
    out = bytearray()
    while True:
        byte = n & 0x7F
        n >>= 7
        if n:
            out.append(byte | 0x80)
        else:
            out.append(byte)
            return bytes(out)


def field(number, payload):  # length-delimited
    return varint(number << 3 | 2) + varint(len(payload)) + payload


def text_field(number, text):
    return field(number, text.encode())


def attr_value(v):
    if isinstance(v, str):
        return text_field(2, v)
    if isinstance(v, bool):
        return varint(5 << 3) + varint(int(v))
    if isinstance(v, int):
        return varint(3 << 3) + varint(v)
    if isinstance(v, float):
        return varint(4 << 3 | 5) + struct.pack("<f", v)
    if isinstance(v, np.ndarray):  # float list
        return field(1, field(4, v.astype("<f4").tobytes()))
    return field(1, field(3, b"".join(varint(i) for i in v)))  # int list


def tensor_proto(array):
    shape = b"".join(field(2, varint(1 << 3) + varint(d)) for d in array.shape)
    return varint(1 << 3) + varint(1) + field(2, shape) + field(4, array.astype("<f4").tobytes())


def node(name, op, inputs=(), attrs=None):
    out = text_field(1, name) + text_field(2, op) + b"".join(text_field(3, i) for i in inputs)
    for key, value in (attrs or {}).items():
        out += field(5, text_field(1, key) + field(2, value))
    return field(1, out)


def const(name, array):
    return node(name, "Const", attrs={"value": field(8, tensor_proto(array))})


def attrs(**kwargs):
    return {k: attr_value(v) for k, v in kwargs.items()}


def per_channel(value, channels):
    return np.full(channels, value, dtype=np.float32)


# ---- float model -----------------------------------------------------------------------------

def float_model(layers):
    out = [node("input", "ZxxNOp")]
    for layer in layers:
        name, kind, inputs = layer["name"], layer["kind"], layer["inputs"]
        if kind == "conv":
            out += [const(name + "/weights", layer["w"]), const(name + "/bias", layer["b"])]
            s = layer["stride"]
            out.append(node(name, "Z40Conv2D", inputs + [name + "/weights", name + "/bias"], attrs(
                strides=[1, s, s, 1], padding=layer["padding"], dilations=[1, 1, 1, 1],
                ActionType="Relu" if layer["relu"] else "None")))
        elif kind == "maxpool":
            out.append(node(name, "Z40MaxPool", inputs, attrs(
                ksize=[1, 3, 3, 1], strides=[1, 2, 2, 1], padding="VALID", pads=[1, 1, 1, 1])))
        elif kind == "add":
            out.append(node(name, "Z40EltwiseAdd", inputs, attrs(ActionType="Relu")))
        elif kind == "gap":
            out.append(node(name, "Z40GlobalAvgPool", inputs))
        else:
            out += [const(name + "/weights", layer["w"]), const(name + "/bias", layer["b"])]
            out.append(node("output", "Z40MatMul", inputs + [name + "/weights", name + "/bias"]))
    return b"".join(out)


# ---- int8 model ------------------------------------------------------------------------------

def weight_codes(w):
    """Per-output-channel (last axis) codes in [-127, 127] and their scales."""
    top = np.abs(w.reshape(-1, w.shape[-1])).max(axis=0)
    scale = np.where(top > 0, top / 127.0, 1.0)
    return np.clip(np.round(w / scale), -127, 127).astype(np.float32), scale


def int8_model(layers, values):
    # One scale per activation tensor: its largest magnitude on the sample input maps to 127.
    step = {name: max(float(np.abs(v).max()), 1e-8) / 127.0 for name, v in values.items()}
    relu_bounds = dict(maxValue=127, minValue=0)
    signed_bounds = dict(maxValue=127, minValue=-128)
    out = [node("input", "ZxxNOp"),
           node("quantize", "Z40Quantize", ["input"], attrs(
               QSCALE=per_channel(1.0 / step["input"], 3), offset=0, input_bitwidth=32, output_bitwidth=8,
               **signed_bounds))]
    code_of = {"input": "quantize"}  # tensor name -> node giving its codes
    for layer in layers:
        name, kind = layer["name"], layer["kind"]
        src = [code_of[i] for i in layer["inputs"]]
        s_in = step[layer["inputs"][0]]
        s_out = step[name]
        code_of[name] = name
        if kind == "conv":
            codes, s_w = weight_codes(layer["w"])
            bias = np.round(layer["b"] / (s_in * s_w)).astype(np.float32)
            out += [const(name + "/weights", codes), const(name + "/bias", bias)]
            s = layer["stride"]
            out.append(node(name, "Z40Conv2DInt8", src + [name + "/weights", name + "/bias"], attrs(
                ActionType="Relu" if layer["relu"] else "None", multify_factor=[0], dilations=[1, 1, 1, 1],
                input_bitwidth=8, offset=0, OUTPUTSCALE=(s_in * s_w / s_out).astype(np.float32),
                output_bitwidth=8, padding=layer["padding"], pad_value=0.0, strides=[1, s, s, 1],
                **(relu_bounds if layer["relu"] else signed_bounds))))
        elif kind == "maxpool":
            step[name] = s_in  # max pooling keeps the codes
            out.append(node(name, "Z40MaxPoolInt8", src, attrs(
                ksize=[1, 3, 3, 1], strides=[1, 2, 2, 1], padding="VALID", pads=[1, 1, 1, 1], padValue=0,
                output_bitwidth=8, **relu_bounds)))
        elif kind == "add":
            c = values[name].shape[-1]
            out.append(node(name, "Z40EltwiseAddInt8", src, attrs(
                INPUT0SCALE=per_channel(s_in, c), input0_offset=0,
                INPUT1SCALE=per_channel(step[layer["inputs"][1]], c), input1_offset=0,
                OUTPUTSCALE=per_channel(1.0 / s_out, c), offset=0, ActionType="Relu", output_bitwidth=8,
                **relu_bounds)))
        elif kind == "gap":
            a = values[layer["inputs"][0]]
            spatial, c = a.shape[1] * a.shape[2], a.shape[3]
            out.append(node(name, "Z40GlobalAvgPoolInt8", src, attrs(
                POOLSCALE=per_channel(s_in / (spatial * s_out), c), output_bitwidth=8, **relu_bounds)))
        else:
            codes, s_w = weight_codes(layer["w"])
            bias = np.round(layer["b"] / (s_in * s_w)).astype(np.float32)
            out += [const(name + "/weights", codes), const(name + "/bias", bias)]
            out.append(node(name, "Z40MatMulInt8", src + [name + "/weights", name + "/bias"], attrs(
                ActionType="None", multify_factor=[0], OUTPUTSCALE=(s_in * s_w / s_out).astype(np.float32),
                output_bitwidth=8, offset=0, **signed_bounds)))
            # Dequantize takes 3-D to 5-D tensors: give the [1, 1000] codes a 4-D shape first.
            out.append(node(name + "/reshape", "Z40ReshapeInt8", [name],
                            attrs(output_shape=[1, 1, 1, CLASSES], output_bitwidth=8)))
            out.append(node("output", "Z40Dequantize", [name + "/reshape"], attrs(
                QSCALE=per_channel(s_out, CLASSES), offset=0, output_bitwidth=32)))
    return b"".join(out)


def write_npy(path, array):
    array = np.ascontiguousarray(array, dtype="<f4")
    header = "{'descr': '<f4', 'fortran_order': False, 'shape': %r, }" % (array.shape,)
    header += " " * ((64 - (10 + len(header) + 1) % 64) % 64) + "\n"
    with open(path, "wb") as f:
        f.write(b"\x93NUMPY\x01\x00" + struct.pack("<H", len(header)) + header.encode() + array.tobytes())


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_resnet18.py OUT_DIR")
    out_dir = sys.argv[1]
    os.makedirs(out_dir, exist_ok=True)
    layers = build_network()
    x = sample_input()
    values = forward(layers, x)
    with open(os.path.join(out_dir, "resnet18_float.pb"), "wb") as f:
        f.write(float_model(layers))
    with open(os.path.join(out_dir, "resnet18_int8.pb"), "wb") as f:
        f.write(int8_model(layers, values))
    write_npy(os.path.join(out_dir, "resnet18_input.npy"), x)
    write_npy(os.path.join(out_dir, "resnet18_numpy_float.npy"), values["fc"])


if __name__ == "__main__":
    main()
