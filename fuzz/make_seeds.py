#!/usr/bin/env python3
"""Writes the seed corpus of the fuzz targets into OUT/<target>/.

  fuzz/make_seeds.py OUT [CIPHER_KEY]

fuzz_model gets the example models and one small model per operator family, in
text and binary form; fuzz_protected the binary ones protected with the key
(the build's default unless given); fuzz_npy arrays of several dtypes, orders
and versions; fuzz_dump manifests with their raw files. Models take the
fuzzer's first input shape, 1x4x4x3.
"""
import os
import shutil
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
OUT = sys.argv[1]
KEY = sys.argv[2] if len(sys.argv) > 2 else "kovra-executor-model-key"
C = 3  # channels of the fed input


class Tensor:
    def __init__(self, dims, values):
        self.dims = dims
        self.content = struct.pack("<%df" % len(values), *values)


def weights(dims, scale=0.25):
    count = 1
    for d in dims:
        count *= d
    return Tensor(dims, [((i * 5) % 7 - 3) * scale for i in range(count)])


# ---- protobuf encodings of a GraphDef: nodes of (name, op, inputs, attrs) ----

def varint(n):
    n &= (1 << 64) - 1
    out = b""
    while True:
        byte = n & 0x7F
        n >>= 7
        if n:
            out += bytes([byte | 0x80])
        else:
            return out + bytes([byte])


def field(number, payload):
    return varint(number << 3 | 2) + varint(len(payload)) + payload


def field_int(number, value):
    return varint(number << 3) + varint(value)


def binary_value(v):
    if isinstance(v, bool):
        return field_int(5, int(v))
    if isinstance(v, int):
        return field_int(3, v)
    if isinstance(v, float):
        return varint(4 << 3 | 5) + struct.pack("<f", v)
    if isinstance(v, str):
        return field(2, v.encode())
    if isinstance(v, Tensor):
        shape = b"".join(field(2, field_int(1, d)) for d in v.dims)
        return field(8, field_int(1, 1) + field(2, shape) + field(4, v.content))
    if all(isinstance(x, int) for x in v):
        return field(1, field(3, b"".join(varint(x) for x in v)))
    return field(1, field(4, struct.pack("<%df" % len(v), *v)))


def binary(nodes):
    out = b""
    for name, op, inputs, attrs in nodes:
        body = field(1, name.encode()) + field(2, op.encode())
        body += b"".join(field(3, i.encode()) for i in inputs)
        for key, value in attrs.items():
            body += field(5, field(1, key.encode()) + field(2, binary_value(value)))
        out += field(1, body)
    return out


def text_value(v):
    if isinstance(v, bool):
        return "b: %s" % ("true" if v else "false")
    if isinstance(v, int):
        return "i: %d" % v
    if isinstance(v, float):
        return "f: %r" % v
    if isinstance(v, str):
        return 's: "%s"' % v
    if isinstance(v, Tensor):
        dims = " ".join("dim { size: %d }" % d for d in v.dims)
        content = "".join("\\%03o" % b for b in v.content)
        return 'tensor { dtype: DT_FLOAT tensor_shape { %s } tensor_content: "%s" }' % (dims, content)
    kind = "i" if all(isinstance(x, int) for x in v) else "f"
    return "list { %s }" % " ".join("%s: %r" % (kind, x) for x in v)


def text(nodes):
    out = ""
    for name, op, inputs, attrs in nodes:
        out += 'node {\n  name: "%s"\n  op: "%s"\n' % (name, op)
        out += "".join('  input: "%s"\n' % i for i in inputs)
        for key, value in attrs.items():
            out += '  attr { key: "%s" value { %s } }\n' % (key, text_value(value))
        out += "}\n"
    return out


# ---- the models ----

INPUT = ("input", "ZxxNOp", [], {})
INT8 = {"output_bitwidth": 8, "maxValue": 127, "minValue": -128, "offset": 0}
QUANTIZE = ("q", "Z40Quantize", ["input"],
            dict(INT8, QSCALE=[32.0] * C, input_bitwidth=32))
