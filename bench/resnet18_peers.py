#!/usr/bin/env python3
"""The network of make_resnet18.py (same seed, same weights) in PyTorch, for
bench/resnet18.sh.

    resnet18_peers.py prepare CACHE_DIR
        torch_float.pt      frozen TorchScript, float, NCHW
        torch_int8.pt       frozen TorchScript, post-training static quantization
                            (quantized engine "onednn"), calibrated on the sample input
        resnet18.onnx       ONNX export of the float network
        input_nchw.bin      the sample input as raw float32 NCHW (for the ONNX Runtime timer)
        torch_float.npy, torch_int8.npy   outputs on the sample input, [1, 1000]
    resnet18_peers.py time CACHE_DIR float|int8 THREADS RUNS
        prints the median milliseconds of RUNS timed runs (after 3 untimed ones)

Padding follows the library's: where its top and bottom padding differ (conv1, the
3x3/2 convolutions) an explicit zero pad precedes an unpadded convolution.
"""

import os
import sys
import time

import numpy as np
import torch
from torch import nn
from torch.ao import quantization as tq

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import make_resnet18  # noqa: E402

ENGINE = "onednn"


class ConvUnit(nn.Module):
    """Convolution with its folded batch norm, then Relu when the layer has one."""

    def __init__(self, layer):
        super().__init__()
        w, b = layer["w"], layer["b"]
        kh, _, cin, cout = w.shape
        top, bottom = layer["pads"]
        symmetric = top == bottom
        self.pad = nn.Identity() if symmetric else nn.ZeroPad2d((top, bottom, top, bottom))
        self.conv = nn.Conv2d(cin, cout, kh, layer["stride"], padding=top if symmetric else 0)
        with torch.no_grad():
            self.conv.weight.copy_(torch.from_numpy(w.transpose(3, 2, 0, 1).copy()))
            self.conv.bias.copy_(torch.from_numpy(b))
        self.relu = nn.ReLU() if layer["relu"] else nn.Identity()
        self.fusable = layer["relu"]

    def forward(self, x):
        return self.relu(self.conv(self.pad(x)))


class Block(nn.Module):
    def __init__(self, conv1, conv2, downsample):
        super().__init__()
        self.conv1, self.conv2 = conv1, conv2
        self.downsample = downsample if downsample is not None else nn.Identity()
        self.add = nn.quantized.FloatFunctional()

    def forward(self, x):
        return self.add.add_relu(self.conv2(self.conv1(x)), self.downsample(x))


class ResNet18(nn.Module):
    def __init__(self, layers):
        super().__init__()
        by_name = {layer["name"]: layer for layer in layers}
        self.quant, self.dequant = tq.QuantStub(), tq.DeQuantStub()
        self.stem = ConvUnit(by_name["conv1"])
        self.pool = nn.MaxPool2d(3, 2, 1)
        blocks = []
        for layer in layers:
            if layer["kind"] == "add":
                prefix = layer["name"][: -len("add")]
                ds = by_name.get(prefix + "downsample")
                blocks.append(Block(ConvUnit(by_name[prefix + "conv1"]), ConvUnit(by_name[prefix + "conv2"]),
                                    ConvUnit(ds) if ds else None))
        self.blocks = nn.Sequential(*blocks)
        self.gap = nn.AdaptiveAvgPool2d(1)
        fc = by_name["fc"]
        self.fc = nn.Linear(*fc["w"].shape)
        with torch.no_grad():
            self.fc.weight.copy_(torch.from_numpy(fc["w"].T.copy()))
            self.fc.bias.copy_(torch.from_numpy(fc["b"]))

    def forward(self, x):
        x = self.pool(self.stem(self.quant(x)))
        x = self.gap(self.blocks(x))
        return self.dequant(self.fc(torch.flatten(x, 1)))


def quantized(layers, x):
    torch.backends.quantized.engine = ENGINE
    model = ResNet18(layers).eval()
    for unit in model.modules():
        if isinstance(unit, ConvUnit) and unit.fusable:
            tq.fuse_modules(unit, [["conv", "relu"]], inplace=True)
    model.qconfig = tq.get_default_qconfig(ENGINE)
    tq.prepare(model, inplace=True)
    with torch.no_grad():
        model(x)
    tq.convert(model, inplace=True)
    return model


def frozen(model, x):
    with torch.no_grad():
        return torch.jit.freeze(torch.jit.trace(model, x))


def prepare(cache):
    torch.manual_seed(0)
    layers = make_resnet18.build_network()
    x = torch.from_numpy(np.load(os.path.join(cache, "resnet18_input.npy")).transpose(0, 3, 1, 2).copy())
    x.numpy().tofile(os.path.join(cache, "input_nchw.bin"))
    model = ResNet18(layers).eval()
    with torch.no_grad():
        torch.onnx.export(model, x, os.path.join(cache, "resnet18.onnx"), input_names=["input"],
                          output_names=["output"], opset_version=13)
    for kind, m in (("float", model), ("int8", quantized(layers, x))):
        script = frozen(m, x)
        torch.jit.save(script, os.path.join(cache, "torch_%s.pt" % kind))
        with torch.no_grad():
            np.save(os.path.join(cache, "torch_%s.npy" % kind), script(x).numpy())


def time_runs(cache, kind, threads, runs):
    torch.backends.quantized.engine = ENGINE
    torch.set_num_threads(threads)
    model = torch.jit.load(os.path.join(cache, "torch_%s.pt" % kind))
    x = torch.from_numpy(np.fromfile(os.path.join(cache, "input_nchw.bin"), dtype=np.float32))
    x = x.reshape(1, 3, make_resnet18.H, make_resnet18.W)
    times = []
    with torch.inference_mode():
        for i in range(runs + 3):
            start = time.perf_counter()
            model(x)
            if i >= 3:
                times.append((time.perf_counter() - start) * 1e3)
    print("%.3f" % float(np.median(times)))


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "prepare":
        prepare(sys.argv[2])
    elif len(sys.argv) == 6 and sys.argv[1] == "time":
        time_runs(sys.argv[2], sys.argv[3], int(sys.argv[4]), int(sys.argv[5]))
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
