#!/usr/bin/env python3
"""Prints the accuracy of each model's logits and how often two models agree.

    accuracy.py LABELS.npy NAME=LOGITS.npy [NAME=LOGITS.npy]

Plain python3: reads the little-endian float32 logits kovra writes and uint8 labels.
"""

import ast
import struct
import sys


def read_npy(path):
    with open(path, "rb") as f:
        data = f.read()
    if data[:6] != b"\x93NUMPY":
        sys.exit("%s: not a .npy file" % path)
    size_bytes = 2 if data[6] == 1 else 4
    header_len = int.from_bytes(data[8:8 + size_bytes], "little")
    start = 8 + size_bytes
    header = ast.literal_eval(data[start:start + header_len].decode("latin1"))
    formats = {"<f4": "f", "|u1": "B"}
    if header["descr"] not in formats or header["fortran_order"]:
        sys.exit("%s: expected float32 or uint8 in C order, got %s" % (path, header["descr"]))
    count = 1
    for d in header["shape"]:
        count *= d
    values = struct.unpack_from("<%d%s" % (count, formats[header["descr"]]), data, start + header_len)
    return list(header["shape"]), values


def predictions(path):
    shape, values = read_npy(path)
    classes = shape[-1]
    rows = [values[i:i + classes] for i in range(0, len(values), classes)]
    return [max(range(classes), key=row.__getitem__) for row in rows]


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    _, labels = read_npy(sys.argv[1])
    runs = []
    for arg in sys.argv[2:]:
        name, path = arg.split("=", 1)
        predicted = predictions(path)
        if len(predicted) != len(labels):
            sys.exit("%s: %d rows of logits for %d labels" % (path, len(predicted), len(labels)))
        right = sum(p == y for p, y in zip(predicted, labels))
        print("%-6s accuracy: %6.2f%%  (%d of %d held-out images)" %
              (name, 100.0 * right / len(labels), right, len(labels)))
        runs.append((name, predicted))
    if len(runs) == 2:
        same = sum(a == b for a, b in zip(runs[0][1], runs[1][1]))
        print("%s and %s agree on %.2f%% of the images (%d of %d)" %
              (runs[0][0], runs[1][0], 100.0 * same / len(labels), same, len(labels)))


if __name__ == "__main__":
    main()