CONV = {"strides": [1, 1, 1, 1], "padding": "SAME", "pads": [1, 1, 1, 1], "dilations": [1, 1, 1, 1],
        "pad_value": 0.0, "ActionType": "Relu"}
POOL = {"ksize": [1, 2, 2, 1], "strides": [1, 2, 2, 1], "padding": "VALID", "pads": [0, 0, 0, 0]}


def const(name, tensor):
    return (name, "Const", [], {"value": tensor})


def unary(op, attrs=None):
    return [INPUT, ("op", op, ["input"], attrs or {})]


def unary_int8(op, attrs=None):
    return [INPUT, QUANTIZE, ("op", op, ["q"], dict(INT8, INPUTSCALE=[0.03125], input_offset=0, OUTPUTSCALE=[0.0078125], **(attrs or {}))),
            ("dq", "Z40Dequantize", ["op"], {"QSCALE": [0.03125] * C, "offset": 0, "output_bitwidth": 32})]


def binary_op(op, attrs=None, int8=False):
    if not int8:
        return [INPUT, ("r", "Z40Relu", ["input"], {}), ("op", op, ["input", "r"], attrs or {})]
    return [INPUT, QUANTIZE, ("q2", "Z40Quantize", ["input"], dict(INT8, QSCALE=[16.0] * C, input_bitwidth=32)),
            ("op", op, ["q", "q2"], dict(INT8, OUTPUTSCALE=[0.5], INPUT0SCALE=[0.03125], INPUT1SCALE=[0.0625],
                                           input0_offset=0, input1_offset=0, **(attrs or {})))]


def conv(op, cout, int8=False, depthwise=False):
    dims = [3, 3, C, 1] if depthwise else [3, 3, C, cout]
    attrs = dict(CONV)
    if int8:
        attrs.update(INT8, input_bitwidth=8, OUTPUTSCALE=[0.01] * cout, multify_factor=[0])
    src = "q" if int8 else "input"
    nodes = [INPUT] + ([QUANTIZE] if int8 else [])
    return nodes + [const("w", weights(dims)), const("b", weights([cout], 0.5)), ("op", op, [src, "w", "b"], attrs)]


