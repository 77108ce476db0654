#!/usr/bin/python3
"""Trains a small convolutional network on sklearn's digits and writes it as kovra models.

    python3 examples/digits/make_digits.py [path/to/kovra]     (default: build/bin/kovra)

Needs Debian's python3-torch, python3-sklearn, python3-numpy, python3-protobuf and protoc;
the generated files are committed, so nothing else in the repository needs these.
Last run with: python 3.11.2, torch 1.13.0a0, numpy 1.24.2, scikit-learn 1.2.1, protobuf 4.21.12
(the versions are also written to the generated README).

Network (8x8 grey image of pixels 0..16, NHWC):
    conv1 3x3 SAME 1->16, ReLU -> pool1 max 2x2 -> conv2 3x3 SAME 16->32, ReLU
    -> gap global average -> logits 32->10
Batch norm is folded into the convolutions before export.

Writes, next to this script:
    float_model.pb     input -> Z40Conv2D -> Z40MaxPool -> Z40Conv2D -> Z40GlobalAvgPool -> Z40MatMul
    int8_model.pb      input -> Z40Quantize -> Z40Conv2DInt8 -> Z40MaxPoolInt8 -> Z40Conv2DInt8
                       -> Z40GlobalAvgPoolInt8 -> Z40MatMulInt8 (32-bit output: real-valued logits)
    test_images.npy    the held-out split, uint8 pixels 0..16 [N, 8, 8, 1]; test_labels.npy, uint8 [N]
    chip_images.npy    the first CHIP_IMAGES held-out images, for the chip reference
    chip_dump/         the chip reference: the int8 dump of chip_images in which FAULTY_LAYER
                       rounds half away from zero (see README.md)
    results.tsv        accuracies measured with kovra, read back by the tests
    README.md
"""

import os
import platform
import shutil
import subprocess
import sys
import tempfile

import numpy as np
import sklearn
import torch
from sklearn.datasets import load_digits
from sklearn.model_selection import train_test_split

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
SEED = 20241125
CHIP_IMAGES = 8
FAULTY_LAYER = "gap"
CODE_MAX = 127.0


def load_proto_classes(tmp):
    """Generates the model schema's Python classes with protoc and imports graph_def_pb2."""
    proto_dir = os.path.join(ROOT, "lite", "proto")
    protos = [os.path.join(proto_dir, f) for f in sorted(os.listdir(proto_dir)) if f.endswith(".proto")]
    subprocess.run(["protoc", "-I", ROOT, "--python_out", tmp] + protos, check=True)
    sys.path.insert(0, tmp)
    from lite.proto import graph_def_pb2  # noqa: E402 (generated above)
    return graph_def_pb2


# ---- training -----------------------------------------------------------------------------

class Net(torch.nn.Module):
    def __init__(self):
        super().__init__()
        self.conv1 = torch.nn.Conv2d(1, 16, 3, padding=1, bias=False)
        self.bn1 = torch.nn.BatchNorm2d(16)
        self.conv2 = torch.nn.Conv2d(16, 32, 3, padding=1, bias=False)
        self.bn2 = torch.nn.BatchNorm2d(32)
        self.fc = torch.nn.Linear(32, 10)

    def forward(self, x):
        x = torch.relu(self.bn1(self.conv1(x)))
        x = torch.nn.functional.max_pool2d(x, 2)
        x = torch.relu(self.bn2(self.conv2(x)))
        return self.fc(x.mean(dim=(2, 3)))


def train(x_train, y_train):
    torch.manual_seed(SEED)
    net = Net()
    opt = torch.optim.Adam(net.parameters(), lr=0.01)
    sched = torch.optim.lr_scheduler.StepLR(opt, 15, 0.3)
    xs = torch.tensor(x_train.transpose(0, 3, 1, 2))
    ys = torch.tensor(y_train, dtype=torch.long)
    gen = torch.Generator().manual_seed(SEED)
    for _ in range(45):
        net.train()
        for idx in torch.randperm(len(xs), generator=gen).split(64):
            opt.zero_grad()
            torch.nn.functional.cross_entropy(net(xs[idx]), ys[idx]).backward()
            opt.step()
        sched.step()
    net.eval()
    return net


