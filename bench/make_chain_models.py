#!/usr/bin/env python3
"""Writes the per-node overhead models: long chains of tiny nodes, so that a
run's time is the executor's own cost per node rather than arithmetic.

    relu_chain.pbtxt   input [1,1,1,4] -> 2000 x Z40Relu
    conv_chain.pbtxt   input [1,1,1,4] -> 2000 x Z40Conv2D 1x1, 4 -> 4 channels, with bias
    chain_input.npy    the input, float32 [1,1,1,4]

    make_chain_models.py OUT_DIR [NODES]

Time a chain with `kovra run MODEL -i input=OUT_DIR/chain_input.npy --repeat N`;
the per-node cost is (time of N+1 runs - time of 1 run) / N / NODES.
"""

import os
import struct
import sys


def npy_bytes(shape, values):
    dims = ", ".join(str(d) for d in shape)
    header = "{'descr': '<f4', 'fortran_order': False, 'shape': (%s), }" % dims
    pad = (64 - (10 + len(header) + 1) % 64) % 64
    header = header + " " * pad + "\n"
    data = struct.pack("<%df" % len(values), *values)
    return b"\x93NUMPY\x01\x00" + struct.pack("<H", len(header)) + header.encode() + data


def const(name, shape, values):
    dims = " ".join("dim { size: %d }" % d for d in shape)
    content = "".join("\\%03o" % b for b in struct.pack("<%df" % len(values), *values))
    return ('node {\n  name: "%s"\n  op: "Const"\n'
            '  attr { key: "value" value { tensor { dtype: DT_FLOAT tensor_shape { %s } '
            'tensor_content: "%s" } } }\n}\n' % (name, dims, content))


def relu_chain(nodes):
    out = ['node {\n  name: "input"\n  op: "ZxxNOp"\n}\n']
    prev = "input"
    for i in range(nodes):
        name = "relu%d" % i
        out.append('node {\n  name: "%s"\n  op: "Z40Relu"\n  input: "%s"\n}\n' % (name, prev))
        prev = name
    return "".join(out)


def conv_chain(nodes):
    # A 4x4 weight that permutes the channels keeps values bounded over any length.
    weight = [1.0 if (i + 1) % 4 == o else 0.0 for i in range(4) for o in range(4)]
    out = ['node {\n  name: "input"\n  op: "ZxxNOp"\n}\n',
           const("w", [1, 1, 4, 4], weight), const("b", [4], [0.0] * 4)]
    prev = "input"
    for i in range(nodes):
        name = "conv%d" % i
        out.append('node {\n  name: "%s"\n  op: "Z40Conv2D"\n  input: "%s"\n  input: "w"\n  input: "b"\n'
                   '  attr { key: "strides" value { list { i: 1 i: 1 i: 1 i: 1 } } }\n'
                   '  attr { key: "padding" value { s: "VALID" } }\n}\n' % (name, prev))
        prev = name
    return "".join(out)


def main():
    out_dir = sys.argv[1] if len(sys.argv) > 1 else "."
    nodes = int(sys.argv[2]) if len(sys.argv) > 2 else 2000
    os.makedirs(out_dir, exist_ok=True)
    with open(os.path.join(out_dir, "relu_chain.pbtxt"), "w") as f:
        f.write(relu_chain(nodes))
    with open(os.path.join(out_dir, "conv_chain.pbtxt"), "w") as f:
        f.write(conv_chain(nodes))
    with open(os.path.join(out_dir, "chain_input.npy"), "wb") as f:
        f.write(npy_bytes([1, 1, 1, 4], [1.0, -2.0, 3.0, -4.0]))


if __name__ == "__main__":
    main()