MODELS = {
    "conv_float": conv("Z40Conv2D", 4),
    "conv_depthwise": conv("Z40DepthwiseConv2dNative", C, depthwise=True),
    "conv_int8": conv("Z40Conv2DInt8", 4, int8=True),
    "conv_depthwise_int8": conv("Z40DepthwiseConv2dNativeInt8", C, int8=True, depthwise=True),
    "matmul_float": [INPUT, ("flat", "Z40Reshape", ["input"], {"output_shape": [1, 16 * C]}),
                     const("w", weights([16 * C, 5])), const("b", weights([5])),
                     ("op", "Z40MatMul", ["flat", "w", "b"], {"ActionType": "None"})],
    "matmul_int8": [INPUT, QUANTIZE, ("flat", "Z40FlattenInt8", ["q"], dict(INT8)),
                    const("w", weights([16 * C, 5])), const("b", weights([5])),
                    ("op", "Z40MatMulInt8", ["flat", "w", "b"], dict(INT8, OUTPUTSCALE=[0.01] * 5))],
    "pool_max": unary("Z40MaxPool", POOL),
    "pool_avg": unary("Z40AvgPool", POOL),
    "pool_global": unary("Z40GlobalAvgPool"),
    "pool_max_int8": unary_int8("Z40MaxPoolInt8", dict(POOL, padValue=-128)),
    "pool_avg_int8": unary_int8("Z40AvgPoolInt8", dict(POOL, POOLSCALE=[0.25])),
    "pool_global_int8": unary_int8("Z40GlobalAvgPoolInt8", {"POOLSCALE": [0.0625], "output_shape": [1, 1, 1, C]}),
    "eltwise_add": binary_op("Z40EltwiseAdd"),
    "eltwise_mul": binary_op("Z40EltwiseMul"),
    "eltwise_div": binary_op("Z40Div"),
    "eltwise_max": binary_op("Z40Max"),
    "eltwise_add_int8": binary_op("Z40EltwiseAddInt8", int8=True),
    "eltwise_mul_int8": binary_op("Z40EltwiseMulInt8", int8=True),
    "concat": binary_op("Z40Concat", {"axis": 3}),
    "concat_int8": binary_op("Z40ConcatInt8", {"axis": 3, "DEQSCALE": [0.03125, 0.0625], "QSCALE": [32.0, 32.0],
                                               "input_bitwidth": 8, "input_offset": [0, 0]}, int8=True),
    "act_relu6": unary("Z40Relu6"),
    "act_sigmoid": unary("Z40Sigmoid"),
    "act_softmax": unary("Z40Softmax"),
    "act_leaky": unary("Z40LeakyRelu", {"alpha": 0.125}),
    "act_elu": unary("Z40Elu", {"alpha": 1.0}),
    "act_swish": unary("Z40Swish", {"beta": 1.0}),
    "act_hsigmoid": unary("Z40Hsigmoid", {"alpha": 0.2, "beta": 0.5}),
    "act_sigmoid_int8": unary_int8("Z40SigmoidInt8"),
    "act_tanh_int8": unary_int8("Z40TanhInt8"),
    "act_leaky_int8": unary_int8("Z40LeakyReluInt8", {"alpha": 0.125}),
    "layout_reshape": unary("Z40Reshape", {"output_shape": [1, 2, 8, C]}),
    "layout_transpose": unary("Z40Transpose", {"perm": [0, 3, 1, 2], "output_shape": [1, C, 4, 4]}),
    "layout_slice": unary("Z40Slice", {"starts": [0, 1, 1, 0], "ends": [1, 3, 4, C], "axes": [0, 1, 2, 3],
                                      "steps": [1, 1, 1, 1], "output_shape": [1, 2, 3, C]}),
    "layout_pad": unary("Z40Pad", {"pads": [0, 0, 1, 1, 1, 1, 0, 0], "output_shape": [1, 6, 6, C],
                                  "mode": "constant"}),
    "layout_space_to_depth": unary("Z40SpaceToDepth", {"output_shape": [1, 2, 2, 4 * C]}),
    "layout_shuffle": unary("Z40ChannelShuffle", {"groups": 1.0}),
    "layout_unpool": unary("Z40Unpool2D", {"kernel_size": [2, 2], "mode": "nearest"}),
    "layout_transpose_int8": unary_int8("Z40TransposeInt8", {"perm": [0, 2, 1, 3], "output_shape": [1, 4, 4, C]}),
    "layout_pad_int8": unary_int8("Z40PadInt8", {"pads": [0, 0, 1, 1, 1, 1, 0, 0], "padValue": 0,
                                                 "mode": "constant", "output_shape": [1, 6, 6, C]}),
    "resize_bilinear": unary("Z40ResizeBilinear", {"wh_scale": 2.0, "align_corners": False}),
    "resize_nearest": unary("Z40ResizeNearestNeighbor", {"wh_scale": 2.0}),
    "resize_bilinear_int8": unary_int8("Z40ResizeBilinearInt8", {"wh_scale": 2.0, "align_corners": False}),
    "batch_norm": unary("Z40BatchNormScale", {"scale": [0.5] * C, "bias": [0.25] * C, "ActionType": "None"}),
    "gru": [INPUT, ("seq", "Z40Reshape", ["input"], {"output_shape": [4, 1, 4 * C]}),
            const("w", weights([1, 3 * 2, 4 * C], 0.125)), const("r", weights([1, 3 * 2, 2], 0.125)),
            const("b", weights([1, 6 * 2])),
            ("op", "Z40GRU", ["seq", "w", "r", "b"], {"hidden_size": 2.0, "direction": "forward",
                                                       "linear_before_reset": True})],
    "quant_aware": [INPUT, ("nop", "ZxxNOp", ["input"], {}), ("op", "Z40Relu", ["nop"], {})],
}