def fold(conv, bn):
    """Conv weights as [kh, kw, cin, cout] and bias with the batch norm folded in."""
    scale = (bn.weight / torch.sqrt(bn.running_var + bn.eps)).detach().numpy()
    w = conv.weight.detach().numpy() * scale[:, None, None, None]
    b = bn.bias.detach().numpy() - bn.running_mean.detach().numpy() * scale
    return w.transpose(2, 3, 1, 0).astype(np.float32), b.astype(np.float32)


# ---- a numpy mirror of the float network, for calibration ---------------------------------

def conv_same(x, w, b):
    n, h, wd, _ = x.shape
    kh, kw, _, cout = w.shape
    xp = np.pad(x, ((0, 0), (kh // 2, kh // 2), (kw // 2, kw // 2), (0, 0)))
    y = np.zeros((n, h, wd, cout), np.float64)
    for ky in range(kh):
        for kx in range(kw):
            y += xp[:, ky:ky + h, kx:kx + wd, :] @ w[ky, kx].astype(np.float64)
    return y + b


def maxpool2(x):
    n, h, w, c = x.shape
    return x.reshape(n, h // 2, 2, w // 2, 2, c).max(axis=(2, 4))


def float_layers(x, p):
    a1 = np.maximum(conv_same(x, p["w1"], p["b1"]), 0)
    p1 = maxpool2(a1)
    a2 = np.maximum(conv_same(p1, p["w2"], p["b2"]), 0)
    g = a2.mean(axis=(1, 2))
    return {"conv1": a1, "conv2": a2, "gap": g, "fc": g @ p["wf"] + p["bf"]}


# ---- model writing ------------------------------------------------------------------------

class Graph:
    def __init__(self, pb):
        self.graph = pb.GraphDef()

    def node(self, name, op, inputs=(), **attrs):
        n = self.graph.node.add(name=name, op=op)
        n.input.extend(inputs)
        for key, value in attrs.items():
            a = n.attr[key]
            if isinstance(value, str):
                a.s = value.encode()
            elif isinstance(value, bool) or isinstance(value, int):
                a.i = int(value)
            elif isinstance(value, float):
                a.f = value
            elif all(isinstance(v, int) for v in value):
                a.list.i.extend(value)
            else:
                a.list.f.extend(float(v) for v in value)
        return name

    def const(self, name, array):
        array = np.ascontiguousarray(array, dtype=np.float32)
        n = self.graph.node.add(name=name, op="Const")
        t = n.attr["value"].tensor
        t.dtype = 1  # DT_FLOAT
        for d in array.shape:
            t.tensor_shape.dim.add(size=d)
        t.tensor_content = array.tobytes()
        return name

    def write(self, path):
        with open(path, "wb") as f:
            f.write(self.graph.SerializeToString(deterministic=True))


CONV = dict(strides=[1, 1, 1, 1], padding="SAME", pads=[0, 0, 0, 0], dilations=[1, 1, 1, 1], pad_value=0.0)
POOL = dict(ksize=[1, 2, 2, 1], strides=[1, 2, 2, 1], padding="VALID", pads=[0, 0, 0, 0])


def write_float_model(pb, p, path):
    g = Graph(pb)
    g.node("input", "ZxxNOp")
    g.node("conv1", "Z40Conv2D", ["input", g.const("conv1/weights", p["w1"]), g.const("conv1/bias", p["b1"])],
           ActionType="Relu", **CONV)
    g.node("pool1", "Z40MaxPool", ["conv1"], **POOL)
    g.node("conv2", "Z40Conv2D", ["pool1", g.const("conv2/weights", p["w2"]), g.const("conv2/bias", p["b2"])],
           ActionType="Relu", **CONV)
    g.node("gap", "Z40GlobalAvgPool", ["conv2"])
    g.node("logits", "Z40MatMul", ["gap", g.const("fc/weights", p["wf"]), g.const("fc/bias", p["bf"])],
           ActionType="None")
    g.write(path)


def f32(x):
    return np.float32(x)


def weight_codes(w):
    """Per-output-channel (last axis) symmetric codes in [-127, 127] and their scales."""
    top = np.abs(w.reshape(-1, w.shape[-1])).max(axis=0)
    scale = (CODE_MAX / np.maximum(top, 1e-8)).astype(np.float32)
    return np.round(w * scale).astype(np.float32), scale


def activation_scale(values):
    """Codes per unit for non-negative activations: the 99.99th percentile maps to 127."""
    return f32(CODE_MAX / np.percentile(values, 99.99))


def quantize_params(p, calib):
    """Per-layer int8 parameters: scales are codes per unit, as QSCALE multiplies."""
    q = {"s_in": f32(127.0 / 16.0)}  # pixel 16 is code 127
    s1 = activation_scale(calib["conv1"])
    s2 = activation_scale(calib["conv2"])
    # The average pool divides by 16 and may scale up by a power of two to use the code range;
    # POOLSCALE is then an exact power of two, as the chip's shifter computes it.
    up = 2.0 ** np.floor(np.log2(CODE_MAX / np.percentile(calib["gap"], 99.99) / s2))
    s3 = f32(s2 * up)
    # The classifier's output is real-valued (its 32-bit output stage): one code per unit.
    layers = [("conv1", "w1", "b1", q["s_in"], s1), ("conv2", "w2", "b2", s1, s2), ("fc", "wf", "bf", s3, 1.0)]
    for name, wk, bk, s_in, s_out in layers:
        codes, sw = weight_codes(p[wk])
        acc = (s_in * sw).astype(np.float64)
        q[name] = {"w": codes, "b": np.round(p[bk] * acc).astype(np.float32),
                   "scale": (s_out / acc).astype(np.float32)}
    q["pool"] = np.full(32, up / 16.0, np.float32)
    return q


def write_int8_model(pb, q, path):
    g = Graph(pb)
    codes = dict(maxValue=127, minValue=0, output_bitwidth=8)
    g.node("input", "ZxxNOp")
    g.node("quantize", "Z40Quantize", ["input"], QSCALE=[float(q["s_in"])], maxValue=127, minValue=-128,
           offset=0, input_bitwidth=32, output_bitwidth=8)
    for name, src in (("conv1", "quantize"), ("conv2", "pool1")):
        g.node(name, "Z40Conv2DInt8",
               [src, g.const(name + "/weights", q[name]["w"]), g.const(name + "/bias", q[name]["b"])],
               ActionType="Relu", multify_factor=[0], input_bitwidth=8, offset=0,
               OUTPUTSCALE=list(q[name]["scale"]), **CONV, **codes)
        if name == "conv1":
            g.node("pool1", "Z40MaxPoolInt8", ["conv1"], **POOL, **codes)
    g.node("gap", "Z40GlobalAvgPoolInt8", ["conv2"], POOLSCALE=list(q["pool"]), **codes)
    # The classifier's 32-bit output stage leaves the chip dequantized: accumulator times
    # OUTPUTSCALE, unrounded. (Z40Dequantize takes 3-D to 5-D tensors, not the product's [N, 10].)
    g.node("logits", "Z40MatMulInt8",
           ["gap", g.const("fc/weights", q["fc"]["w"]), g.const("fc/bias", q["fc"]["b"])],
           ActionType="None", multify_factor=[0], OUTPUTSCALE=list(q["fc"]["scale"]), maxValue=127,
           minValue=-128, offset=0, output_bitwidth=32)
    g.write(path)


# ---- running kovra ------------------------------------------------------------------------

def kovra(binary, *args):
    subprocess.run([binary] + list(args), check=True, stdout=subprocess.DEVNULL)


def read_manifest(folder):
    rows = []
    with open(os.path.join(folder, "manifest.tsv")) as f:
        for line in f:
            if not line.startswith("#"):
                rows.append(line.rstrip("\n").split("\t"))
    return rows


DTYPES = {"uint8": np.uint8, "int8": np.int8, "uint16": np.uint16, "int16": np.int16, "float32": np.float32}


def read_dumped(folder, row):
    values = np.fromfile(os.path.join(folder, row[1]), DTYPES[row[4]]).astype(np.float32)
    return values.reshape([int(d) for d in row[3].split("x")])


def predictions(binary, model, images, tmp):
    out = os.path.join(tmp, "out")
    np.save(os.path.join(tmp, "x.npy"), images)
    kovra(binary, "run", "-q", model, "-i", "input=" + os.path.join(tmp, "x.npy"), "--out-dir", out)
    return np.load(os.path.join(out, "logits.npy")).argmax(axis=1)


def round_half_away(x):
    return np.sign(x) * np.floor(np.abs(x) + 0.5)


def make_chip_reference(binary, model, images, pool_scale, tmp):
    """The int8 dump of `images` as a chip whose FAULTY_LAYER rounds half away from zero would give it."""
    host = os.path.join(tmp, "host")
    np.save(os.path.join(tmp, "chip.npy"), images)
    kovra(binary, "run", "-q", model, "-i", "input=" + os.path.join(tmp, "chip.npy"), "--dump", host)
    rows = read_manifest(host)
    by_name = {r[2]: r for r in rows}
    # The faulty layer recomputed from its dumped input: per-channel sums of codes, times the
    # power-of-two POOLSCALE (both exact in float32), rounded the other way, clamped to [0, 127].
    conv2 = read_dumped(host, by_name["conv2"])
    good = read_dumped(host, by_name[FAULTY_LAYER])
    pre = (conv2.sum(axis=(1, 2), dtype=np.float32) * pool_scale).astype(np.float32).reshape(good.shape)
    faulty = np.clip(round_half_away(pre), 0, 127)
    assert np.array_equal(np.clip(np.round(pre), 0, 127), good), "the host's average pool is not as modelled"
    changed = int((faulty != good).sum())
    assert changed > 0, "the simulated fault changes no code"

    ref = os.path.join(HERE, "chip_dump")
    shutil.rmtree(ref, ignore_errors=True)
    shutil.copytree(host, ref)
    faulty.astype(DTYPES[by_name[FAULTY_LAYER][4]]).tofile(os.path.join(ref, by_name[FAULTY_LAYER][1]))
    # Every later layer computed from the faulty output.
    after = os.path.join(tmp, "after")
    later = rows[[r[2] for r in rows].index(FAULTY_LAYER) + 1]
    kovra(binary, "run", "-q", model, "--start", later[2],
          "-i", FAULTY_LAYER + "=" + os.path.join(ref, by_name[FAULTY_LAYER][1]),
          "--manifest", os.path.join(host, "manifest.tsv"), "--dump", after)
    for row in read_manifest(after):
        shutil.copy(os.path.join(after, row[1]), os.path.join(ref, by_name[row[2]][1]))
    verdict = subprocess.run([binary, "verify", model, ref, "-i", "input=" + os.path.join(tmp, "chip.npy"),
                              "--rtol", "0", "--atol", "0"], stdout=subprocess.PIPE, text=True).stdout
    assert "first node that computes differently: %s\n" % FAULTY_LAYER in verdict, verdict
    assert "1 locally out of tolerance" in verdict, verdict
    return changed


def main():
    binary = sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "bin", "kovra")
    torch.set_num_threads(1)
    digits = load_digits()
    # The models take the data set's pixels (0..16) as they are; training sees them / 16,
    # and that factor is folded into the first layer.
    x = digits.images.astype(np.uint8)[..., None]
    y = digits.target.astype(np.uint8)
    x_train, x_test, y_train, y_test = train_test_split(x, y, test_size=0.2, random_state=0, stratify=y)

    net = train((x_train / 16.0).astype(np.float32), y_train)
    with torch.no_grad():
        torch_x = torch.tensor((x_test / 16.0).astype(np.float32).transpose(0, 3, 1, 2))
        torch_acc = float((net(torch_x).argmax(1).numpy() == y_test).mean())
    p = {}
    p["w1"], p["b1"] = fold(net.conv1, net.bn1)
    p["w1"] /= 16.0
    p["w2"], p["b2"] = fold(net.conv2, net.bn2)
    p["wf"] = net.fc.weight.detach().numpy().T.astype(np.float32).copy()
    p["bf"] = net.fc.bias.detach().numpy().astype(np.float32)
    numpy_pred = float_layers(x_test.astype(np.float64), p)["fc"].argmax(1)
    folded_acc = float((numpy_pred == y_test).mean())
    q = quantize_params(p, float_layers(x_train.astype(np.float64), p))

    with tempfile.TemporaryDirectory() as tmp:
        pb = load_proto_classes(tmp)
        float_model = os.path.join(HERE, "float_model.pb")
        int8_model = os.path.join(HERE, "int8_model.pb")
        write_float_model(pb, p, float_model)
        write_int8_model(pb, q, int8_model)
        np.save(os.path.join(HERE, "test_images.npy"), x_test)
        np.save(os.path.join(HERE, "test_labels.npy"), y_test)
        np.save(os.path.join(HERE, "chip_images.npy"), x_test[:CHIP_IMAGES])
        float_pred = predictions(binary, float_model, x_test, tmp)
        int8_pred = predictions(binary, int8_model, x_test, tmp)
        changed = make_chip_reference(binary, int8_model, x_test[:CHIP_IMAGES], q["pool"], tmp)

    results = {
        "images": len(y_test),
        "float_accuracy": float((float_pred == y_test).mean()),
        "int8_accuracy": float((int8_pred == y_test).mean()),
        "agreement": float((float_pred == int8_pred).mean()),
        "faulty_layer": FAULTY_LAYER,
        "faulty_codes": changed,
    }
    print("torch %.4f, folded numpy %.4f" % (torch_acc, folded_acc))
    for k, v in results.items():
        print("%s\t%s" % (k, v))
    assert (float_pred == numpy_pred).mean() >= 0.99, "kovra's float model disagrees with numpy's"
    with open(os.path.join(HERE, "results.tsv"), "w") as f:
        f.write("# Written by make_digits.py: what kovra gave on the held-out split.\n")
        for k, v in results.items():
            f.write("%s\t%s\n" % (k, ("%.4f" % v) if isinstance(v, float) else v))
    write_readme(results)


def write_readme(r):
    versions = "python %s, torch %s, numpy %s, scikit-learn %s" % (
        platform.python_version(), torch.__version__, np.__version__, sklearn.__version__)
    with open(os.path.join(HERE, "README.md"), "w") as f:
        f.write(README % dict(versions=versions, n=r["images"], fa=100 * r["float_accuracy"],
                              ia=100 * r["int8_accuracy"], ag=100 * r["agreement"],
                              layer=r["faulty_layer"], codes=r["faulty_codes"], chip=CHIP_IMAGES))


README = """# A trained digits network, float and int8

Generated by `make_digits.py` (%(versions)s); do not edit by hand.
To regenerate (needs PyTorch, scikit-learn, numpy, protobuf for Python and a built kovra):
`examples/digits/make_digits.py [build/bin/kovra]` (it runs /usr/bin/python3); reruns give the same files.

sklearn's digits (1797 grey 8x8 images of handwritten digits, 10 classes) split 80/20,
stratified, `random_state=0`; the network trained with PyTorch on the 80%%, batch norm folded:

    conv1 3x3 SAME 1->16, ReLU -> pool1 max 2x2 -> conv2 3x3 SAME 16->32, ReLU
    -> gap global average -> logits 32->10

| file | what |
|---|---|
| `float_model.pb` | the float network: Z40Conv2D, Z40MaxPool, Z40GlobalAvgPool, Z40MatMul; output `logits` [N, 10] |
| `int8_model.pb` | the same quantized: Z40Quantize, Z40Conv2DInt8 (fused ReLU), Z40MaxPoolInt8, Z40GlobalAvgPoolInt8, Z40MatMulInt8; output `logits` [N, 10] |
| `test_images.npy`, `test_labels.npy` | the held-out %(n)d images (uint8 [N, 8, 8, 1], pixels 0..16) and labels |
| `chip_images.npy` | the first %(chip)d held-out images |
| `chip_dump/` | a chip's dump of `int8_model.pb` on `chip_images.npy`, with a simulated fault |
| `results.tsv` | the accuracies below, as kovra computed them |
| `accuracy.py` | accuracies and agreement from kovra's logits (plain python3; the demo uses it) |

Quantization: weights per output channel, symmetric, codes in [-127, 127]; activations
per tensor, calibrated on the training split (the 99.99th percentile maps to code 127); biases
as accumulator codes; every requantization scale is the output scale over the input scale
times the weight scale. The average pool's POOLSCALE is a power of two. The classifier
uses the int8 matrix multiply's 32-bit output (accumulator times OUTPUTSCALE, not rounded), so
its logits come out in real units: Z40Dequantize takes 3-D to 5-D tensors, and a product's
output is [N, 10].

On the held-out %(n)d images: float %(fa).2f%%, int8 %(ia).2f%%; the two agree on %(ag).2f%%
of the images.

## The chip reference

`chip_dump/` is what a chip with one faulty layer would dump: its `%(layer)s` layer
(Z40GlobalAvgPoolInt8) rounds its requantization half away from zero instead of half to
even, so a channel mean of exactly x.5 codes comes out one code higher when x is even
(%(codes)d of its codes differ on these images). Every layer after it was computed from
that changed output, as the chip would; every layer before it is the host's own result.
`kovra compare` shows `%(layer)s` as the first divergence, and `kovra verify` names it as the
only layer that computes differently.
"""


if __name__ == "__main__":
    main()