def npy(descr, shape, data, fortran=False, version=1):
    header = "{'descr': '%s', 'fortran_order': %s, 'shape': (%s), }" % (
        descr, "True" if fortran else "False", "".join("%d," % d for d in shape))
    size_bytes = 2 if version == 1 else 4
    pad = 64 - (10 + len(header) + 1 + (size_bytes - 2)) % 64
    header += " " * pad + "\n"
    size = struct.pack("<H" if version == 1 else "<I", len(header))
    return b"\x93NUMPY" + bytes([version, 0]) + size + header.encode() + data


def rc4(data):
    s = list(range(256))
    j = 0
    for i in range(256):
        j = (j + s[i] + ord(KEY[i % len(KEY)])) & 0xFF
        s[i], s[j] = s[j], s[i]
    i = j = 0
    out = bytearray()
    for byte in data:
        i = (i + 1) & 0xFF
        j = (j + s[i]) & 0xFF
        s[i], s[j] = s[j], s[i]
        out.append(byte ^ s[(s[i] + s[j]) & 0xFF])
    return bytes(out)


def write(target, name, data):
    folder = os.path.join(OUT, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


def main():
    shutil.rmtree(OUT, ignore_errors=True)
    for example in ("float_model.pbtxt", "int8_model.pbtxt"):
        with open(os.path.join(ROOT, "examples", example), "rb") as f:
            write("fuzz_model", example, f.read())
    for name, nodes in MODELS.items():
        write("fuzz_model", name + ".pbtxt", text(nodes))
        write("fuzz_model", name + ".pb", binary(nodes))
        write("fuzz_protected", name + ".kvm", b"KVRAPROT" + rc4(binary(nodes)))
    write("fuzz_protected", "no_magic.kvm", rc4(binary(MODELS["conv_float"])))
    write("fuzz_protected", "plain.pbtxt", text(MODELS["pool_max"]))
    write("fuzz_protected", "plain.pb", binary(MODELS["pool_max"]))

    floats = struct.pack("<6f", 0.0, -1.5, 2.0, 3.25, -0.0, 1e9)
    write("fuzz_npy", "f4.npy", npy("<f4", [2, 3], floats))
    write("fuzz_npy", "f4_fortran.npy", npy("<f4", [2, 3], floats, fortran=True))
    write("fuzz_npy", "f8_big.npy", npy(">f8", [3], struct.pack(">3d", 1.0, -2.0, 0.5)))
    write("fuzz_npy", "f2.npy", npy("<f2", [2], struct.pack("<2e", 1.0, -0.5)))
    write("fuzz_npy", "i1_v2.npy", npy("|i1", [1, 2, 2], bytes([0, 127, 128, 255]), version=2))
    write("fuzz_npy", "u2_v3.npy", npy("<u2", [3], struct.pack("<3H", 0, 1, 65535), version=3))
    write("fuzz_npy", "bool.npy", npy("|b1", [2], bytes([0, 1])))
    write("fuzz_npy", "i8_scalar.npy", npy("<i8", [], struct.pack("<q", -7)))
    write("fuzz_npy", "empty.npy", npy("<f4", [0, 3], b""))

    line = "{i}\t{name}.bin\t{name}\t{dims}\t{dtype}\t{bits}\t{op}\n"
    cases = [("float32", "2x3", 32, struct.pack("<6f", *range(6))), ("int8", "1x4", 8, bytes([0, 1, 128, 255])),
             ("uint16", "3", 16, struct.pack("<3H", 0, 1, 65535)), ("int4x2", "3", 4, bytes([0x12, 0xF0])),
             ("uint8", "scalar", 8, bytes([9]))]
    for i, (dtype, dims, bits, data) in enumerate(cases):
        manifest = "# index\tfile\tname\tshape\tdtype\tbitwidth\top\n"
        manifest += line.format(i=i, name="node%d" % i, dims=dims, dtype=dtype, bits=bits, op="Z40Relu")
        write("fuzz_dump", dtype + ".dump", manifest.encode() + b"\0" + data)


main()
